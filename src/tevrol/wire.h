// SPDX-License-Identifier: MIT
// One connection that carries a channel's messages: to the bus, or to the partner itself.
#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <unordered_map>

#include "tevrol/message.h"
#include "tevrol/poller.h"

namespace tevrol {

// What an end of this library answers with where it fails.
constexpr const char* kRefusedError = "org.ulmar.tevrol.Error.Refused";
constexpr const char* kTooLargeError = "org.ulmar.tevrol.Error.TooLarge";
constexpr const char* kFailedError = "org.ulmar.tevrol.Error.Failed";

// Replies. Null where there is no memory for one.
Message NewReturn(sd_bus_message* call);
Message NewReturn(sd_bus_message* call, const Bytes& payload);
Message NewError(sd_bus_message* call, const char* error, const char* text);
// False where the message is null or there is no memory.
bool AppendPayload(sd_bus_message* message, const Bytes& payload);

// Not thread safe: sd-bus counts references without protection, so every use of a wire and of its
// messages happens under the engine's lock. No operation waits.
class Wire {
public:
    // Takes what arrives. Called within Process().
    class Receiver {
    public:
        Receiver() = default;
        virtual ~Receiver() = default;
        Receiver(const Receiver&) = delete;
        Receiver& operator=(const Receiver&) = delete;

        // A call of "Send" with a payload, or of "Open" with a descriptor. It is to be answered.
        virtual void OnRequest(Wire& wire, Message call) = 0;
        virtual void OnOpen(Wire& wire, Message call) = 0;
        virtual void OnSignal(Wire& wire, sd_bus_message* signal) = 0;
        // There was no memory for what a message brings. Does not throw.
        virtual void OnNoMemory() = 0;
    };
    // Takes a reply, or an error (sd_bus_message_get_error).
    using OnReply = std::function<void(sd_bus_message* reply)>;

    // Begins to connect to the bus at `address`, to the system bus where that is empty. Throws
    // std::system_error.
    static std::unique_ptr<Wire> ToBus(const std::string& address, const std::string& path,
                                       Receiver& receiver);
    enum class Side { Offering, Accepting };
    // Begins to talk over one end of a socket pair. Throws std::system_error.
    static std::unique_ptr<Wire> ToPartner(Descriptor socket, Side side, const std::string& path,
                                           Receiver& receiver);

    ~Wire();
    Wire(const Wire&) = delete;
    Wire& operator=(const Wire&) = delete;

    // Writes what waits and takes one message that has arrived. False when there was nothing to do.
    bool Process();
    // The connection has ended, or a message was lost on it.
    bool IsBroken() const {
        return m_broken;
    }
    // Gives the connection up.
    void Break() {
        m_broken = true;
    }
    // The same because there was no memory for a message.
    void OnNoMemory() {
        m_broken = true;
        m_receiver.OnNoMemory();
    }
    // It is set up: on the bus, with a unique name.
    bool IsReady() const {
        return m_ready;
    }
    bool IsBus() const {
        return m_is_bus;
    }
    std::string UniqueName() const;
    int Fd() const {
        return m_fd;
    }
    // The descriptor that Fd() was before, if it has changed since this was asked: a bus may have
    // several addresses.
    std::optional<int> FormerFd();
    // What to wait for (poll(2)), and until when at most: setting up has limits, waiting has none.
    short Events() const;
    std::optional<Deadline> Timeout() const;

    // New messages; null where there is no memory for one. `destination` is null on a wire to the
    // partner.
    Message NewCall(const char* destination, const char* path, const char* interface,
                    const char* method) const;
    Message NewSignal(const char* destination, const char* path, const char* interface,
                      const char* member) const;

    // Sends now, or hands over to sd-bus's own queue. When that fails, the message is lost, and so
    // the wire is broken. A null message counts as a failure.
    void Send(sd_bus_message* message);
    // Sends a call whose reply goes to `on_reply`, unless the wire ends first, or is broken then.
    void Call(sd_bus_message* message, OnReply on_reply);
    // Whether all that was sent has been written.
    bool IsWritten() const;
    // How many calls have no reply yet.
    std::size_t Unanswered() const {
        return m_calls.size();
    }
    // Who waits for the reply to this call; nobody from now on.
    OnReply TakeCall(std::uint64_t cookie);

private:
    Wire(bool is_bus, std::string path, Receiver& receiver);
    void Export();
    template <typename Take>
    void Guard(const Take& take);
    static int OnMethod(sd_bus_message* call, void* data, sd_bus_error* error);
    static int OnMessage(sd_bus_message* message, void* data, sd_bus_error* error);

    const bool m_is_bus;
    const std::string m_path;
    Receiver& m_receiver;
    sd_bus* m_bus = nullptr;
    int m_fd = -1;
    bool m_fd_is_final = false;
    bool m_broken = false;
    bool m_ready = false;
    std::unordered_map<std::uint64_t, OnReply> m_calls;  // by cookie
};

}  // namespace tevrol
