// SPDX-License-Identifier: MIT
#include "tests/support/channel-test.h"

#include <fcntl.h>
#include <sys/mman.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>

GDBusConnection* ChannelTest::connection = nullptr;

Connection OpenConnection(const std::string& address) {
    return Connection(g_dbus_connection_new_for_address_sync(
        address.c_str(),
        static_cast<GDBusConnectionFlags>(G_DBUS_CONNECTION_FLAGS_AUTHENTICATION_CLIENT |
                                          G_DBUS_CONNECTION_FLAGS_MESSAGE_BUS_CONNECTION),
        nullptr, nullptr, nullptr));
}

Connection ClosedConnection(const std::string& address) {
    Connection connection = OpenConnection(address);
    g_dbus_connection_close_sync(connection.get(), nullptr, nullptr);
    // Closing returns before GIO's worker thread has marked it so.
    EXPECT_TRUE(
        IterateUntil([&] { return g_dbus_connection_is_closed(connection.get()) != FALSE; }));
    return connection;
}

GVariant* CallDriver(GDBusConnection* connection, const char* method, GVariant* parameters) {
    return g_dbus_connection_call_sync(connection, "org.freedesktop.DBus", "/org/freedesktop/DBus",
                                       "org.freedesktop.DBus", method, parameters, nullptr,
                                       G_DBUS_CALL_FLAGS_NONE, G_MAXINT, nullptr, nullptr);
}

// ---- TestPartner ----

TestPartner::TestPartner(const std::string& channel, std::function<Bytes(const Bytes&)> answer)
    : TestPartner(channel, std::move(answer), std::make_shared<Recorded>()) {}

TestPartner::TestPartner(const std::string& channel, std::function<Bytes(const Bytes&)> answer,
                         const std::shared_ptr<Recorded>& recorded)
    : Partner(channel, {std::move(answer),
                        [recorded](const tevrol::PartnerEvent& event) {
                            std::unique_lock<std::mutex> lock(recorded->mutex);
                            recorded->events.push_back(event);
                            const auto then = recorded->then;
                            lock.unlock();
                            if (then) {
                                then(event);
                            }
                        }}),
      m_recorded(recorded) {}

std::vector<std::string> TestPartner::Events() const {
    const std::lock_guard<std::mutex> lock(m_recorded->mutex);
    std::vector<std::string> lines;
    for (const tevrol::PartnerEvent& event : m_recorded->events) {
        lines.push_back(ToString(event));
    }
    return lines;
}

std::vector<Bytes> TestPartner::Payloads(tevrol::PartnerEvent::Kind kind) const {
    const std::lock_guard<std::mutex> lock(m_recorded->mutex);
    std::vector<Bytes> payloads;
    for (const tevrol::PartnerEvent& event : m_recorded->events) {
        if (event.kind == kind) {
            payloads.push_back(event.payload);
        }
    }
    return payloads;
}

void TestPartner::OnEvent(std::function<void(const tevrol::PartnerEvent&)> then) {
    const std::lock_guard<std::mutex> lock(m_recorded->mutex);
    m_recorded->then = std::move(then);
}

int TestPartner::Count(const std::string& event) const {
    const auto events = Events();
    return static_cast<int>(std::count(events.begin(), events.end(), event));
}

// ---- TestChannel ----

std::vector<char> TestChannel::HandleMessage(std::vector<char>& data) {
    const std::lock_guard<std::mutex> lock(m_recorded_mutex);
    m_requests.push_back(data);
    return answer ? answer(data) : data;
}

void TestChannel::HandleNotification(std::vector<char>& data) {
    const std::lock_guard<std::mutex> lock(m_recorded_mutex);
    m_notifications.push_back(data);
}

void TestChannel::HandleConnectionReady(bool state, const std::string& partner) {
    {
        const std::lock_guard<std::mutex> lock(m_recorded_mutex);
        m_ready_calls.emplace_back(state, partner);
    }
    if (on_ready) {
        on_ready(state, partner);
    }
}

// ---- CapturedOutput ----

CapturedOutput::CapturedOutput()
    : m_saved((fflush(stdout), dup(STDOUT_FILENO))), m_file(memfd_create("stdout", MFD_CLOEXEC)) {
    dup2(m_file, STDOUT_FILENO);
}

CapturedOutput::~CapturedOutput() {
    fflush(stdout);
    dup2(m_saved, STDOUT_FILENO);
    close(m_saved);
    close(m_file);
}

std::string CapturedOutput::Text() const {
    fflush(stdout);
    std::string text(static_cast<std::size_t>(lseek(m_file, 0, SEEK_END)), '\0');
    text.resize(static_cast<std::size_t>(pread(m_file, text.data(), text.size(), 0)));
    return text;
}

// ---- Arrivals ----

Arrivals::Arrivals(GDBusConnection* connection, std::string sender)
    : m_connection(connection),
      m_sender(std::move(sender)),
      m_filter(g_dbus_connection_add_filter(connection, OnMessage, this, nullptr)) {}

Arrivals::~Arrivals() {
    g_dbus_connection_remove_filter(m_connection, m_filter);
}

GDBusMessage* Arrivals::OnMessage(GDBusConnection* /*connection*/, GDBusMessage* message,
                                  gboolean incoming, gpointer data) {
    auto* self = static_cast<Arrivals*>(data);
    if (incoming != FALSE && g_dbus_message_get_sender(message) == self->m_sender) {
        ++self->m_count;
    }
    return message;
}

// ---- ChannelTest ----

GDBusConnection* ChannelTest::ConnectToSystemBus() {
    return g_bus_get_sync(G_BUS_TYPE_SYSTEM, nullptr, nullptr);
}

ChannelTest::ChannelTest(const std::string& bus_limits, const std::string& policy,
                         GDBusConnection* (*connect)())
    : bus(bus_limits, policy) {
    connection = connect();
    g_dbus_connection_set_exit_on_close(connection, FALSE);
}

ChannelTest::~ChannelTest() {
    g_object_unref(connection);
}

void ChannelTest::PrepareDeath() const {
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    setenv("TMPDIR", bus.Folder().c_str(), 1);
}

void ChannelTest::Settle(TestPartner& partner) {
    partner.Settle();
    Settle();
}

void ChannelTest::Settle() {
    Receive();
    while (g_main_context_iteration(nullptr, FALSE) != FALSE) {
    }
}

void ChannelTest::Receive() {
    // The answer arrives behind all that the bus has routed to this process before; GIO queues each
    // delivery in the main context before it hands out the answer.
    GVariant* reply = CallDriver(connection, "GetId", nullptr);
    if (reply != nullptr) {
        g_variant_unref(reply);
    }
}

void ChannelTest::Connect(TestPartner& partner, TevrolDbusRemote& channel) {
    partner.Join();
    partner.Open();
    ASSERT_TRUE(IterateUntil([&] { return channel.IsConnectionReady() && partner.IsReady(); }));
}

PartnerReply ChannelTest::Await(std::future<PartnerReply> future) {
    const auto done = [&] {
        return future.wait_for(std::chrono::seconds(0)) == std::future_status::ready;
    };
    return IterateUntil(done) ? future.get() : PartnerReply{false, {}, "the test gave up"};
}

bool ChannelTest::NameHasOwner(const std::string& name) {
    GVariant* reply = CallDriver(connection, "NameHasOwner", g_variant_new("(s)", name.c_str()));
    gboolean owned = FALSE;
    g_variant_get(reply, "(b)", &owned);
    g_variant_unref(reply);
    return owned != FALSE;
}

std::string ChannelTest::OwnName() {
    return g_dbus_connection_get_unique_name(connection);
}
