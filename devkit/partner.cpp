// SPDX-License-Identifier: MIT
#include "devkit/partner.h"

#include <sys/eventfd.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <cstring>
#include <memory>
#include <system_error>
#include <utility>

#include "tevrol/message.h"
#include "tevrol/names.h"

namespace tevrol {
namespace {

constexpr const char* kOwnRole = kServiceRole;
constexpr const char* kRehearsedError = "org.ulmar.tevrol.Error.Rehearsed";

constexpr const char* kLocal = "org.freedesktop.DBus.Local";
constexpr const char* kLocalPath = "/org/freedesktop/DBus/Local";

constexpr std::chrono::microseconds kResendPeriod{500000};

using Kind = PartnerEvent::Kind;

void Check(int result, const std::string& what) {
    if (result < 0) {
        throw std::system_error(-result, std::generic_category(), what);
    }
}

// An error reply need not carry a text.
std::string Describe(const sd_bus_error& error) {
    return std::string(error.name) + ": " + (error.message == nullptr ? "" : error.message);
}

// A request that waits for its reply. Fulfils its promise when that comes or the connection ends.
struct PendingRequest {
    std::promise<PartnerReply> promise;
    bool fulfilled = false;

    void Fulfil(PartnerReply reply) {
        fulfilled = true;
        promise.set_value(std::move(reply));
    }

    static int OnReply(sd_bus_message* message, void* data, sd_bus_error* /*error*/) {
        auto* pending = static_cast<PendingRequest*>(data);
        if (const sd_bus_error* error = sd_bus_message_get_error(message)) {
            pending->Fulfil({.error = Describe(*error)});
        } else if (auto payload = ReadPayload(message)) {
            pending->Fulfil({.ok = true, .payload = std::move(*payload)});
        } else {
            const char* type = sd_bus_message_get_signature(message, 1);
            pending->Fulfil({.error = std::string("reply of type ") + type});
        }
        return 1;
    }

    static void OnDestroy(void* data) {
        const std::unique_ptr<PendingRequest> pending(static_cast<PendingRequest*>(data));
        if (!pending->fulfilled) {
            pending->Fulfil({.error = "left the bus before the reply"});
        }
    }
};

// The moments of an announcement.
struct Moments {
    PartnerFaults::Moment before;
    PartnerFaults::Moment during;
    PartnerFaults::Moment after;
};

Moments MomentsOf(HandshakeStage stage) {
    using Moment = PartnerFaults::Moment;
    switch (stage) {
        case HandshakeStage::Syn:
            return {.before = Moment::BeforeSyn,
                    .during = Moment::DuringSyn,
                    .after = Moment::AfterSyn};
        case HandshakeStage::SynAck:
            return {.before = Moment::BeforeSynAck,
                    .during = Moment::DuringSynAck,
                    .after = Moment::AfterSynAck};
        case HandshakeStage::Ack:
            break;
    }
    return {.before = Moment::BeforeAck, .during = Moment::DuringAck, .after = Moment::AfterAck};
}

std::future<PartnerReply> Failed(const std::string& why) {
    std::promise<PartnerReply> promise;
    promise.set_value({.error = why});
    return promise.get_future();
}

}  // namespace

const char* ToString(HandshakeStage stage) {
    switch (stage) {
        case HandshakeStage::Syn:
            return "SYN";
        case HandshakeStage::SynAck:
            return "SYN_ACK";
        case HandshakeStage::Ack:
            return "ACK";
    }
    return "";
}

Body PayloadBody(Bytes payload) {
    return [payload = std::move(payload)](sd_bus_message* message) {
        return sd_bus_message_append_array(message, 'y', payload.data(), payload.size());
    };
}

Body TextBody(std::string text) {
    return [text = std::move(text)](sd_bus_message* message) {
        return sd_bus_message_append(message, "s", text.c_str());
    };
}

std::string ToString(const PartnerEvent& event) {
    const std::string stage = ToString(event.stage);
    switch (event.kind) {
        case Kind::Joined:
            return "joined " + event.peer;
        case Kind::Heard:
            return "heard " + stage + " from " + event.peer;
        case Kind::Announced:
            return "announced " + stage;
        case Kind::Refused:
            return "refused " + stage + ": " + event.text;
        case Kind::Bound:
            return "bound " + event.peer;
        case Kind::Ready:
            return "ready " + event.peer;
        case Kind::Lost:
            return "lost " + event.peer;
        case Kind::Request:
            return "request from " + event.peer + ": " + Describe(event.payload);
        case Kind::Notification:
            return "notification from " + event.peer + ": " + Describe(event.payload);
        case Kind::Malformed:
            return "malformed signal from " + event.peer + ": type \"" + event.text + "\"";
        case Kind::Failed:
            return "failed: " + event.text;
        case Kind::Left:
            return "left";
    }
    return {};
}

Partner::Partner(std::string channel, Functions functions, PartnerFaults faults)
    : m_channel(std::move(channel)),
      m_path(kPathPrefix + m_channel),
      m_functions(std::move(functions)),
      m_faults(std::move(faults)) {
    Check(sd_event_new(&m_event), "event loop");
    m_wake = eventfd(0, EFD_CLOEXEC);
    Check(m_wake < 0 ? -errno : 0, "event loop");
    const auto run_posted = [](sd_event_source*, int, uint32_t, void* self) {
        static_cast<Partner*>(self)->RunPosted();
        return 0;
    };
    Check(sd_event_add_io(m_event, nullptr, m_wake, EPOLLIN, run_posted, this), "event loop");
    m_thread = std::thread([this] { sd_event_loop(m_event); });
}

Partner::~Partner() {
    Post([this] {
        LeaveNow();
        sd_event_exit(m_event, 0);
    });
    m_thread.join();
    sd_event_unref(m_event);
    close(m_wake);
}

template <typename Task>
auto Partner::Invoke(Task task) const -> decltype(task()) {
    std::packaged_task<decltype(task())()> packaged(std::move(task));
    auto result = packaged.get_future();
    Post([&packaged] { packaged(); });
    return result.get();
}

void Partner::Post(std::function<void()> task) const {
    const Lock lock(m_mutex);
    m_posted.push_back(std::move(task));
    eventfd_write(m_wake, 1);
}

void Partner::RunPosted() {
    eventfd_t count = 0;
    eventfd_read(m_wake, &count);
    std::deque<std::function<void()>> tasks;
    {
        const Lock lock(m_mutex);
        tasks.swap(m_posted);
    }
    for (const auto& task : tasks) {
        task();
    }
}

// ---- Joining and leaving ----

void Partner::Join() {
    Invoke([this] { JoinNow(); });
}

void Partner::Open() {
    Invoke([this] { Answer(HandshakeStage::Syn); });
}

void Partner::JoinNow() {
    if (m_bus != nullptr) {
        return;
    }
    const bool usable =
        sd_bus_object_path_is_valid(m_path.c_str()) > 0 &&
        sd_bus_service_name_is_valid(Name(kOwnRole, HandshakeStage::SynAck).c_str()) > 0;
    Check(usable ? 0 : -EINVAL, "cannot use the channel name \"" + m_channel + "\"");
    const char* unique_name = nullptr;
    try {
        Check(sd_bus_open_system(&m_bus), "cannot reach the system bus");
        Check(sd_bus_attach_event(m_bus, m_event, SD_EVENT_PRIORITY_NORMAL), "event loop");
        Export();
        Listen<HandshakeStage::Syn>();
        Listen<HandshakeStage::SynAck>();
        Listen<HandshakeStage::Ack>();
        Check(sd_bus_get_unique_name(m_bus, &unique_name), "no unique name");
    } catch (const std::system_error&) {
        LeaveNow();
        throw;
    }
    {
        const Lock lock(m_mutex);
        m_unique_name = unique_name;
    }
    Tell({.kind = Kind::Joined, .peer = unique_name});
}

void Partner::Leave() {
    Invoke([this] { LeaveNow(); });
}

void Partner::LeaveNow() {
    if (m_bus == nullptr) {
        return;
    }
    Unbind();
    for (const auto& [source, reply] : m_late_replies) {
        sd_event_source_disable_unref(source);
        sd_bus_message_unref(reply);
    }
    m_late_replies.clear();
    sd_bus_close(m_bus);
    m_bus = sd_bus_unref(m_bus);
    std::string left;
    {
        const Lock lock(m_mutex);
        left.swap(m_unique_name);
    }
    if (!left.empty()) {
        Tell({.kind = Kind::Left});
    }
}

bool Partner::StopOrLeaveAt(Moment moment) {
    if (m_faults.stop_at == moment) {
        m_faults.stop_at.reset();
        raise(SIGSTOP);  // to this thread, so that it goes no further; it stops the others too
    }
    if (m_faults.leave_at != moment) {
        return false;
    }
    m_faults.leave_at.reset();
    LeaveNow();
    return true;
}

void Partner::Export() {
    static const sd_bus_vtable vtable[] = {
        SD_BUS_VTABLE_START(0),
        SD_BUS_METHOD_WITH_NAMES(kMethod, "ay", SD_BUS_PARAM(data), "ay", SD_BUS_PARAM(response),
                                 ([](sd_bus_message* call, void* self, sd_bus_error*) {
                                     return static_cast<Partner*>(self)->OnRequest(call);
                                 }),
                                 SD_BUS_VTABLE_UNPRIVILEGED),
        SD_BUS_VTABLE_END};
    Check(sd_bus_add_object_vtable(m_bus, nullptr, m_path.c_str(), kInterface, vtable, this),
          "cannot export " + m_path);
    // sd-bus sends no reply from the vtable that has another type than declared. So this handler,
    // which comes before the vtable, sends the wrong one.
    const auto answer_wrongly = [](sd_bus_message* call, void* data, sd_bus_error*) {
        auto* self = static_cast<Partner*>(data);
        return self->m_faults.reply == PartnerFaults::Reply::WrongType &&
                       sd_bus_message_is_method_call(call, kInterface, kMethod) > 0
                   ? self->OnRequest(call)
                   : 0;
    };
    Check(sd_bus_add_object(m_bus, nullptr, m_path.c_str(), answer_wrongly, this),
          "cannot export " + m_path);
    const auto on_disconnected = [](sd_bus_message*, void* self, sd_bus_error*) {
        static_cast<Partner*>(self)->LeaveNow();
        return 0;
    };
    Check(sd_bus_match_signal(m_bus, nullptr, nullptr, kLocalPath, kLocal, "Disconnected",
                              on_disconnected, this),
          "cannot watch the connection");
}

template <HandshakeStage kStage>
void Partner::Listen() {
    const auto hear = [](sd_bus_message* signal, void* self, sd_bus_error*) {
        const auto change = ReadOwnerChange(signal);
        if (change && change->now.empty()) {
            static_cast<Partner*>(self)->OnClientName(kStage, change->before);
        }
        return 0;
    };
    const std::string name = Name(kClientRole, kStage);
    Check(sd_bus_add_match(m_bus, nullptr, OwnerChangeMatch(name).c_str(), hear, this),
          "cannot listen for " + name);
}

// ---- Announcements ----

std::string Partner::Name(const char* role, HandshakeStage stage) const {
    return kNamePrefix + m_channel + role + "_" + ToString(stage);
}

bool Partner::AcquireName(const std::string& name, HandshakeStage stage) {
    const int result = m_bus == nullptr ? -ENOTCONN : sd_bus_request_name(m_bus, name.c_str(), 0);
    if (result < 0) {
        Tell({.kind = Kind::Refused, .stage = stage, .text = name + ": " + strerror(-result)});
    }
    return result >= 0;
}

bool Partner::ReleaseName(const std::string& name) {
    return m_bus != nullptr && sd_bus_release_name(m_bus, name.c_str()) >= 0;
}

bool Partner::Announce(HandshakeStage stage) {
    return Invoke([&] { return AnnounceNow(stage); });
}

bool Partner::AnnounceNow(HandshakeStage stage) {
    const std::string name = Name(kOwnRole, stage);
    if (!AcquireName(name, stage) || StopOrLeaveAt(MomentsOf(stage).during) || !ReleaseName(name)) {
        return false;
    }
    Tell({.kind = Kind::Announced, .stage = stage});
    return true;
}

bool Partner::Acquire(HandshakeStage stage) {
    return Invoke([&] { return AcquireName(Name(kOwnRole, stage), stage); });
}

bool Partner::Release(HandshakeStage stage) {
    return Invoke([&] { return ReleaseName(Name(kOwnRole, stage)); });
}

bool Partner::HoldClientName(HandshakeStage stage) {
    return Invoke([&] { return AcquireName(Name(kClientRole, stage), stage); });
}

bool Partner::ReleaseClientName(HandshakeStage stage) {
    return Invoke([&] { return ReleaseName(Name(kClientRole, stage)); });
}

bool Partner::Answer(HandshakeStage stage) {
    if (StopOrLeaveAt(MomentsOf(stage).before)) {
        return false;
    }
    const bool announced = AnnounceNow(stage);
    if (m_bus == nullptr || (announced && StopOrLeaveAt(MomentsOf(stage).after))) {
        return false;
    }
    // The SYN is announced once, as at the other end.
    if (!announced && stage != HandshakeStage::Syn) {
        m_owed = stage;
        const auto resend = [](sd_event_source*, uint64_t, void* self) {
            static_cast<Partner*>(self)->Resend();
            return 0;
        };
        m_resend = sd_event_source_disable_unref(m_resend);
        Succeeded(sd_event_add_time_relative(m_event, &m_resend, CLOCK_MONOTONIC,
                                             kResendPeriod.count(), 0, resend, this),
                  std::string("repeat the ") + ToString(stage));
    }
    return announced;
}

void Partner::Resend() {
    const auto owed = std::exchange(m_owed, std::nullopt);
    if (owed && Answer(*owed) && *owed == HandshakeStage::Ack) {
        Complete();
    }
}

// ---- Handshake ----

void Partner::OnClientName(HandshakeStage stage, const std::string& announcer) {
    if (announcer == UniqueName()) {
        return;
    }
    Tell({.kind = Kind::Heard, .stage = stage, .peer = announcer});
    const bool bound = !BoundTo().empty();
    if (stage == HandshakeStage::Ack) {
        if (bound) {
            Complete();
        }
        return;
    }
    if (bound) {
        return;
    }
    const bool completes = stage == HandshakeStage::SynAck;
    if (Bind(announcer) && Answer(completes ? HandshakeStage::Ack : HandshakeStage::SynAck) &&
        completes) {
        Complete();
    }
}

void Partner::Complete() {
    {
        const Lock lock(m_mutex);
        m_ready = true;
    }
    Tell({.kind = Kind::Ready, .peer = BoundTo()});
    StopOrLeaveAt(Moment::OnReady);
}

bool Partner::Bind(const std::string& client) {
    const auto on_owner_change = [](sd_bus_message* signal, void* self, sd_bus_error*) {
        const auto change = ReadOwnerChange(signal);
        if (change && change->now.empty()) {
            static_cast<Partner*>(self)->Lose();
        }
        return 0;
    };
    const auto on_signal = [](sd_bus_message* signal, void* self, sd_bus_error*) {
        return static_cast<Partner*>(self)->OnSignal(signal);
    };
    {
        const Lock lock(m_mutex);
        m_client = client;
    }
    Tell({.kind = Kind::Bound, .peer = client});
    if (!Succeeded(sd_bus_add_match(m_bus, &m_client_watch, OwnerChangeMatch(client).c_str(),
                                    on_owner_change, this),
                   "watch " + client) ||
        !Succeeded(sd_bus_match_signal(m_bus, &m_client_signals, client.c_str(), m_path.c_str(),
                                       kInterface, nullptr, on_signal, this),
                   "listen to " + client)) {
        Lose();
        return false;
    }
    // The match does not report a client that was gone before.
    sd_bus_error error{};
    const bool gone = sd_bus_call_method(m_bus, kDriver, kDriverPath, kDriver, "GetNameOwner",
                                         &error, nullptr, "s", client.c_str()) < 0 &&
                      sd_bus_error_has_name(&error, SD_BUS_ERROR_NAME_HAS_NO_OWNER);
    sd_bus_error_free(&error);
    if (gone) {
        Lose();
    }
    return !gone;
}

void Partner::Unbind() {
    {
        const Lock lock(m_mutex);
        m_client.clear();
        m_ready = false;
    }
    m_client_watch = sd_bus_slot_unref(m_client_watch);
    m_client_signals = sd_bus_slot_unref(m_client_signals);
    m_owed.reset();
    m_resend = sd_event_source_disable_unref(m_resend);
}

void Partner::Lose() {
    const std::string client = BoundTo();
    Unbind();
    Tell({.kind = Kind::Lost, .peer = client});
}

// ---- Messages ----

int Partner::OnRequest(sd_bus_message* call) {
    using Habit = PartnerFaults::Reply;
    const Bytes request = ReadPayload(call).value_or(Bytes());
    Tell({.kind = Kind::Request, .peer = sd_bus_message_get_sender(call), .payload = request});
    if (m_faults.reply == Habit::Never || StopOrLeaveAt(Moment::OnRequest)) {
        return 1;
    }
    if (m_faults.reply == Habit::Error) {
        return sd_bus_reply_method_errorf(call, kRehearsedError, "refused on purpose");
    }
    const Body body = m_faults.reply == Habit::WrongType
                          ? m_faults.wrong_body
                          : PayloadBody(m_functions.answer ? m_functions.answer(request) : request);
    sd_bus_message* created = nullptr;
    const int result = sd_bus_message_new_method_return(call, &created);
    const Message reply(created);
    if (result < 0 || body(created) < 0) {
        return sd_bus_reply_method_errorf(call, SD_BUS_ERROR_FAILED, "cannot build the reply");
    }
    if (m_faults.reply == Habit::Late) {
        ReplyLater(created);
        return 1;
    }
    return sd_bus_send(m_bus, created, nullptr);
}

void Partner::ReplyLater(sd_bus_message* reply) {
    const auto send = [](sd_event_source* source, uint64_t, void* data) {
        auto* self = static_cast<Partner*>(data);
        const auto late = self->m_late_replies.find(source);
        const Message due(late->second);
        self->m_late_replies.erase(late);
        self->Succeeded(sd_bus_send(self->m_bus, due.get(), nullptr), "reply late");
        sd_event_source_disable_unref(source);
        return 0;
    };
    const std::chrono::microseconds lateness = m_faults.lateness;
    sd_event_source* source = nullptr;
    if (Succeeded(
            sd_event_add_time_relative(m_event, &source, CLOCK_MONOTONIC,
                                       static_cast<uint64_t>(lateness.count()), 0, send, this),
            "reply late")) {
        m_late_replies[source] = sd_bus_message_ref(reply);
    }
}

int Partner::OnSignal(sd_bus_message* signal) {
    const std::string sender = sd_bus_message_get_sender(signal);
    if (auto payload = ReadPayload(signal)) {
        Tell({.kind = Kind::Notification, .peer = sender, .payload = std::move(*payload)});
    } else {
        Tell({.kind = Kind::Malformed,
              .peer = sender,
              .text = sd_bus_message_get_signature(signal, 1)});
    }
    return 0;
}

std::future<PartnerReply> Partner::Request(Body body) {
    const std::string client = BoundTo();
    if (client.empty() || !IsReady()) {
        return Failed("not ready");
    }
    return RequestOf(client, std::move(body));
}

std::future<PartnerReply> Partner::RequestOf(std::string destination, Body body) {
    return Invoke([&]() -> std::future<PartnerReply> {
        if (m_bus == nullptr) {
            return Failed("not on the bus");
        }
        sd_bus_message* created = nullptr;
        int result = sd_bus_message_new_method_call(m_bus, &created, destination.c_str(),
                                                    m_path.c_str(), kInterface, kMethod);
        const Message call(created);
        if (result >= 0) {
            result = body(created);
        }
        auto pending = std::make_unique<PendingRequest>();
        auto future = pending->promise.get_future();
        sd_bus_slot* slot = nullptr;
        if (result >= 0) {
            result =
                sd_bus_call_async(m_bus, &slot, created, PendingRequest::OnReply, pending.get(), 0);
        }
        if (result < 0) {
            return Failed(std::string("cannot send: ") + strerror(-result));
        }
        // From here on the request belongs to the slot, and the slot to the connection.
        sd_bus_slot_set_destroy_callback(slot, PendingRequest::OnDestroy);
        sd_bus_slot_set_floating(slot, 1);
        sd_bus_slot_unref(slot);
        static_cast<void>(pending.release());
        return future;
    });
}

bool Partner::Notify(Body body, const std::string& member) {
    const std::string client = BoundTo();
    return !client.empty() && NotifyTo(client, std::move(body), member);
}

bool Partner::NotifyTo(std::string destination, Body body, const std::string& member) {
    return Invoke([&] {
        if (m_bus == nullptr) {
            return false;
        }
        sd_bus_message* created = nullptr;
        const int result =
            sd_bus_message_new_signal(m_bus, &created, m_path.c_str(), kInterface, member.c_str());
        const Message signal(created);
        return result >= 0 && sd_bus_message_set_destination(created, destination.c_str()) >= 0 &&
               body(created) >= 0 && sd_bus_send(m_bus, created, nullptr) >= 0;
    });
}

void Partner::Settle() {
    Invoke([this] {
        if (m_bus != nullptr) {
            Succeeded(sd_bus_call_method(m_bus, kDriver, kDriverPath, kDriver, "GetId", nullptr,
                                         nullptr, ""),
                      "ask the bus");
        }
    });
}

// ---- State ----

void Partner::SetFaults(PartnerFaults faults) {
    Invoke([&] { m_faults = std::move(faults); });
}

std::string Partner::UniqueName() const {
    const Lock lock(m_mutex);
    return m_unique_name;
}

std::string Partner::BoundTo() const {
    const Lock lock(m_mutex);
    return m_client;
}

bool Partner::IsReady() const {
    const Lock lock(m_mutex);
    return m_ready;
}

void Partner::Tell(const PartnerEvent& event) const {
    if (m_functions.event) {
        m_functions.event(event);
    }
}

bool Partner::Succeeded(int result, const std::string& what) const {
    if (result < 0) {
        Tell({.kind = Kind::Failed, .text = "cannot " + what + ": " + strerror(-result)});
    }
    return result >= 0;
}

}  // namespace tevrol
