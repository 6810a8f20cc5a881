// SPDX-License-Identifier: MIT
// The fixture of all tests that need a bus: a private one, a channel that records what its handlers
// are told, and a partner that records what it sees.
//
// Each test runs in a process of its own, because GIO's system bus connection is one per process.
// After a channel is destroyed the main context must not be iterated again, as in any application:
// declare the channel before the partner, and let both end with the test.
#pragma once

#include <gio/gio.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <atomic>
#include <functional>
#include <future>
#include <memory>
#include <mutex>
#include <string>
#include <utility>
#include <vector>

#include "devkit/loop.h"
#include "devkit/partner.h"
#include "devkit/payload.h"
#include "devkit/private-bus.h"
#include "ipc/tevrol-dbus-remote.h"
#include "tests/support/log.h"

using tevrol::AllByteValues;
using tevrol::Bytes;
using tevrol::HandshakeStage;
using tevrol::IterateUntil;
using tevrol::PartnerFaults;
using tevrol::PartnerReply;
using tevrol::ToBytes;

using Connection = std::unique_ptr<GDBusConnection, tevrol::GObjectUnref>;

// A further connection, which the bus takes for another process; null when no bus listens there.
Connection OpenConnection(const std::string& address);
// One that has been closed, and knows it.
Connection ClosedConnection(const std::string& address);

// Calls a method of the bus driver and waits as long as it takes. The reply is the caller's; null
// on failure.
GVariant* CallDriver(GDBusConnection* connection, const char* method, GVariant* parameters);

// A partner that keeps its events as the lines they print as ("ready :1.0", "announced SYN").
class TestPartner : public tevrol::Partner {
public:
    explicit TestPartner(const std::string& channel = "demo",
                         std::function<Bytes(const Bytes&)> answer = {});

    std::vector<std::string> Events() const;
    // What requests and notifications have brought, whole and in order.
    std::vector<Bytes> Requests() const {
        return Payloads(tevrol::PartnerEvent::Kind::Request);
    }
    std::vector<Bytes> Notifications() const {
        return Payloads(tevrol::PartnerEvent::Kind::Notification);
    }
    // Called on the partner's thread for each event that happens once this is set, after the event
    // was recorded.
    void OnEvent(std::function<void(const tevrol::PartnerEvent&)> then);
    // How often the event has happened so far.
    int Count(const std::string& event) const;
    bool Saw(const std::string& event) const {
        return Count(event) > 0;
    }

private:
    struct Recorded {
        mutable std::mutex mutex;
        std::vector<tevrol::PartnerEvent> events;
        std::function<void(const tevrol::PartnerEvent&)> then;
    };
    TestPartner(const std::string& channel, std::function<Bytes(const Bytes&)> answer,
                const std::shared_ptr<Recorded>& recorded);
    std::vector<Bytes> Payloads(tevrol::PartnerEvent::Kind kind) const;

    std::shared_ptr<Recorded> m_recorded;
};

// A channel whose handlers record. What is recorded may be read from any thread.
class TestChannel : public TevrolDbusRemote {
public:
    explicit TestChannel(const std::string& name = "demo") : TevrolDbusRemote(name) {}

    std::vector<char> HandleMessage(std::vector<char>& data) override;
    void HandleNotification(std::vector<char>& data) override;
    void HandleConnectionReady(bool state, const std::string& partner) override;

    std::vector<Bytes> Requests() const {
        return Copy(m_requests);
    }
    std::vector<Bytes> Notifications() const {
        return Copy(m_notifications);
    }
    // Each call of HandleConnectionReady: its arguments, in order.
    using Readiness = std::vector<std::pair<bool, std::string>>;
    Readiness ReadyCalls() const {
        return Copy(m_ready_calls);
    }

    // What HandleMessage answers; the request itself where empty.
    std::function<Bytes(const Bytes&)> answer;
    // Called from HandleConnectionReady once its arguments are recorded; set before it can run.
    std::function<void(bool, const std::string&)> on_ready;

private:
    template <typename Value>
    Value Copy(const Value& value) const {
        const std::lock_guard<std::mutex> lock(m_recorded_mutex);
        return value;
    }

    mutable std::mutex m_recorded_mutex;  // guards the three below
    std::vector<Bytes> m_requests;
    std::vector<Bytes> m_notifications;
    Readiness m_ready_calls;
};

// Standard output of this process, kept from construction on.
class CapturedOutput {
public:
    CapturedOutput();
    ~CapturedOutput();
    CapturedOutput(const CapturedOutput&) = delete;
    CapturedOutput& operator=(const CapturedOutput&) = delete;

    std::string Text() const;

private:
    int m_saved;
    int m_file;
};

// Counts the messages of one sender that reach this process, whoever in it takes them or nobody.
class Arrivals {
public:
    Arrivals(GDBusConnection* connection, std::string sender);
    ~Arrivals();
    Arrivals(const Arrivals&) = delete;
    Arrivals& operator=(const Arrivals&) = delete;

    int Count() const {
        return m_count;
    }

private:
    static GDBusMessage* OnMessage(GDBusConnection* connection, GDBusMessage* message,
                                   gboolean incoming, gpointer data);

    GDBusConnection* m_connection;
    const std::string m_sender;
    std::atomic<int> m_count{0};
    const guint m_filter;
};

class ChannelTest : public testing::Test {
protected:
    static GDBusConnection* ConnectToSystemBus();

    // The bus is up with `bus_limits` and `policy` (see PrivateBus), this process is on it by
    // `connect`, and its end does not end the test process.
    explicit ChannelTest(const std::string& bus_limits = "",
                         const std::string& policy = tevrol::PrivateBus::kOpenPolicy,
                         GDBusConnection* (*connect)() = ConnectToSystemBus);
    ~ChannelTest() override;

    // Before a death test, whose process starts the whole program once more: what it leaves behind
    // goes to the folder of the bus.
    void PrepareDeath() const;

    // Returns when everything that `partner` has sent so far has been dispatched here: it has
    // passed the bus, arrived at this process, and the main context is idle.
    static void Settle(TestPartner& partner);
    // The same for what this process itself has sent to the bus and back.
    static void Settle();

    // Returns when all that the bus has passed on to this process so far has arrived, without
    // dispatching any of it.
    static void Receive();

    // Joins the bus, opens the handshake and waits until both ends are ready.
    static void Connect(TestPartner& partner, TevrolDbusRemote& channel);

    // Waits for the outcome of a request that a partner made, while the loop runs.
    static PartnerReply Await(std::future<PartnerReply> future);

    // Whether the bus knows an owner of `name`.
    static bool NameHasOwner(const std::string& name);

    static std::string OwnName();  // this process's unique name

    tevrol::PrivateBus bus;
    static GDBusConnection* connection;  // the process's, also the channel's
};
