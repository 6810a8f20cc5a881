// SPDX-License-Identifier: MIT
#include "tests/support/handshake.h"

#include "tests/support/gio-calls.h"

namespace {

using C = TevrolDbusRemote;

constexpr const char* kBase = "org.ulmar.Tevrol.demo";
constexpr const char* kPath = "/org/ulmar/tevrol/CommunicationChannel/demo";

LogLine Attempt(const std::string& name) {
    return Debug("BroadcastName", "BroadcastName " + name + " Public unique name " +
                                      ChannelTest::OwnName() + "\n\n");
}

}  // namespace

Lines operator+(Lines first, const Lines& second) {
    first.insert(first.end(), second.begin(), second.end());
    return first;
}

// ---- TestedStage ----

void PrintTo(const TestedStage& stage, std::ostream* out) {
    *out << stage.function;
}

const TestedStage kSynStage = {HandshakeStage::Syn, C::cb_SynNameOwnerChanged,
                               "cb_SynNameOwnerChanged", HandshakeStage::SynAck,
                               C::CONNECTION_HANDSHAKE_SYN_ACK};
const TestedStage kSynAckStage = {HandshakeStage::SynAck, C::cb_SynAckNameOwnerChanged,
                                  "cb_SynAckNameOwnerChanged", HandshakeStage::Ack,
                                  C::CONNECTION_HANDSHAKE_ACK};
const TestedStage kAckStage = {HandshakeStage::Ack, C::cb_AckNameOwnerChanged,
                               "cb_AckNameOwnerChanged", HandshakeStage::Ack,
                               C::CONNECTION_HANDSHAKE_ACK};

std::string TestedStage::Listened() const {
    return std::string(kBase) + "_SERVICE_" + ToString(heard);
}

std::string TestedStage::Suffix() const {
    return std::string("_") + ToString(answered);
}

std::string TestedStage::Answer() const {
    return std::string(kBase) + "_CLIENT" + Suffix();
}

void TestedStage::Call(GDBusConnection* connection, GVariant* parameters,
                       TestChannel* channel) const {
    g_variant_ref_sink(parameters);
    callback(connection, nullptr, nullptr, nullptr, nullptr, parameters,
             static_cast<TevrolDbusRemote*>(channel));
    g_variant_unref(parameters);
}

Lines TestedStage::Acquired(const std::string& by) const {
    return {Debug(function, function + " called\n"),
            Debug(function, function + " " + Listened() + " " + ChannelTest::OwnName() +
                                " from '' => '" + by + "' \n\n")};
}

Lines TestedStage::Released(const std::string& by) const {
    return {Debug(function, function + " called\n"),
            Debug(function, function + " " + Listened() + " " + ChannelTest::OwnName() + " from '" +
                                by + "' => '' \n\n")};
}

Lines TestedStage::Bound(const std::string& partner, const std::string& proxy_error) const {
    Lines lines = {Debug(function, "Monitor unique name " + partner + "\n\n"),
                   Debug(function, "Partner is available and has unique name " + partner + "\n\n"),
                   Debug(function, "Create proxy for " + partner + " on obj " + kPath + "\n\n")};
    if (!proxy_error.empty()) {
        lines.push_back(Error(function, "Error while registering proxy  " + proxy_error + "\n\n"));
    }
    lines.push_back(
        Debug(function, "Subscribe for signals from " + partner + " on object " + kPath + ".\n\n"));
    return lines;
}

Lines TestedStage::Answered() const {
    return BroadcastLines(Answer()) +
           Lines{Debug(function, "Successfully broadcasted: " + Answer() + "\n")};
}

Lines TestedStage::Refused() const {
    return {Attempt(Answer()), Error("BroadcastName", "Cannot own name due to return code = 3\n\n"),
            Debug(function, "Failed to broadcast: " + Answer() + ". Requested resend\n")};
}

Lines TestedStage::ThreadStarted(int status) const {
    return {Debug(function, "Creating timer that will execute OnResendHandshake()\n"),
            Debug(function, "Timer thread create status: " + std::to_string(status) + "\n")};
}

Lines BroadcastLines(const std::string& name) {
    return {Attempt(name),
            Debug("BroadcastName", "Become primary owner for name. Releasing it.\n\n")};
}

// ---- Expectations ----

void ExpectNullIsRefused(const TestedStage& stage, GDBusConnection* connection,
                         TestChannel& channel) {
    const Lines refused = {Debug(stage.function, stage.function + " called\n"),
                           Error(stage.function, "Empty user_data or connection not valid.\n\n")};
    const auto release = [] { return g_variant_new("(sss)", "name", ":1.99", ""); };
    const PTAutoLock held_here(channel.m_mutex);
    ClearLog();
    stage.Call(nullptr, release(), &channel);
    EXPECT_EQ(Log(), refused);
    ClearLog();
    stage.Call(connection, release(), nullptr);
    EXPECT_EQ(Log(), refused);
}

void ExpectOtherTypesAreRefused(const TestedStage& stage, GDBusConnection* connection,
                                TestChannel& channel) {
    for (const char* body : {"()", "('name', ':1.99')", "('name', ':1.99', '', 'more')",
                             "('name', ':1.99', uint32 0)", "'text'", "[byte 1, 2]"}) {
        ClearLog();
        GVariant* parameters = g_variant_new_parsed(body);
        const std::string type = g_variant_get_type_string(parameters);
        stage.Call(connection, parameters, &channel);
        EXPECT_EQ(
            Log(),
            (Lines{Debug(stage.function, stage.function + " called\n"),
                   Error(stage.function, "Unexpected type " + type + " instead of (sss)\n\n")}));
    }
    EXPECT_THAT(TakeGlibReports(), testing::IsEmpty());
}

void ExpectBound(const TestChannel& channel, const std::string& partner) {
    EXPECT_EQ(channel.m_partner_dbus_name, partner);
    EXPECT_NE(channel.m_proxy_watch, 0U);
    EXPECT_NE(channel.m_signal_id, 0U);
    ASSERT_NE(channel.m_proxy, nullptr);
    EXPECT_EQ(g_dbus_proxy_get_name(channel.m_proxy), partner);
    EXPECT_STREQ(g_dbus_proxy_get_object_path(channel.m_proxy), kPath);
    EXPECT_STREQ(g_dbus_proxy_get_interface_name(channel.m_proxy), C::TEVROL_DBUS_OBJ_IFACE);
    EXPECT_EQ(g_dbus_proxy_get_flags(channel.m_proxy), G_DBUS_PROXY_FLAGS_DO_NOT_LOAD_PROPERTIES);
}

void ExpectUnbound(const TestChannel& channel) {
    EXPECT_EQ(channel.m_partner_dbus_name, "");
    EXPECT_EQ(channel.m_proxy_watch, 0U);
    EXPECT_EQ(channel.m_proxy, nullptr);
    EXPECT_EQ(channel.m_signal_id, 0U);
}

// ---- State ----

int HandshakeState(TestChannel& channel) {
    const PTAutoLock lock(channel.m_mutex);
    return channel.m_handshake;
}

std::map<std::string, std::string> Owed(TestChannel& channel) {
    const PTAutoLock lock(channel.m_mutex);
    return channel.m_resendHandshake;
}

pthread_t ResendThread(TestChannel& channel) {
    const PTAutoLock lock(channel.m_mutex);
    return channel.m_timerThread;
}

void EndResends(TestChannel& channel) {
    {
        const PTAutoLock between_passes(channel.m_mutex);
        channel.m_resendHandshake.clear();
    }
    EXPECT_TRUE(IterateUntil([&] {
        const pthread_t thread = ResendThread(channel);
        return thread == 0 || thread == gio_calls::kHandleOfNoThread;
    }));
}

std::vector<std::string> AnnouncedNames() {
    const std::string request = "g_dbus_connection_call_sync RequestName ";
    std::vector<std::string> names;
    for (const std::string& call : gio_calls::Of(request)) {
        names.push_back(call.substr(request.size()));
    }
    return names;
}

bool IsHeld(const PTMutex& mutex) {
    const bool taken = mutex.TryLock();
    if (taken) {
        mutex.Unlock();
    }
    return !taken;
}
