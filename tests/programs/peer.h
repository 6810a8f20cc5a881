// SPDX-License-Identifier: MIT
// A connection of its own to the bus that the environment names, which the bus takes for another
// process, without any manners.
#pragma once

#include <gio/gio.h>

#include <memory>
#include <string>

#include "devkit/payload.h"
#include "devkit/subprocess.h"

// The floating body "(ay)" of a message.
GVariant* BodyOf(const tevrol::Bytes& payload);

class Peer {
public:
    Peer();
    // Leaves the bus.
    ~Peer();
    Peer(const Peer&) = delete;
    Peer& operator=(const Peer&) = delete;

    GDBusConnection* Get() const {
        return m_connection.get();
    }
    std::string UniqueName() const;

    // Calls a method of the bus driver. The code that it answers, where it does.
    guint32 CallDriver(const char* method, GVariant* parameters);
    guint32 Acquire(const std::string& name, guint32 flags = 4);
    void Release(const std::string& name);
    // Both: an announcement.
    void Pulse(const std::string& name);

    // Sends a signal, to everybody where `destination` is empty, or a call that nobody waits for.
    void Emit(const std::string& destination, GVariant* body,
              const std::string& path = "/org/ulmar/tevrol/CommunicationChannel/demo",
              const char* interface_name = "org.ulmar.tevrol.DbusCommunication",
              const char* member = "SendSignal");
    void Call(const std::string& destination, GVariant* body,
              const std::string& path = "/org/ulmar/tevrol/CommunicationChannel/demo",
              const char* interface_name = "org.ulmar.tevrol.DbusCommunication",
              const char* member = "Send");

private:
    void Send(GDBusMessage* message, GVariant* body);

    std::unique_ptr<GDBusConnection, tevrol::GObjectUnref> m_connection;
};
