// SPDX-License-Identifier: MIT
// What the constructor does and leaves undone.
#include "tests/support/channel-test.h"
#include "tests/support/gio-calls.h"

namespace {

using testing::Contains;
using testing::ElementsAre;
using testing::IsEmpty;
using testing::StartsWith;

constexpr const char* kConstructor = "TevrolDbusRemote";

class Construction : public ChannelTest {};

TEST_F(Construction, LogsItsStepsInOrder) {
    const TestChannel channel;
    const std::string announced = "org.ulmar.Tevrol.demo_CLIENT_SYN";
    EXPECT_THAT(
        Log(),
        ElementsAre(
            Debug(kConstructor, "Constructor\n\n"), Debug(kConstructor, "XML parsed\n\n"),
            Debug(kConstructor, "Getting connection to SYSTEM_BUS\n\n"),
            Debug(kConstructor, "Working with unique name " + OwnName() + "\n\n"),
            Debug(kConstructor,
                  "Registering Object and Interface on path "
                  "/org/ulmar/tevrol/CommunicationChannel/demo\n\n"),
            // Neither of the two names carries a suffix.
            Debug(kConstructor,
                  "Monitoring org.ulmar.Tevrol.demo name waiting for communication partner\n\n"),
            Debug(kConstructor, "Notify others using name org.ulmar.Tevrol.demo\n\n"),
            Debug("BroadcastName",
                  "BroadcastName " + announced + " Public unique name " + OwnName() + "\n\n"),
            Debug("BroadcastName", "Become primary owner for name. Releasing it.\n\n")));
}

TEST_F(Construction, SetsAllMembers) {
    const TestChannel channel;
    EXPECT_EQ(channel.m_name, "demo");
    EXPECT_EQ(channel.m_public_dbus_name, OwnName());
    EXPECT_EQ(channel.m_partner_dbus_name, "");
    EXPECT_EQ(channel.m_object_name, "/org/ulmar/tevrol/CommunicationChannel/demo");
    EXPECT_NE(channel.m_introspection_data, nullptr);
    EXPECT_EQ(channel.m_owner_id, 0U);
    EXPECT_NE(channel.m_reg_obj_id, 0U);
    EXPECT_NE(channel.m_notification_watch_syn, 0U);
    EXPECT_NE(channel.m_notification_watch_syn_ack, 0U);
    EXPECT_NE(channel.m_notification_watch_ack, 0U);
    EXPECT_EQ(channel.m_proxy_watch, 0U);
    EXPECT_EQ(channel.m_proxy, nullptr);
    EXPECT_EQ(channel.m_signal_id, 0U);
    EXPECT_EQ(channel.m_handshake, TevrolDbusRemote::CONNECTION_HANDSHAKE_SYN);
    EXPECT_EQ(channel.m_connection, connection);
    EXPECT_EQ(channel.m_timerThread, 0U);
    EXPECT_THAT(channel.m_resendHandshake, IsEmpty());
}

// Without a bus: no fixture, which would bring one.
TEST(ConstructionWithoutBus, LogsFailureAndStaysInert) {
    setenv("DBUS_SYSTEM_BUS_ADDRESS", "unix:path=/nonexistent/socket", 1);
    {
        TestChannel channel;
        EXPECT_THAT(
            Log(),
            ElementsAre(
                Debug(kConstructor, "Constructor\n\n"), Debug(kConstructor, "XML parsed\n\n"),
                Debug(kConstructor, "Getting connection to SYSTEM_BUS\n\n"),
                Error(kConstructor,
                      "Error while connecting to system bus [1] Could not connect: No such file "
                      "or directory\n\n")));
        EXPECT_FALSE(channel.IsConnectionReady());
        EXPECT_EQ(channel.m_handshake, TevrolDbusRemote::CONNECTION_NOT_STARTED);
        EXPECT_EQ(channel.m_object_name, "/org/ulmar/tevrol/CommunicationChannel/demo");
        EXPECT_EQ(channel.m_public_dbus_name, "");
        EXPECT_EQ(channel.m_connection, nullptr);
    }
    EXPECT_THAT(gio_calls::All(), ElementsAre(StartsWith("g_bus_get_sync")));
    EXPECT_THAT(TakeGlibReports(), IsEmpty());
}

TEST_F(Construction, SecondChannelOfSameNameIsNotRegistered) {
    const TestChannel first;
    ClearLog();
    gio_calls::Clear();
    const TestChannel second;
    EXPECT_EQ(second.m_reg_obj_id, 0U);
    EXPECT_THAT(Errors(), ElementsAre(Error(kConstructor,
                                            "Error while registering object [2] An object is "
                                            "already exported for the interface "
                                            "org.ulmar.tevrol.DbusCommunication at "
                                            "/org/ulmar/tevrol/CommunicationChannel/demo\n\n")));
    EXPECT_EQ(gio_calls::Of("g_dbus_connection_signal_subscribe").size(), 3U);
    EXPECT_THAT(gio_calls::All(), Contains("g_dbus_connection_call_sync RequestName "
                                           "org.ulmar.Tevrol.demo_CLIENT_SYN"));
    EXPECT_EQ(second.m_handshake, TevrolDbusRemote::CONNECTION_HANDSHAKE_SYN);
}

TEST_F(Construction, MonitoringAndNotifyLinesCarryNoSuffix) {
    const TestChannel channel("other_7");
    EXPECT_THAT(Log(), Contains(Debug(kConstructor,
                                      "Monitoring org.ulmar.Tevrol.other_7 name waiting for "
                                      "communication partner\n\n")));
    EXPECT_THAT(Log(), Contains(Debug(kConstructor,
                                      "Notify others using name org.ulmar.Tevrol.other_7\n\n")));
}

TEST_F(Construction, AnnouncesSynOnceWhateverTheOutcome) {
    const std::string request = "g_dbus_connection_call_sync RequestName";
    gio_calls::Fail(request);
    const TestChannel refused("refused");
    Settle();
    EXPECT_THAT(gio_calls::Of(request),
                ElementsAre(request + " org.ulmar.Tevrol.refused_CLIENT_SYN"));
    EXPECT_EQ(refused.m_timerThread, 0U);
    EXPECT_THAT(refused.m_resendHandshake, IsEmpty());
    EXPECT_EQ(refused.m_handshake, TevrolDbusRemote::CONNECTION_HANDSHAKE_SYN);

    gio_calls::Clear();
    const TestChannel announced("announced");
    Settle();
    EXPECT_THAT(gio_calls::Of(request),
                ElementsAre(request + " org.ulmar.Tevrol.announced_CLIENT_SYN"));
}

TEST_F(Construction, NoConnectionAndNoErrorStaysInert) {
    gio_calls::Fail("g_bus_get_sync", 1, gio_calls::Failure::WithoutError);
    TestChannel channel;
    EXPECT_EQ(channel.m_handshake, TevrolDbusRemote::CONNECTION_NOT_STARTED);
    EXPECT_FALSE(channel.IsConnectionReady());
    EXPECT_THAT(Errors(), IsEmpty());
}

}  // namespace
