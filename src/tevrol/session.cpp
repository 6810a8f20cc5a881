// SPDX-License-Identifier: MIT
// The engine's dealings with the bus and with the partner. All of it runs under the engine's lock.
#include <fcntl.h>
#include <sys/socket.h>

#include <algorithm>
#include <array>
#include <exception>
#include <utility>

#include "tevrol/engine.h"
#include "tevrol/log.h"
#include "tevrol/names.h"

namespace tevrol {
namespace {

using std::chrono::milliseconds;

// Pauses between attempts to connect.
constexpr milliseconds kFirstConnectPause{100};
constexpr milliseconds kLongestConnectPause{5000};
// Pauses between announcements. The handshake bounds the number of doublings.
constexpr milliseconds kFirstPause{250};
constexpr milliseconds kLongestPauseUntilReady{15000};
constexpr unsigned kDoublingsUntilReady = 6;

constexpr int kNames = 3;  // of the other role, one for each stage

constexpr const char* kAccessDenied = "org.freedesktop.DBus.Error.AccessDenied";
constexpr const char* kNotSupported = "org.freedesktop.DBus.Error.NotSupported";
constexpr const char* kNoOwner = "org.freedesktop.DBus.Error.NameHasNoOwner";

std::string ErrorText(sd_bus_message* reply) {
    const sd_bus_error* error = sd_bus_message_get_error(reply);
    return std::string(error->name) + (error->message == nullptr ? "" : ": ") +
           (error->message == nullptr ? "" : error->message);
}

bool IsError(sd_bus_message* reply) {
    return sd_bus_message_is_method_error(reply, nullptr) > 0;
}

// The one argument "u" of a reply of the driver's; nothing where it cannot be read.
std::optional<std::uint32_t> ReadNumber(sd_bus_message* reply) {
    std::uint32_t number = 0;
    return sd_bus_message_read(reply, "u", &number) < 0 ? std::nullopt
                                                        : std::optional<std::uint32_t>(number);
}

const char* SuffixOf(Stage stage) {
    if (stage == Stage::Ack) {
        return kAckSuffix;
    }
    return stage == Stage::Syn ? kSynSuffix : kSynAckSuffix;
}

const char* SuffixOf(Role role) {
    return role == Role::Client ? kClientRole : kServiceRole;
}

Role OtherRole(Role role) {
    return role == Role::Client ? Role::Service : Role::Client;
}

std::string ActiveName(const std::string& channel, Role role) {
    return kNamePrefix + channel + SuffixOf(role);
}

// Reads "a{sv}" of GetConnectionCredentials.
std::optional<Credentials> ReadCredentials(sd_bus_message* reply) {
    Credentials credentials{-1, -1};
    if (sd_bus_message_enter_container(reply, 'a', "{sv}") < 0) {
        return std::nullopt;
    }
    while (sd_bus_message_enter_container(reply, 'e', "sv") > 0) {
        const char* key = "";
        sd_bus_message_read(reply, "s", &key);
        const std::string name = key;
        if (name == "ProcessID" || name == "UnixUserID") {
            std::uint32_t value = 0;
            sd_bus_message_read(reply, "v", "u", &value);
            (name == "ProcessID" ? credentials.pid : credentials.uid) = value;
        } else {
            sd_bus_message_skip(reply, "v");
        }
        sd_bus_message_exit_container(reply);
    }
    return credentials.pid < 0 || credentials.uid < 0 ? std::nullopt
                                                      : std::optional<Credentials>(credentials);
}

}  // namespace

// ---- The bus ----

void Engine::Connect() {
    try {
        m_bus = Wire::ToBus(m_options.address, m_path, *this);
    } catch (const std::exception& failure) {
        OnConnectFailed(failure.what());
    }
}

void Engine::OnConnectFailed(const std::string& why) {
    // Once, not every few seconds for as long as there is no bus.
    if (m_failed_connects == 0) {
        LogError(m_name, "no bus: " + why);
    }
    const Clock::duration pause = std::min(
        kFirstConnectPause * (1U << std::min(m_failed_connects, 6U)), kLongestConnectPause);
    ++m_failed_connects;
    m_connect_at = Clock::now() + pause;
}

void Engine::OnBusReady() {
    m_unique_name = m_bus->UniqueName();
    if (m_unique_name.empty()) {
        m_bus->Break();
        return;
    }
    m_bus_ready = true;
    m_listening = 0;
    LogDebug(m_name, "on the bus as " + m_unique_name);
    for (const Stage stage : {Stage::Syn, Stage::SynAck, Stage::Ack}) {
        const Message call = NewDriverCall("AddMatch");
        sd_bus_message_append(call.get(), "s",
                              OwnerChangeMatch(NameOf(OtherRole(m_role), stage)).c_str());
        m_bus->Call(call.get(), [this](sd_bus_message* reply) { OnListening(reply); });
    }
}

void Engine::OnListening(sd_bus_message* reply) {
    if (IsError(reply)) {
        const std::string why = "the bus does not report names: " + ErrorText(reply);
        LeaveBus();
        OnConnectFailed(why);
        return;
    }
    if (++m_listening == kNames) {
        m_failed_connects = 0;
        Do(m_handshake.Connected(m_unique_name));
        RequestActiveName();
    }
}

// For as long as this end lives it owns its role's name. Another end of the same role waits in the
// bus's queue for the name, and takes over when this one ends.
void Engine::RequestActiveName() {
    const Message call = NewDriverCall("RequestName");
    sd_bus_message_append(call.get(), "su", ActiveName(m_name, m_role).c_str(), 0U);
    m_bus->Call(call.get(), [this](sd_bus_message* reply) { OnActiveName(reply); });
}

void Engine::OnActiveName(sd_bus_message* reply) {
    if (IsError(reply)) {
        LogError(m_name, "no standby: the bus refuses the name " + ActiveName(m_name, m_role) +
                             ": " + ErrorText(reply));
        Do(m_handshake.Active(true));
        return;
    }
    const auto owner = ReadNumber(reply);
    if (!owner) {
        m_bus->Break();
        return;
    }
    const bool active = *owner == kPrimaryOwner;
    LogDebug(m_name, active ? "the active end" : "stands by: another end of this role is active");
    Do(m_handshake.Active(active));
}

void Engine::LeaveBus() {
    DropLink();
    m_bus_out.reset();
    m_credentials.reset();
    m_handshake_timer.reset();
    m_bus_ready = false;
    if (m_bus) {
        m_poller.Forget(m_bus->Fd());
        m_ended.push_back(std::move(m_bus));
    }
}

void Engine::OnBusBroken() {
    const std::string why = m_bus_ready ? "the connection has ended" : "cannot connect";
    LeaveBus();
    Do(m_handshake.Disconnected());
    OnConnectFailed(why);
}

Message Engine::NewDriverCall(const char* method) const {
    return m_bus->NewCall(kDriver, kDriverPath, kDriver, method);
}

std::string Engine::NameOf(Role role, Stage stage) const {
    return kNamePrefix + m_name + SuffixOf(role) + SuffixOf(stage);
}

// Do() calls itself only to add to its queue.
// NOLINTBEGIN(misc-no-recursion)

// Under a new unique name.
void Engine::Rejoin() {
    LogDebug(m_name, "comes back under another unique name: announcements went unanswered");
    LeaveBus();
    Do(m_handshake.Disconnected());
    m_connect_at = Clock::now();
}

// ---- What the handshake wants ----

// In order, also where an action brings the next event at once.
void Engine::Do(const Actions& actions) {
    m_actions.insert(m_actions.end(), actions.begin(), actions.end());
    if (m_acting) {
        return;
    }
    m_acting = true;
    while (!m_actions.empty()) {
        const Action action = std::move(m_actions.front());
        m_actions.pop_front();
        Act(action);
    }
    m_acting = false;
}

void Engine::Act(const Action& action) {
    switch (action.kind) {
        case Action::Kind::Announce:
            if (m_bus) {
                Announce(action.stage);
            }
            break;
        case Action::Kind::Watch:
            Watch(action.peer);
            break;
        case Action::Kind::Unwatch:
            Unwatch(action.peer);
            break;
        case Action::Kind::SetTimer:
            SetHandshakeTimer(action.attempt);
            break;
        case Action::Kind::StopTimer:
            m_handshake_timer.reset();
            break;
        case Action::Kind::TellReady:
            OnPartnerReady(action.peer);
            break;
        case Action::Kind::TellLost:
            OnPartnerLost(action.peer);
            break;
        case Action::Kind::Rejoin:
            Rejoin();
            break;
    }
}

// NOLINTEND(misc-no-recursion)

// Owns the name of the stage for an instant.
void Engine::Announce(Stage stage) {
    const Message call = NewDriverCall("RequestName");
    sd_bus_message_append(call.get(), "su", NameOf(m_role, stage).c_str(), kDoNotQueue);
    m_bus->Call(call.get(), [this, stage](sd_bus_message* reply) {
        const std::string name = NameOf(m_role, stage);
        const std::uint32_t owner = IsError(reply) ? 0 : ReadNumber(reply).value_or(0);
        if (owner == 0 && !IsError(reply)) {
            m_bus->Break();  // the name may be owned now
        } else if (IsError(reply)) {
            LogError(m_name, "cannot announce " + name + ": " + ErrorText(reply));
            Do(m_handshake.Announced(stage, false));
        } else if (owner != kPrimaryOwner && owner != kAlreadyOwner) {
            LogError(m_name, "cannot announce " + name + ": another process owns it");
            Do(m_handshake.Announced(stage, false));
        } else {
            Release(stage, name);
        }
    });
}

void Engine::Release(Stage stage, const std::string& name) {
    const Message call = NewDriverCall("ReleaseName");
    sd_bus_message_append(call.get(), "s", name.c_str());
    m_bus->Call(call.get(), [this, stage](sd_bus_message* reply) {
        const bool ok = !IsError(reply);
        LogLine(ok ? DLOG_DEBUG : DLOG_ERROR, m_name,
                ok ? "announced " + NameOf(m_role, stage)
                   : "cannot release " + NameOf(m_role, stage) + ": " + ErrorText(reply));
        Do(m_handshake.Announced(stage, ok));
    });
}

// The rule comes first: a process that is gone already is never reported by it, so its owner is
// asked for after that.
void Engine::Watch(const std::string& peer) {
    LogDebug(m_name, "binds " + peer);
    const unsigned watch = ++m_watch;
    const Message call = NewDriverCall("AddMatch");
    sd_bus_message_append(call.get(), "s", OwnerChangeMatch(peer).c_str());
    m_bus->Call(call.get(), [this, watch, peer](sd_bus_message* reply) {
        if (watch != m_watch) {
            return;
        }
        if (IsError(reply)) {
            LogError(m_name,
                     "the bus does not report the loss of " + peer + ": " + ErrorText(reply));
            Do(m_handshake.Watched(peer, false));
        } else {
            AskWhoIs(peer);
        }
    });
}

void Engine::AskWhoIs(const std::string& peer) {
    const Message call = NewDriverCall("GetConnectionCredentials");
    sd_bus_message_append(call.get(), "s", peer.c_str());
    m_bus->Call(call.get(), [this, watch = m_watch, peer](sd_bus_message* reply) {
        if (watch != m_watch) {
            return;
        }
        if (sd_bus_message_is_method_error(reply, kNoOwner) > 0) {
            LogDebug(m_name, peer + " is gone already");
            Do(m_handshake.Vanished(peer));
            return;
        }
        m_credentials = IsError(reply) ? std::nullopt : ReadCredentials(reply);
        m_bus_out = std::make_unique<Outbox>(*m_bus, peer, m_path, m_options.queued);
        Do(m_handshake.Watched(peer, true));
    });
}

void Engine::Unwatch(const std::string& peer) {
    ++m_watch;
    m_calls.clear();
    DropLink();
    m_bus_out.reset();
    m_credentials.reset();
    if (m_bus) {
        const Message call = NewDriverCall("RemoveMatch");
        sd_bus_message_append(call.get(), "s", OwnerChangeMatch(peer).c_str());
        sd_bus_message_set_expect_reply(call.get(), 0);
        m_bus->Send(call.get());
    }
}

// Up to a fifth shorter or longer, so that two ends do not go on in step.
void Engine::SetHandshakeTimer(unsigned attempt) {
    auto pause = kFirstPause * (1U << attempt);
    if (attempt <= kDoublingsUntilReady) {
        pause = std::min(pause, kLongestPauseUntilReady);
    }
    const int percent = std::uniform_int_distribution<int>(80, 120)(m_jitter);
    m_handshake_timer = Clock::now() + pause * percent / 100;
}

void Engine::OnPartnerReady(const std::string& partner) {
    LogDebug(m_name, "ready: " + partner);
    m_partner = partner;
    Job job{Job::Kind::Ready};
    job.partner = partner;
    AddJob(std::move(job));
    m_ready = true;
    m_ready_changed.NotifyAll();
    if (m_role == Role::Client && m_options.direct) {
        OfferLink();
    }
}

void Engine::OnPartnerLost(const std::string& partner) {
    if (!m_ready) {
        return;  // there was no memory to tell that it is ready
    }
    LogDebug(m_name, "lost: " + partner);
    DropLink();
    m_calls.clear();
    FinishAll(m_bus ? Error::PartnerLost : Error::NoBus);
    Job job{Job::Kind::Lost};
    job.partner = partner;
    AddJob(std::move(job));
    m_ready = false;  // last: without the memory for all this, it is done again
}

// ---- What arrives ----

// The bus vouches for the sender's name; what comes by the link is the partner's.
bool Engine::IsFromPartner(const Wire& wire, sd_bus_message* message) const {
    if (!wire.IsBus()) {
        return true;
    }
    const char* sender = sd_bus_message_get_sender(message);
    return sender != nullptr && !m_handshake.Partner().empty() && m_handshake.Partner() == sender;
}

void Engine::Refuse(Wire& wire, sd_bus_message* call, const char* error, const char* text) {
    wire.Send(NewError(call, error, text).get());
}

void Engine::OnRequest(Wire& wire, Message call) {
    if (!IsFromPartner(wire, call.get())) {
        Refuse(wire, call.get(), kAccessDenied, "only the partner may request");
        return;
    }
    Do(m_handshake.Heard());
    if (!m_handlers.request && !m_handlers.request_later) {
        Refuse(wire, call.get(), kRefusedError, "this end takes no requests");
        return;
    }
    auto payload = ReadPayload(call.get());
    if (!payload) {
        wire.Break();  // sd-bus has checked the type
        return;
    }
    Job job{Job::Kind::Request};
    job.payload = std::move(*payload);
    job.call = ++m_last_id;
    m_calls[job.call] = {std::move(call), wire.IsBus()};
    AddJob(std::move(job));
}

void Engine::OnSignal(Wire& wire, sd_bus_message* signal) {
    const char* sender = sd_bus_message_get_sender(signal);
    if (wire.IsBus() && sender != nullptr && std::string(sender) == kDriver) {
        OnDriverSignal(signal);
        return;
    }
    const char* path = sd_bus_message_get_path(signal);
    if (path == nullptr || m_path != path || !IsFromPartner(wire, signal)) {
        return;
    }
    if (sd_bus_message_is_signal(signal, kInterface, kSignal) > 0) {
        OnNotification(wire, signal);
    } else if (sd_bus_message_is_signal(signal, kLinkInterface, nullptr) > 0) {
        OnLinkSignal(wire, signal);
    }
}

void Engine::OnNotification(Wire& wire, sd_bus_message* signal) {
    Do(m_handshake.Heard());
    auto payload = ReadPayload(signal);
    if (!payload && sd_bus_message_has_signature(signal, "ay") > 0) {
        wire.Break();
        return;
    }
    if (!payload) {
        LogError(m_name, std::string("a notification of type \"") +
                             sd_bus_message_get_signature(signal, 1) + "\" is dropped");
        return;
    }
    Job job{Job::Kind::Notification};
    job.payload = std::move(*payload);
    AddJob(std::move(job));
}

void Engine::OnDriverSignal(sd_bus_message* signal) {
    const char* name = "";
    if (sd_bus_message_is_signal(signal, kDriver, "NameOwnerChanged") > 0) {
        OnOwnerChange(signal);
    } else if (sd_bus_message_is_signal(signal, kDriver, "NameAcquired") > 0 &&
               sd_bus_message_read(signal, "s", &name) > 0 && name == ActiveName(m_name, m_role) &&
               m_listening == kNames) {
        LogDebug(m_name, "the active end");
        Do(m_handshake.Active(true));
    }
}

void Engine::OnOwnerChange(sd_bus_message* signal) {
    const auto change = ReadOwnerChange(signal);
    if (!change) {
        m_bus->Break();
        return;
    }
    if (!change->now.empty()) {
        return;
    }
    for (const Stage stage : {Stage::Syn, Stage::SynAck, Stage::Ack}) {
        if (change->name == NameOf(OtherRole(m_role), stage)) {
            LogDebug(m_name, change->before + " announced " + change->name);
            Do(m_handshake.Released(stage, change->before));
            return;
        }
    }
    if (change->name == m_handshake.Partner()) {
        ReadLinkToItsEnd();
        Do(m_handshake.Vanished(change->name));
    }
}

// ---- The direct link ----

// The client asks, because the service may be any program that exists already, and a client that
// exists already must not be asked for what it does not know.
void Engine::OfferLink() {
    std::array<int, 2> pair{};
    if (socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0, pair.data()) < 0) {
        LogError(m_name, "no direct link: no descriptor left");
        return;
    }
    Descriptor own(pair[0]);
    const Descriptor others(pair[1]);
    const Message call = m_bus->NewCall(m_partner.c_str(), m_path.c_str(), kLinkInterface, kOpen);
    if (sd_bus_message_append(call.get(), "h", others.Get()) < 0 ||
        !(m_offered = NewLink(std::move(own), Wire::Side::Offering))) {
        LogError(m_name, "no direct link: it cannot be set up");
        return;
    }
    m_bus->Call(call.get(), [this, link = m_links](sd_bus_message* reply) {
        if (link == m_links && m_offered) {
            OnOfferAnswered(reply);
        }
    });
}

// The partner is connected, and has written all that setting up needs. Before that nothing is sent:
// if this end closed meanwhile, it would be lost.
void Engine::OnOfferAnswered(sd_bus_message* reply) {
    std::unique_ptr<Wire> link = std::move(m_offered);
    if (IsError(reply)) {
        LogDebug(m_name, "no direct link: " + ErrorText(reply));
        m_ended.push_back(std::move(link));
        return;
    }
    while (!link->IsReady() && link->Process()) {
    }
    if (!link->IsReady()) {
        // The partner sends over it already, so it is lost to this end.
        m_ended.push_back(std::move(link));
        Do(m_handshake.Vanished(m_partner));
        return;
    }
    m_link = std::move(link);
    // By the bus, behind all that went there.
    Outbox::Item switched;
    switched.message =
        m_bus->NewSignal(m_partner.c_str(), m_path.c_str(), kLinkInterface, kSwitched);
    m_bus_out->Push(std::move(switched));
    m_link_in = true;
    SendByLink();
}

void Engine::OnOpen(Wire& wire, Message call) {
    if (!IsFromPartner(wire, call.get())) {
        Refuse(wire, call.get(), kAccessDenied, "only the partner may open a link");
        return;
    }
    int received = -1;
    if (!m_options.direct || !m_bus_out || sd_bus_message_read(call.get(), "h", &received) < 0) {
        Refuse(wire, call.get(), kNotSupported, "this end takes no direct link");
        return;
    }
    DropLink();
    // The message closes its own.
    m_link = NewLink(Descriptor(fcntl(received, F_DUPFD_CLOEXEC, 0)), Wire::Side::Accepting);
    if (!m_link) {
        Refuse(wire, call.get(), kNotSupported, "the link cannot be set up");
        return;
    }
    m_open = std::move(call);
    while (!m_link->IsReady() && m_link->Process()) {
    }
    AcceptLink();
}

// As soon as the link is set up.
void Engine::AcceptLink() {
    if (!m_open || !m_link->IsReady()) {
        return;
    }
    Outbox::Item accepted;
    accepted.message = NewReturn(m_open.get());
    m_open.reset();
    m_bus_out->Push(std::move(accepted));
    SendByLink();
}

void Engine::SendByLink() {
    LogDebug(m_name, "direct link");
    m_link_out = std::make_unique<Outbox>(*m_link, "", m_path, m_options.queued);
}

std::unique_ptr<Wire> Engine::NewLink(Descriptor socket, Wire::Side side) {
    try {
        return Wire::ToPartner(std::move(socket), side, m_path, *this);
    } catch (const std::exception& failure) {
        LogError(m_name, std::string("no direct link: ") + failure.what());
        return nullptr;
    }
}

void Engine::OnLinkSignal(Wire& wire, sd_bus_message* signal) {
    if (wire.IsBus() && sd_bus_message_is_signal(signal, kLinkInterface, kSwitched) > 0) {
        m_link_in = m_link != nullptr;
    } else if (!wire.IsBus() && sd_bus_message_is_signal(signal, kLinkInterface, kAnswered) > 0) {
        OnAnswered(signal);
    }
}

// The reply to a request that went by the bus before the link was there.
void Engine::AnswerByLink(const IncomingCall& call, const Bytes* payload, const char* error,
                          const char* text) {
    std::uint64_t cookie = 0;
    sd_bus_message_get_cookie(call.message.get(), &cookie);
    Outbox::Item answer;
    answer.message = m_link->NewSignal(nullptr, m_path.c_str(), kLinkInterface, kAnswered);
    sd_bus_message_append(answer.message.get(), "tss", cookie, error, text);
    AppendPayload(answer.message.get(), payload != nullptr ? *payload : Bytes());
    answer.size = payload != nullptr ? payload->size() : 0;
    m_link_out->Push(std::move(answer));
    // The bus counts the call until it is answered there.
    Outbox::Item formal;
    formal.message = NewError(call.message.get(), kAnsweredDirectly, "answered by the direct link");
    m_bus_out->Push(std::move(formal));
    UpdateWaiting();
}

void Engine::OnAnswered(sd_bus_message* signal) {
    std::uint64_t cookie = 0;
    if (sd_bus_message_has_signature(signal, "tssay") <= 0) {
        return;
    }
    if (sd_bus_message_read(signal, "t", &cookie) < 0) {
        m_link->Break();  // the request would wait for ever
        return;
    }
    if (const Wire::OnReply on_reply = m_bus->TakeCall(cookie)) {
        sd_bus_message_rewind(signal, 1);
        on_reply(signal);
    }
}

void Engine::DropLink() {
    ++m_links;
    m_open.reset();
    if (m_offered) {
        m_ended.push_back(std::move(m_offered));
    }
    m_link_out.reset();
    m_link_in = false;
    if (m_link) {
        m_poller.Forget(m_link->Fd());
        m_ended.push_back(std::move(m_link));
        LogDebug(m_name, "the direct link has ended");
    }
}

// The partner's process is gone. What it had sent by the link is still there.
void Engine::ReadLinkToItsEnd() {
    while (m_link && m_link_in && m_link->Process()) {
    }
}

void Engine::OnLinkBroken() {
    const std::string partner = m_handshake.Partner();
    DropLink();
    Do(m_handshake.Vanished(partner));
}

}  // namespace tevrol
