// SPDX-License-Identifier: MIT
// A client end by hand: each step of the protocol alone, wrong steps included, which the library
// never takes.
#pragma once

#include <gio/gio.h>

#include <chrono>
#include <map>
#include <memory>
#include <optional>
#include <set>
#include <string>
#include <vector>

#include "devkit/payload.h"
#include "devkit/thread-safety.h"
#include "programs/common/bus.h"
#include "programs/common/names.h"

namespace programs {

// What an end answers to a request of another type than "ay".
constexpr const char* kInvalidArguments = "org.freedesktop.DBus.Error.InvalidArgs";

// The answer to a call.
struct Answer {
    Variant value;           // null when it failed
    std::string error_name;  // of the D-Bus error, where it was one
    std::string error;
};

// The floating body "(ay)" of a message.
GVariant* PayloadBody(const tevrol::Bytes& payload);

class RawEnd {
public:
    // Makes a connection of its own. Throws Failure.
    explicit RawEnd(std::string channel);
    ~RawEnd();
    RawEnd(const RawEnd&) = delete;
    RawEnd& operator=(const RawEnd&) = delete;

    std::string UniqueName() const;
    // Leaves the bus without a word, like a process that ends.
    void Leave();

    // Throws Failure when the bus is gone or does not answer.
    Answer CallDriver(const char* method, GVariant* parameters);
    // Requests the name of that stage, without queueing. Returns the bus's code, 0 on failure.
    guint32 Acquire(const char* stage, const char* role = kClient);
    void Release(const char* stage, const char* role = kClient);
    // Acquires and releases its own name. False when it could not be acquired.
    bool Announce(const char* stage);
    // Who waits for that name in the bus's queue.
    std::vector<std::string> Queue(const char* stage, const char* role);

    Answer Call(const std::string& destination, const char* method, GVariant* body,
                std::chrono::milliseconds limit);
    // The XML that `destination` tells of the channel's object.
    Answer Introspect(const std::string& destination, std::chrono::milliseconds limit);
    void Notify(const std::string& destination, GVariant* body);

    // What the service end has announced so far.
    struct Heard {
        std::string stage;
        std::string announcer;
        std::chrono::microseconds held{0};  // from the acquisition to the release
    };
    std::vector<Heard> All() const;
    // Who owns the service end's name of `stage` and has not released it. Empty when nobody does.
    std::string Holder(const std::string& stage) const;
    // What `process` announces from here on is not heard.
    void Ignore(const std::string& process);
    // Runs the loop until the service end announces `stage`, and returns the announcer. The first
    // `since` announcements do not count.
    std::optional<std::string> Await(const char* stage, std::size_t since,
                                     std::chrono::milliseconds limit);
    bool IsOnTheBus(const std::string& process);
    // Runs the loop until `process` has left the bus.
    bool AwaitLoss(const std::string& process, std::chrono::milliseconds limit);
    // Returns when all that the bus has sent so far is handled.
    void Settle();

    // A message of the channel's interface that has come.
    struct Received {
        bool is_request = false;
        std::string sender;
        std::string path;
        std::string member;
        std::string type;
    };
    // From here on it answers requests, with an echo, and keeps what it has received.
    void TakeMessages();
    // The same for notifications that are sent to everybody.
    void WatchBroadcasts();
    std::vector<Received> AllReceived() const;

private:
    // What has come, filled by GDBus's thread, which may outlive the end.
    struct Inbox {
        std::string channel;
        tevrol::Mutex mutex;
        bool takes_messages TEVROL_GUARDED_BY(mutex) = false;
        std::vector<Heard> heard TEVROL_GUARDED_BY(mutex);
        std::set<std::string> left TEVROL_GUARDED_BY(mutex);
        std::set<std::string> ignored TEVROL_GUARDED_BY(mutex);
        struct Owner {
            std::string process;
            gint64 since = 0;
        };
        std::map<std::string, Owner> owners TEVROL_GUARDED_BY(mutex);  // by stage
        std::vector<Received> received TEVROL_GUARDED_BY(mutex);

        void TakeOwnerChange(GDBusMessage* signal);
        // Whether it was a message that this end takes.
        bool TakeMessage(GDBusConnection* connection, GDBusMessage* message);
    };

    static GDBusMessage* OnMessage(GDBusConnection* connection, GDBusMessage* message,
                                   gboolean incoming, gpointer inbox);
    void AddMatch(const std::string& rule);

    const std::string m_channel;
    const std::shared_ptr<Inbox> m_inbox;
    const Connection m_connection;
    bool m_joined = true;
};

}  // namespace programs
