// SPDX-License-Identifier: MIT
// The service end of a channel, for development and tests: the mirror image of TevrolDbusRemote. It
// is written on sd-bus, so a second implementation of D-Bus checks everything on the wire.
//
// It announces the "_SERVICE" names, listens for the "_CLIENT" names, exports the same object, and
// can be told to misbehave. It has a thread and a bus connection of its own. Any other thread may
// call the public operations; the functions `answer` and `event` run on its own thread and may not.
#pragma once

#include <systemd/sd-bus.h>
#include <systemd/sd-event.h>

#include <chrono>
#include <deque>
#include <functional>
#include <future>
#include <map>
#include <optional>
#include <string>
#include <thread>
#include <utility>

#include "devkit/payload.h"
#include "devkit/thread-safety.h"

namespace tevrol {

enum class HandshakeStage { Syn, SynAck, Ack };

// "SYN", "SYN_ACK" or "ACK".
const char* ToString(HandshakeStage stage);

// Appends the body of a message; a negative errno on failure, as sd_bus_message_append().
using Body = std::function<int(sd_bus_message*)>;

// The one correct body, "ay".
Body PayloadBody(Bytes payload);
// A body of the wrong type "s".
Body TextBody(std::string text);

// What goes wrong on purpose.
struct PartnerFaults {
    enum class Reply { Correct, Never, Late, Error, WrongType };
    enum class Moment {
        BeforeSyn,     // on the bus, before the SYN
        DuringSyn,     // while owning the SYN name: the bus releases it
        AfterSyn,      // as soon as the SYN is announced
        BeforeSynAck,  // on hearing a SYN
        DuringSynAck,
        AfterSynAck,
        BeforeAck,  // on hearing a SYN_ACK
        DuringAck,
        AfterAck,
        OnReady,    // on completing the handshake
        OnRequest,  // on a request, instead of the reply
    };

    Reply reply = Reply::Correct;
    std::chrono::milliseconds lateness{1000};     // Reply::Late
    Body wrong_body = TextBody("no byte array");  // Reply::WrongType
    std::optional<Moment> leave_at;               // drops its bus connection then, once
    std::optional<Moment> stop_at;                // stops its process (SIGSTOP) then, once
};

// What happened to a partner, in order.
struct PartnerEvent {
    enum class Kind {
        Joined,        // peer: its own unique name
        Heard,         // a client name was released; stage, peer: by whom
        Announced,     // stage
        Refused,       // an announcement failed; stage, text: why
        Bound,         // peer
        Ready,         // peer
        Lost,          // peer
        Request,       // peer, payload
        Notification,  // peer, payload
        Malformed,     // a signal of another type than "ay"; peer, text: the type
        Failed,        // sd-bus could not do what the protocol asks for; text: what, and why
        Left,          // gone from the bus, by itself or because the bus is gone
    };
    Kind kind;
    HandshakeStage stage = HandshakeStage::Syn;
    std::string peer{};
    std::string text{};
    Bytes payload{};
};

// One line for people: "ready :1.7", "request from :1.7: 5 bytes "hello"".
std::string ToString(const PartnerEvent& event);

// The outcome of a request that the partner made.
struct PartnerReply {
    bool ok = false;
    Bytes payload{};
    std::string error{};  // D-Bus error name and message, where not ok
};

class Partner {
public:
    struct Functions {
        std::function<Bytes(const Bytes&)> answer;       // echoes where empty
        std::function<void(const PartnerEvent&)> event;  // nothing where empty
    };

    // Joins nothing yet. `channel` must be usable in a bus name and as an object path element.
    explicit Partner(std::string channel, Functions functions = {}, PartnerFaults faults = {});
    // Leaves the bus.
    ~Partner();
    Partner(const Partner&) = delete;
    Partner& operator=(const Partner&) = delete;

    // Connects to the system bus as sd-bus finds it (DBUS_SYSTEM_BUS_ADDRESS), exports the object
    // and listens, so that it answers the other end. Throws std::system_error when the bus cannot
    // be reached or the channel name cannot be used.
    void Join();
    // Opens the handshake: announces its SYN, once, as the other end does at construction.
    void Open();
    // Closes the connection without a word, as a process that ends does.
    void Leave();

    void SetFaults(PartnerFaults faults);

    std::string UniqueName() const;  // empty when not joined
    std::string BoundTo() const;     // empty when not bound
    bool IsReady() const;

    // Acquires and releases its own name of that stage, in any state. False when refused.
    bool Announce(HandshakeStage stage);
    // The two steps of an announcement.
    bool Acquire(HandshakeStage stage);
    bool Release(HandshakeStage stage);
    // Owns one of the client's names, so that its announcement fails, until released.
    bool HoldClientName(HandshakeStage stage);
    bool ReleaseClientName(HandshakeStage stage);

    // Calls "Send" on the client's object. Fails at once when not ready. The future is always
    // fulfilled, at the latest by sd-bus's timeout after 25 s.
    std::future<PartnerReply> Request(Body body);
    std::future<PartnerReply> Request(Bytes payload) {
        return Request(PayloadBody(std::move(payload)));
    }
    // Calls it on the object of the process `destination`, bound or not.
    std::future<PartnerReply> RequestOf(std::string destination, Body body);
    // Sends "SendSignal", or another member, to the bound client; false when none is.
    bool Notify(Body body, const std::string& member = "SendSignal");
    bool Notify(Bytes payload) {
        return Notify(PayloadBody(std::move(payload)));
    }
    bool NotifyTo(std::string destination, Body body, const std::string& member = "SendSignal");

    // Returns when the bus has processed all that this partner has sent so far.
    void Settle();

private:
    using Moment = PartnerFaults::Moment;

    // Runs `task` on the partner's thread and returns its result.
    template <typename Task>
    auto Invoke(Task task) const -> decltype(task());
    void Post(std::function<void()> task) const;
    void RunPosted();

    // All below: on the partner's thread.
    void JoinNow();
    void LeaveNow();
    // Stops or leaves if the faults say so for this moment. True when it has left.
    bool StopOrLeaveAt(Moment moment);
    void Export();
    template <HandshakeStage kStage>
    void Listen();
    std::string Name(const char* role, HandshakeStage stage) const;
    bool AcquireName(const std::string& name, HandshakeStage stage);
    bool ReleaseName(const std::string& name);
    bool AnnounceNow(HandshakeStage stage);
    // A handshake announcement with its faults. A SYN_ACK or ACK that is refused is repeated every
    // half second while the client stays bound. True when it was announced and the partner is still
    // on the bus.
    bool Answer(HandshakeStage stage);
    void Resend();
    // False when the client cannot be watched or has left the bus already. Then it is not bound.
    bool Bind(const std::string& client);
    void Unbind();
    void Lose();
    void Complete();
    void OnClientName(HandshakeStage stage, const std::string& announcer);
    int OnRequest(sd_bus_message* call);
    void ReplyLater(sd_bus_message* reply);
    int OnSignal(sd_bus_message* signal);
    void Tell(const PartnerEvent& event) const;
    // Whether a call of sd-bus has succeeded. If not, tells that `what` cannot be done.
    bool Succeeded(int result, const std::string& what) const;

    const std::string m_channel;
    const std::string m_path;
    const Functions m_functions;

    mutable Mutex m_mutex;
    mutable std::deque<std::function<void()>> m_posted TEVROL_GUARDED_BY(m_mutex);
    std::string m_unique_name TEVROL_GUARDED_BY(m_mutex);
    std::string m_client TEVROL_GUARDED_BY(m_mutex);
    bool m_ready TEVROL_GUARDED_BY(m_mutex) = false;

    // On the partner's thread only.
    PartnerFaults m_faults;
    sd_event* m_event = nullptr;
    sd_bus* m_bus = nullptr;
    sd_bus_slot* m_client_watch = nullptr;
    sd_bus_slot* m_client_signals = nullptr;
    std::optional<HandshakeStage> m_owed;
    sd_event_source* m_resend = nullptr;
    std::map<sd_event_source*, sd_bus_message*> m_late_replies;

    int m_wake = -1;  // eventfd: something was posted
    std::thread m_thread;
};

}  // namespace tevrol
