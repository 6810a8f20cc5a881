// SPDX-License-Identifier: MIT
#include "tests/conformance/stub-world.h"

#include <algorithm>
#include <utility>

#include "platform/dlog.h"
#include "tests/support/device-log.h"

// NOLINTNEXTLINE(bugprone-reserved-identifier): the linker's name of g_variant_unref()
extern "C" void __real_g_variant_unref(GVariant*);

namespace {

StubWorld* g_world = nullptr;

constexpr guint kFirstId = 101;  // no id may be taken for a count or a flag

std::string Join(const std::vector<std::string>& parts) {
    std::string joined;
    for (const std::string& part : parts) {
        joined += (joined.empty() ? "" : ", ") + part;
    }
    return joined;
}

GLogWriterOutput TakeGlibReport(GLogLevelFlags /*level*/, const GLogField* fields, gsize count,
                                gpointer /*data*/) {
    for (gsize i = 0; i < count && g_world != nullptr; ++i) {
        if (std::string(fields[i].key) == "MESSAGE") {
            g_world->GlibReport(static_cast<const char*>(fields[i].value));
        }
    }
    return G_LOG_WRITER_HANDLED;
}

const bool g_taking_reports = [] {
    g_log_set_writer_func(TakeGlibReport, nullptr, nullptr);
    return true;
}();

std::string OfHandle(pthread_t thread) {
    return thread == 0 ? "0" : "thread#" + std::to_string(thread);
}

}  // namespace

bool TakeLogLine(int log_id, int priority, const char* tag, const char* text) {
    const StubWorld::Outside outside;
    return g_world->Log(log_id, priority, tag, text);
}

void Unref(GVariant* value) {
    __real_g_variant_unref(value);
}

std::string Quoted(const char* text) {
    if (text == nullptr) {
        return "null";
    }
    gchar* escaped = g_strescape(text, nullptr);
    std::string quoted = '"' + std::string(escaped) + '"';
    g_free(escaped);
    return quoted;
}

StubWorld::StubWorld() {
    g_world = this;
    Name(Connection(), "connection");
    Name(Invocation(), "invocation");
    Name(&TevrolDbusRemote::m_vtable, "m_vtable");
    const auto name_function = [this](auto function, const char* name) {
        Name(reinterpret_cast<const void*>(function), name);
    };
    name_function(&TevrolDbusRemote::cb_SynNameOwnerChanged, "cb_SynNameOwnerChanged");
    name_function(&TevrolDbusRemote::cb_SynAckNameOwnerChanged, "cb_SynAckNameOwnerChanged");
    name_function(&TevrolDbusRemote::cb_AckNameOwnerChanged, "cb_AckNameOwnerChanged");
    name_function(&TevrolDbusRemote::cb_PartnerNameVanished, "cb_PartnerNameVanished");
    name_function(&TevrolDbusRemote::cb_SignalCall, "cb_SignalCall");
    name_function(&TevrolDbusRemote::TimerThread, "TimerThread");
}

StubWorld::~StubWorld() {
    g_world = nullptr;
    for (GVariant* reply : m_replies) {
        if (m_held.count(reply) != 0) {
            Unref(reply);  // the channel has kept its reference, as it does
        }
        Unref(reply);
    }
    if (answer != nullptr) {
        Unref(answer);
    }
}

StubWorld* StubWorld::Current() {
    return g_world;
}

void StubWorld::FailNext(const std::string& function, Failure failure) {
    plan = [function, failure,
            done = false](const FailableCall& call) mutable -> std::optional<Failure> {
        if (done || (call.function != function && call.method != function)) {
            return std::nullopt;
        }
        done = true;
        return failure;
    };
}

void StubWorld::AnswerWith(GVariant* reply) {
    if (answer != nullptr) {
        Unref(answer);
    }
    answer = g_variant_ref_sink(reply);
}

void StubWorld::Record(bool on) {
    m_recording = on;
}

std::string StubWorld::Text() const {
    std::string text;
    for (const Event& event : m_events) {
        text += event.text + "\n";
    }
    return text;
}

GDBusConnection* StubWorld::Connection() {
    static char connection;
    return reinterpret_cast<GDBusConnection*>(&connection);
}

GDBusMethodInvocation* StubWorld::Invocation() {
    static char invocation;
    return reinterpret_cast<GDBusMethodInvocation*>(&invocation);
}

void StubWorld::Name(const void* object, const std::string& name) {
    const Outside outside;
    m_names[object] = name;
}

std::set<std::string> StubWorld::Held() const {
    std::set<std::string> held;
    for (const auto& [object, name] : m_held) {
        held.insert(name);
    }
    for (const guint id : m_held_ids) {
        held.insert(m_ids.at(id));
    }
    return held;
}

std::size_t StubWorld::CountHeld(const std::string& kind) const {
    const auto is_of_kind = [&](const std::string& name) {
        return name.compare(0, name.find('#'), kind) == 0;
    };
    const auto objects = std::count_if(m_held.begin(), m_held.end(),
                                       [&](const auto& held) { return is_of_kind(held.second); });
    const auto ids = std::count_if(m_held_ids.begin(), m_held_ids.end(),
                                   [&](guint id) { return is_of_kind(m_ids.at(id)); });
    return static_cast<std::size_t>(objects + ids);
}

bool StubWorld::Watches(const std::string& name) const {
    return std::any_of(m_watched.begin(), m_watched.end(),
                       [&](const auto& watch) { return watch.second == name; });
}

// ---- Events ----

std::optional<Failure> StubWorld::Decide(const MadeCall& call, Ending ending) {
    if (on_call) {
        on_call(call);
    }
    switch (ending) {
        case Ending::Succeeds:
            return std::nullopt;
        case Ending::IsRefused:
            return Failure{false, {}};
        default:
            return Plan(call, ending == Ending::MayFailWithError);
    }
}

std::optional<Failure> StubWorld::Plan(const MadeCall& call, bool takes_error) {
    m_failable.push_back({static_cast<int>(m_failable.size()) + 1, call.function, call.method,
                          call.subject, takes_error});
    return plan ? plan(m_failable.back()) : std::nullopt;
}

void StubWorld::RememberCall(const MadeCall& call, Ending ending,
                             const std::optional<Failure>& failure,
                             const std::vector<std::string>& arguments) {
    NoteState();
    Event event{Event::Kind::Call, std::string(call.function) + "(" + Join(arguments) + ")",
                call.function};
    event.method = call.method;
    event.subject = call.subject;
    if (failure) {
        event.failed = true;
        event.with_error =
            ending == Ending::MayFailWithError && failure->with_error && !failure->code;
        event.code = failure->code;
    }
    Remember(event);
}

bool StubWorld::Log(int log_id, int priority, const std::string& tag, const std::string& text) {
    Demand(log_id == LOG_ID_MAIN, "a line goes to the main buffer");
    Demand(priority == DLOG_DEBUG || priority == DLOG_ERROR, "a line is for debugging or an error");
    Demand(tag == "sandrel", "a line carries the tag");
    if (m_channel != nullptr && m_channel_end != nullptr && !m_channel_readable &&
        text.find("] Constructor\n\n") != std::string::npos) {
        m_channel_readable = true;  // all members are initialised by now
    }
    const bool fails = Plan({"__dlog_print"}, false).has_value();
    if (!m_recording) {
        return !fails;
    }
    std::string shown = text;
    Event event{Event::Kind::Log, "", ""};
    if (const auto line = ParseLogLine(text)) {
        event.function = line->function;
        event.message = line->message;
        shown = line->file + ": " + line->function + "(N) > [" + line->function + ":N] " +
                line->message;
    }
    event.priority = priority;
    event.failed = fails;
    const std::string buffer =
        log_id == LOG_ID_MAIN ? "LOG_ID_MAIN" : "buffer " + std::to_string(log_id);
    const std::string level = priority == DLOG_DEBUG   ? "DLOG_DEBUG"
                              : priority == DLOG_ERROR ? "DLOG_ERROR"
                                                       : "priority " + std::to_string(priority);
    event.text =
        "__dlog_print(" + Join({buffer, level, Quoted(tag.c_str()), Quoted(shown.c_str())}) + ")";
    NoteState();
    Remember(event);
    return !fails;
}

void StubWorld::Handler(const std::string& function, const std::string& arguments) {
    NoteState();
    Remember({Event::Kind::Handler,
              "-> " + function + "(" + arguments + ")" + (Locked() ? " under the lock" : ""),
              function});
}

void StubWorld::GlibReport(const std::string& text) {
    Remember({Event::Kind::Call, "GLib reports " + Quoted(text.c_str()), "GLib"});
}

void StubWorld::Remember(Event event) {
    if (m_recording) {
        m_events.push_back(std::move(event));
    }
}

void StubWorld::Demand(bool holds, const char* what) {
    const Outside outside;
    if (!holds) {
        m_misuses.emplace_back(what);
    }
}

// ---- The channel's members ----

void StubWorld::BeginChannel(TevrolDbusRemote* channel, std::size_t size) {
    const Outside outside;
    m_channel = channel;
    m_channel_end = reinterpret_cast<const char*>(channel) + size;
    m_channel_readable = false;
    m_state.clear();
    Name(channel, "channel");
    Name(&channel->m_mutex, "m_mutex");
    Name(&channel->m_timerThread, "&m_timerThread");
}

void StubWorld::EndChannel() {
    m_channel_readable = false;
}

// Writes down which members have changed since the last event, so that it shows where among the
// calls they did.
void StubWorld::NoteState(bool with_map) {
    if (!m_channel_readable) {
        return;
    }
    const TevrolDbusRemote& channel = *m_channel;
    std::vector<std::pair<std::string, std::string>> now = {
        {"m_name", Quoted(channel.m_name.c_str())},
        {"m_public_dbus_name", Quoted(channel.m_public_dbus_name.c_str())},
        {"m_partner_dbus_name", Quoted(channel.m_partner_dbus_name.c_str())},
        {"m_object_name", Quoted(channel.m_object_name.c_str())},
        {"m_introspection_data", Of(channel.m_introspection_data)},
        {"m_owner_id", OfId(channel.m_owner_id)},
        {"m_reg_obj_id", OfId(channel.m_reg_obj_id)},
        {"m_notification_watch_syn", OfId(channel.m_notification_watch_syn)},
        {"m_notification_watch_syn_ack", OfId(channel.m_notification_watch_syn_ack)},
        {"m_notification_watch_ack", OfId(channel.m_notification_watch_ack)},
        {"m_proxy_watch", OfId(channel.m_proxy_watch)},
        {"m_proxy", Of(channel.m_proxy)},
        {"m_signal_id", OfId(channel.m_signal_id)},
        {"m_handshake", std::to_string(channel.m_handshake)},
        {"m_connection", Of(channel.m_connection)},
        {"m_timerThread", OfHandle(channel.m_timerThread)}};
    if (with_map) {
        std::string entries;
        for (const auto& [partner, suffix] : channel.m_resendHandshake) {
            entries.append(entries.empty() ? "" : ", ").append(partner).append(": ").append(suffix);
        }
        now.emplace_back("m_resendHandshake", "{" + entries + "}");
    }
    for (const auto& [field, value] : now) {
        const auto known = m_state.find(field);
        if (known == m_state.end() || known->second != value) {
            m_state[field] = value;
            Remember({Event::Kind::State,
                      std::string("  ").append(field).append(" = ").append(value), field});
        }
    }
}

// ---- Names ----

std::string StubWorld::Of(const void* object) const {
    if (object == nullptr) {
        return "null";
    }
    const auto found = m_names.find(object);
    return found == m_names.end() ? "(unknown)" : found->second;
}

std::string StubWorld::OfId(guint id) const {
    const auto found = m_ids.find(id);
    return found == m_ids.end() ? std::to_string(id) : found->second;
}

std::string StubWorld::OfValue(GVariant* value) const {
    if (value == nullptr) {
        return "null";
    }
    const auto found = m_names.find(value);
    if (found != m_names.end()) {
        return found->second;
    }
    gchar* printed = g_variant_print(value, TRUE);
    std::string text = printed;
    g_free(printed);
    return text;
}

std::string StubWorld::OfError(GError** error) const {
    if (error == nullptr) {
        return "null";
    }
    return *error == nullptr ? "&error" : "&" + Of(*error);
}

std::string StubWorld::NewName(const char* kind) {
    return std::string(kind) + "#" + std::to_string(++m_counters[kind]);
}

void StubWorld::Hold(const void* object, const char* kind) {
    const Outside outside;
    HoldAs(object, NewName(kind).c_str());
}

void StubWorld::HoldAs(const void* object, const char* name) {
    const Outside outside;
    m_names[object] = name;
    m_held[object] = name;
}

void StubWorld::Release(const void* object) {
    m_held.erase(object);
    m_names.erase(object);
}

bool StubWorld::Holds(const void* object) const {
    return m_held.count(object) != 0;
}

guint StubWorld::NewId(const char* kind) {
    const Outside outside;
    const guint id = kFirstId + static_cast<guint>(m_ids.size());
    m_ids[id] = NewName(kind);
    m_held_ids.insert(id);
    return id;
}

guint StubWorld::Register() {
    return NewId("registration");
}

guint StubWorld::Watch(const char* name) {
    const Outside outside;
    const guint id = NewId("watch");
    m_watched[id] = name;
    return id;
}

void StubWorld::Unwatch(guint id) {
    if (m_watched.erase(id) == 1) {
        m_held_ids.erase(id);
    }
}

guint StubWorld::Subscribe(const char* sender) {
    const Outside outside;
    const guint id = NewId("subscription");
    m_subscribed[id] = sender;
    return id;
}

void StubWorld::Unsubscribe(guint id) {
    Demand(m_subscribed.erase(id) == 1, "a subscription is given up once");
    m_held_ids.erase(id);
}

void StubWorld::SetError(GError** error, int code) {
    const Outside outside;
    if (error != nullptr) {
        g_set_error_literal(error, G_IO_ERROR, code, "failed on purpose");
        Hold(*error, "error");
    }
}

GVariant* StubWorld::Reply(GVariant* value) {
    const Outside outside;
    m_replies.push_back(g_variant_ref_sink(value));
    Hold(value, "reply");
    return g_variant_ref(value);
}

// Keeps the name: the value lives on here.
void StubWorld::ReleaseReply(GVariant* value) {
    m_held.erase(value);
}

// ---- Threads ----

pthread_t StubWorld::StartThread(void* (*start)(void*), void* argument) {
    const Outside outside;
    Demand(m_threads.empty(), "there is one resend thread at most");
    m_threads[++m_last_thread] = {start, argument, false};
    return m_last_thread;
}

pthread_t StubWorld::HandleOfNoThread() {
    const Outside outside;
    m_handles_of_none.insert(++m_last_thread);
    return m_last_thread;
}

void* StubWorld::RunThread(pthread_t thread) {
    const auto found = m_threads.find(thread);
    Demand(found != m_threads.end() && !found->second.runs, "the thread that is run is there");
    found->second.runs = true;
    void* const result = found->second.start(found->second.argument);
    m_threads.erase(found);
    return result;
}

// ---- The lock ----

bool StubWorld::OwnsMutex(const void* mutex) const {
    return m_names.count(mutex) != 0;
}

bool StubWorld::LockMutex(const void* mutex) {
    const Outside outside;
    return m_locked.insert(mutex).second;
}

bool StubWorld::UnlockMutex(const void* mutex) {
    return m_locked.erase(mutex) != 0;
}
