// SPDX-License-Identifier: MIT
#include "programs/tevrolctl/bus/raw-end.h"

#include <utility>

#include "devkit/loop.h"
#include "devkit/outside-text.h"
#include "programs/common/failure.h"

namespace programs {
namespace {

std::string Text(const gchar* text) {
    return text == nullptr ? "" : text;
}

struct Method {
    std::string destination;
    std::string path;
    std::string interface_name;
    std::string name;
};

Answer CallSync(GDBusConnection* connection, const Method& method, GVariant* body, gint limit_ms) {
    Answer answer;
    GError* error = nullptr;
    answer.value.reset(g_dbus_connection_call_sync(
        connection, method.destination.c_str(), method.path.c_str(), method.interface_name.c_str(),
        method.name.c_str(), body, nullptr, G_DBUS_CALL_FLAGS_NONE, limit_ms, nullptr, &error));
    if (error != nullptr) {
        answer.error_name = tevrol::TakeText(g_dbus_error_get_remote_error(error));
        g_dbus_error_strip_remote_error(error);
        answer.error = tevrol::TakeMessage(error);
    }
    return answer;
}

}  // namespace

GVariant* PayloadBody(const tevrol::Bytes& payload) {
    return g_variant_new(
        "(@ay)", g_variant_new_fixed_array(G_VARIANT_TYPE_BYTE, payload.data(), payload.size(), 1));
}

RawEnd::RawEnd(std::string channel)
    : m_channel(std::move(channel)),
      m_inbox(std::make_shared<Inbox>()),
      m_connection(PrivateConnection()) {
    m_inbox->channel = m_channel;
    const auto forget = [](gpointer inbox) { delete static_cast<std::shared_ptr<Inbox>*>(inbox); };
    g_dbus_connection_add_filter(m_connection.get(), OnMessage, new std::shared_ptr<Inbox>(m_inbox),
                                 forget);
    // Of all names: they tell the announcements of the service end, and who leaves the bus.
    AddMatch(std::string("type='signal',member='NameOwnerChanged',sender='") + kDriver + "'");
}

RawEnd::~RawEnd() {
    Leave();
}

void RawEnd::AddMatch(const std::string& rule) {
    const Answer answer = CallDriver("AddMatch", g_variant_new("(s)", rule.c_str()));
    if (!answer.value) {
        throw Failure(kExitNoBus, "the bus refuses a match: " + tevrol::Printable(answer.error));
    }
}

void RawEnd::Leave() {
    if (std::exchange(m_joined, false)) {
        g_dbus_connection_close_sync(m_connection.get(), nullptr, nullptr);
    }
}

std::string RawEnd::UniqueName() const {
    return g_dbus_connection_get_unique_name(m_connection.get());
}

// ---- What comes, on GDBus's thread ----

GDBusMessage* RawEnd::OnMessage(GDBusConnection* connection, GDBusMessage* message,
                                gboolean incoming, gpointer inbox) {
    const auto to = *static_cast<std::shared_ptr<Inbox>*>(inbox);
    if (incoming == FALSE) {
        return message;
    }
    if (Text(g_dbus_message_get_sender(message)) == kDriver &&
        Text(g_dbus_message_get_member(message)) == "NameOwnerChanged") {
        to->TakeOwnerChange(message);
    } else if (Text(g_dbus_message_get_interface(message)) == kInterface &&
               to->TakeMessage(connection, message)) {
        g_object_unref(message);
        return nullptr;
    }
    return message;
}

void RawEnd::Inbox::TakeOwnerChange(GDBusMessage* signal) {
    const gchar* name = nullptr;
    const gchar* old_owner = nullptr;
    const gchar* new_owner = nullptr;
    g_variant_get(g_dbus_message_get_body(signal), "(&s&s&s)", &name, &old_owner, &new_owner);
    const gint64 now = g_get_monotonic_time();
    const tevrol::Lock lock(mutex);
    if (*name == ':') {
        if (*new_owner == '\0') {
            left.insert(name);
        }
        return;
    }
    const auto announcement = ParseHandshakeName(name);
    if (!announcement || announcement->channel != channel || announcement->role != kService) {
        return;
    }
    if (*old_owner != '\0' && ignored.count(old_owner) == 0) {
        const auto owner = owners.find(announcement->stage);
        const gint64 held = owner == owners.end() ? 0 : now - owner->second.since;
        heard.push_back({announcement->stage, old_owner, std::chrono::microseconds(held)});
    }
    owners.erase(announcement->stage);
    if (*new_owner != '\0') {
        owners[announcement->stage] = {new_owner, now};
    }
}

bool RawEnd::Inbox::TakeMessage(GDBusConnection* connection, GDBusMessage* message) {
    const tevrol::Lock lock(mutex);
    const auto kind = g_dbus_message_get_message_type(message);
    const bool is_request = kind == G_DBUS_MESSAGE_TYPE_METHOD_CALL;
    if (!takes_messages || (!is_request && kind != G_DBUS_MESSAGE_TYPE_SIGNAL)) {
        return false;
    }
    const Received taken = {is_request, Text(g_dbus_message_get_sender(message)),
                            Text(g_dbus_message_get_path(message)),
                            Text(g_dbus_message_get_member(message)),
                            Text(g_dbus_message_get_signature(message))};
    received.push_back(taken);
    if (is_request) {
        const bool right = taken.member == kMethod && taken.type == "ay";
        GDBusMessage* reply = right ? g_dbus_message_new_method_reply(message)
                                    : g_dbus_message_new_method_error_literal(
                                          message, kInvalidArguments, "takes a payload of type ay");
        if (right) {
            g_dbus_message_set_body(reply, g_dbus_message_get_body(message));
        }
        g_dbus_connection_send_message(connection, reply, G_DBUS_SEND_MESSAGE_FLAGS_NONE, nullptr,
                                       nullptr);
        g_object_unref(reply);
    }
    return true;
}

void RawEnd::TakeMessages() {
    const tevrol::Lock lock(m_inbox->mutex);
    m_inbox->takes_messages = true;
}

void RawEnd::WatchBroadcasts() {
    AddMatch(std::string("type='signal',interface='") + kInterface + "',path='" +
             ObjectPath(m_channel) + "'");
    TakeMessages();
}

std::vector<RawEnd::Received> RawEnd::AllReceived() const {
    const tevrol::Lock lock(m_inbox->mutex);
    return m_inbox->received;
}

std::vector<RawEnd::Heard> RawEnd::All() const {
    const tevrol::Lock lock(m_inbox->mutex);
    return m_inbox->heard;
}

std::string RawEnd::Holder(const std::string& stage) const {
    const tevrol::Lock lock(m_inbox->mutex);
    const auto owner = m_inbox->owners.find(stage);
    return owner == m_inbox->owners.end() ? "" : owner->second.process;
}

void RawEnd::Ignore(const std::string& process) {
    const tevrol::Lock lock(m_inbox->mutex);
    m_inbox->ignored.insert(process);
}

// ---- What it does ----

Answer RawEnd::CallDriver(const char* method, GVariant* parameters) {
    constexpr gint kBusLimitMs = 5000;
    Answer answer = CallSync(m_connection.get(), {kDriver, kDriverPath, kDriver, method},
                             parameters, kBusLimitMs);
    // What the driver itself answers has the name of an error.
    if (!answer.value && answer.error_name.empty()) {
        throw Failure(kExitNoBus, "the bus does not answer: " + tevrol::Printable(answer.error));
    }
    return answer;
}

guint32 RawEnd::Acquire(const char* stage, const char* role) {
    const Answer answer = CallDriver(
        "RequestName",
        g_variant_new("(su)", HandshakeName(m_channel, role, stage).c_str(), kDoNotQueue));
    guint32 code = 0;
    if (answer.value) {
        g_variant_get(answer.value.get(), "(u)", &code);
    }
    return code;
}

void RawEnd::Release(const char* stage, const char* role) {
    CallDriver("ReleaseName", g_variant_new("(s)", HandshakeName(m_channel, role, stage).c_str()));
}

bool RawEnd::Announce(const char* stage) {
    if (Acquire(stage) != kPrimaryOwner) {
        return false;
    }
    Release(stage);
    return true;
}

std::vector<std::string> RawEnd::Queue(const char* stage, const char* role) {
    const Answer answer = CallDriver(
        "ListQueuedOwners", g_variant_new("(s)", HandshakeName(m_channel, role, stage).c_str()));
    std::vector<std::string> queue;
    if (answer.value) {
        // The owner is the first.
        GVariantIter* processes = nullptr;
        const gchar* process = nullptr;
        g_variant_get(answer.value.get(), "(as)", &processes);
        while (g_variant_iter_next(processes, "&s", &process) != FALSE) {
            queue.emplace_back(process);
        }
        g_variant_iter_free(processes);
    }
    return queue;
}

Answer RawEnd::Call(const std::string& destination, const char* method, GVariant* body,
                    std::chrono::milliseconds limit) {
    return CallSync(m_connection.get(), {destination, ObjectPath(m_channel), kInterface, method},
                    body, static_cast<gint>(limit.count()));
}

Answer RawEnd::Introspect(const std::string& destination, std::chrono::milliseconds limit) {
    return CallSync(
        m_connection.get(),
        {destination, ObjectPath(m_channel), "org.freedesktop.DBus.Introspectable", "Introspect"},
        nullptr, static_cast<gint>(limit.count()));
}

void RawEnd::Notify(const std::string& destination, GVariant* body) {
    g_dbus_connection_emit_signal(m_connection.get(), destination.c_str(),
                                  ObjectPath(m_channel).c_str(), kInterface, kNotification, body,
                                  nullptr);
}

std::optional<std::string> RawEnd::Await(const char* stage, std::size_t since,
                                         std::chrono::milliseconds limit) {
    std::optional<std::string> announcer;
    tevrol::IterateUntil(
        [&] {
            const tevrol::Lock lock(m_inbox->mutex);
            for (std::size_t i = since; i < m_inbox->heard.size() && !announcer; ++i) {
                if (m_inbox->heard[i].stage == stage) {
                    announcer = m_inbox->heard[i].announcer;
                }
            }
            return announcer.has_value();
        },
        limit);
    return announcer;
}

bool RawEnd::IsOnTheBus(const std::string& process) {
    const Answer answer = CallDriver("NameHasOwner", g_variant_new("(s)", process.c_str()));
    gboolean has_owner = FALSE;
    if (answer.value) {
        g_variant_get(answer.value.get(), "(b)", &has_owner);
    }
    return has_owner != FALSE;
}

bool RawEnd::AwaitLoss(const std::string& process, std::chrono::milliseconds limit) {
    return tevrol::IterateUntil(
        [&] {
            const tevrol::Lock lock(m_inbox->mutex);
            return m_inbox->left.count(process) != 0;
        },
        limit);
}

void RawEnd::Settle() {
    CallDriver("GetId", nullptr);
}

}  // namespace programs
