// SPDX-License-Identifier: MIT
// A connection that finds out what the bus lets through, without being an end of the channel.
#pragma once

#include <gio/gio.h>

#include <memory>
#include <string>
#include <vector>

#include "devkit/thread-safety.h"
#include "programs/common/bus.h"

namespace programs {

class Probe {
public:
    // Throws Failure.
    explicit Probe(std::string channel);
    ~Probe();
    Probe(const Probe&) = delete;
    Probe& operator=(const Probe&) = delete;

    // Sends a notification that nobody takes, as its sender is not bound and its type is wrong. The
    // bus's refusal; empty when it passes it on.
    std::string NotifyRefusal(const std::string& destination);

    // Whether the bus has told that name's owner. From the construction on, until it is a monitor.
    bool HasHeard(const std::string& handshake_name);

    // From here on it sees who is refused a name, and can do nothing else. False where the bus lets
    // this user not.
    bool BecomeMonitor();
    // Whom the bus has refused a name of the channel.
    std::vector<std::string> Refused() const;

private:
    struct Inbox;

    static GDBusMessage* OnMessage(GDBusConnection* connection, GDBusMessage* message,
                                   gboolean incoming, gpointer inbox);
    void Settle();

    const std::string m_channel;
    const Connection m_connection;
    const std::shared_ptr<Inbox> m_inbox;
};

}  // namespace programs
