// SPDX-License-Identifier: MIT
// One end of a point-to-point message channel between two processes on one device, over the D-Bus
// system bus. An application constructs a Channel with a name and a role, and its partner process
// does the same with the other role. The partner may as well be any other program that speaks the
// channel's protocol.
//
// Both ends find each other whatever the order in which they start, end and start again. The bus
// may go away and come back. Where both ends are of this class, they talk over a socket of their
// own as soon as they are ready.
//
// Threads. Every operation works from any thread, handlers included. A channel has a bus connection
// and threads of its own; the application needs no loop. While a handler waits for a reply, what
// arrives is handled on that same thread, so that two ends which request of each other inside their
// handlers never wait for each other.
//
// Handlers are called in the order of what they tell, one at a time, and never while a lock is
// held. The nesting just named is the one exception. What a handler throws does not end the
// process: a request that throws is answered with Error::Failed and the text of the exception.
//
// Order. In each direction the other end sees what was sent to it in the order of sending: always a
// prefix of it, and nothing twice.
//
// Memory. Where it runs out, the operation fails with Error::Failed, or the channel gives its
// connection up and comes back; the partner counts as lost meanwhile. The process goes on.
//
// Lifetime. Payloads are not kept. Nothing of a channel outlives its destructor.
#pragma once

#include <chrono>
#include <cstddef>
#include <functional>
#include <future>
#include <memory>
#include <optional>
#include <string>
#include <system_error>
#include <type_traits>
#include <vector>

#define TEVROL_PUBLIC __attribute__((visibility("default")))

namespace tevrol {

using Bytes = std::vector<char>;

// The role of an end. A client pairs with a service of the same name.
enum class Role { Client, Service };

enum class Error {
    NotReady = 1,  // there is no partner, or the handshake with it is not complete
    TimedOut,      // no reply came in time
    PartnerLost,   // the partner was lost before its reply came
    Refused,       // the partner, or the bus, does not take it
    TooLarge,      // the payload is larger than Options::largest; nothing was sent
    BadReply,      // the reply has another type than a payload
    Failed,        // the partner's handler failed, or memory ran out; Reply::text tells which
    Full,          // the partner does not take what waits for it already (Options::queued)
    Closed,        // the channel is being destroyed
    NoBus,         // the bus cannot be reached
};

// For std::error_code; message() is one sentence for each error.
TEVROL_PUBLIC const std::error_category& ErrorCategory() noexcept;
TEVROL_PUBLIC std::error_code make_error_code(Error error) noexcept;

}  // namespace tevrol

template <>
struct std::is_error_code_enum<tevrol::Error> : std::true_type {};

namespace tevrol {

// The outcome of a request. An empty payload without an error is a success.
struct Reply {
    std::error_code error;
    Bytes payload;
    std::string text;  // what the partner or the bus said of the error, if anything

    explicit operator bool() const {
        return !error;
    }
};

// The answer to one request, given later, once, from any thread. A copy answers the same request.
// When the last copy goes without an answer, the requester gets Error::Failed. It may outlive the
// channel, and then does nothing.
class TEVROL_PUBLIC Answer {
public:
    // What the channel hands the answer to; applications have no use for it.
    class Call;
    explicit Answer(std::shared_ptr<Call> call);

    // Sends the reply. A second answer does nothing.
    void operator()(const Bytes& reply) const;
    // Answers with Error::Failed and this text.
    void Fail(const std::string& text) const;

private:
    std::shared_ptr<Call> m_call;
};

// What the application does with what arrives. All are optional.
struct Handlers {
    // Answers a request. Without this and request_later, requests are refused.
    std::function<Bytes(const Bytes& request)> request;
    // Answers a request later. Has precedence over `request`.
    std::function<void(const Bytes& request, Answer answer)> request_later;
    std::function<void(const Bytes& notification)> notification;
    // The partner with this unique bus name is ready: it can be sent to.
    std::function<void(const std::string& partner)> ready;
    // It is lost.
    std::function<void(const std::string& partner)> lost;
};

struct Options {
    // The bus's address, as in DBUS_SYSTEM_BUS_ADDRESS. Empty: the system bus.
    std::string address;
    // Whether to talk over a socket of one's own where the partner can, too.
    bool direct = true;
    // How long a request waits for its reply where the call says nothing else.
    std::chrono::milliseconds timeout{25000};
    // The largest payload, in bytes, that is sent. The default is what a system bus carries whose
    // limits nobody has changed: 32 MiB with the message's header. At most 64 MiB, the limit of
    // D-Bus for an array.
    std::size_t largest = (std::size_t{32} << 20) - 4096;
    // How much may wait for the partner to take it, in bytes. Past that, Notify and RequestLater
    // fail with Error::Full, and Request waits.
    std::size_t queued = std::size_t{64} << 20;
    // Hands work to the application's own loop: called from any thread, not under a lock, with a
    // function that the loop calls once, soon. All handlers are then called by that loop. Empty: a
    // thread of the channel calls them.
    std::function<void(std::function<void()>)> run;
};

// A process as the bus knows it.
struct Credentials {
    long pid = 0;
    long uid = 0;
};

class Engine;

class TEVROL_PUBLIC Channel {
public:
    // Opens one end of the channel `name`: letters, digits and underscores, not beginning with a
    // digit, at most 200 characters. Never waits: connecting and finding the partner go on in the
    // background, and without a bus for as long as there is none. Handlers may be called, and may
    // use this object, before the constructor has returned.
    //
    // Throws std::invalid_argument where the name cannot be used or `options.largest` is too
    // large, std::system_error where the process has no descriptor or thread left, and
    // std::bad_alloc.
    Channel(std::string name, Role role, Handlers handlers = {}, Options options = {});

    // Closes the end, at any moment, from any thread but one that is in a handler of this channel.
    // Waits for a handler that is running, never for the partner. Threads that wait in an operation
    // return with Error::Closed. Requests whose outcome goes to a function get Error::Closed here,
    // on this thread. Afterwards no handler is called any more.
    ~Channel();

    Channel(const Channel&) = delete;
    Channel& operator=(const Channel&) = delete;

    // Sends a request and waits for the reply, at most Options::timeout or `timeout`.
    Reply Request(const Bytes& payload);
    Reply Request(const Bytes& payload, std::chrono::milliseconds timeout);

    // Sends a request without waiting. The future is always fulfilled, at the latest when the
    // timeout is over. It may be dropped.
    std::future<Reply> RequestLater(Bytes payload);
    // The same with a function for the outcome, called once like a handler.
    void RequestLater(Bytes payload, std::function<void(Reply)> done);

    // Sends a notification. Without an error it will reach the partner unless that is lost first.
    std::error_code Notify(const Bytes& payload);

    // Waits until the bus, or over a direct link the partner, has all that was sent, so that a
    // process may end behind a notification; false when `timeout` is over first. Not for handlers
    // called by Options::run.
    bool Flush(std::chrono::milliseconds timeout) const;

    // Whether a partner is ready now.
    bool IsReady() const;
    // Waits until one is; false when `timeout` is over first. Not for handlers called by
    // Options::run.
    bool WaitReady(std::chrono::milliseconds timeout) const;
    // Its unique bus name; empty when there is none.
    std::string Partner() const;
    // Its process; nothing when there is none or the bus does not tell.
    std::optional<Credentials> PartnerCredentials() const;
    // Whether both ends talk over a socket of their own now, in both directions.
    bool IsDirect() const;

private:
    std::shared_ptr<Engine> m_engine;  // set by the constructor
};

}  // namespace tevrol
