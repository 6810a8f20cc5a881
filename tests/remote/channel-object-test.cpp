// SPDX-License-Identifier: MIT
// The channel's names, its exported object and what it looks like from outside.
#include <algorithm>
#include <optional>

#include "tests/support/channel-test.h"
#include "tests/support/gio-calls.h"

namespace {

using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::Not;

class ChannelObject : public ChannelTest {
protected:
    static std::string Introspect(const std::string& path) {
        GVariant* reply = g_dbus_connection_call_sync(connection, OwnName().c_str(), path.c_str(),
                                                      "org.freedesktop.DBus.Introspectable",
                                                      "Introspect", g_variant_new("()"), nullptr,
                                                      G_DBUS_CALL_FLAGS_NONE, -1, nullptr, nullptr);
        const gchar* text = "";
        g_variant_get(reply, "(&s)", &text);
        std::string copy = text;
        g_variant_unref(reply);
        return copy;
    }
};

TEST(ChannelConstants, MatchProtocol) {
    using C = TevrolDbusRemote;
    EXPECT_STREQ(C::INTERFACE_XML,
                 "<node>  <interface name='org.ulmar.tevrol.DbusCommunication'>    <method "
                 "name='Send'>      <arg type='ay' name='data' direction='in'/>      <arg "
                 "type='ay' name='response' direction='out'/>    </method>  </interface></node>");
    EXPECT_STREQ(C::TEVROL_DBUS_PREFIX, "org.ulmar.Tevrol");
    EXPECT_STREQ(C::TEVROL_DBUS_OBJ_NAME, "/org/ulmar/tevrol/CommunicationChannel");
    EXPECT_STREQ(C::TEVROL_DBUS_OBJ_IFACE, "org.ulmar.tevrol.DbusCommunication");
    EXPECT_STREQ(C::TEVROL_DBUS_OBJ_METHOD, "Send");
    EXPECT_STREQ(C::TEVROL_DBUS_SIG_NAME, "SendSignal");
    EXPECT_STREQ(C::TEVROL_DBUS_SYN_SUFFIX, "_SYN");
    EXPECT_STREQ(C::TEVROL_DBUS_SYNACK_SUFFIX, "_SYN_ACK");
    EXPECT_STREQ(C::TEVROL_DBUS_ACK_SUFFIX, "_ACK");
    EXPECT_STREQ(C::BROADCAST_PREFIX, "_CLIENT");
    EXPECT_STREQ(C::LISTEN_PREFIX, "_SERVICE");
    EXPECT_EQ(C::m_vtable.method_call, C::cb_MethodCall);
    EXPECT_EQ(C::m_vtable.get_property, nullptr);
    EXPECT_EQ(C::m_vtable.set_property, nullptr);
    EXPECT_EQ(static_cast<int>(C::CONNECTION_NOT_STARTED), 0);
    EXPECT_EQ(static_cast<int>(C::CONNECTION_HANDSHAKE_SYN), 1);
    EXPECT_EQ(static_cast<int>(C::CONNECTION_HANDSHAKE_SYN_ACK), 2);
    EXPECT_EQ(static_cast<int>(C::CONNECTION_HANDSHAKE_ACK), 3);
}

TEST_F(ChannelObject, UsesNamesAndPathOfItsChannel) {
    TestChannel channel;
    EXPECT_THAT(gio_calls::Of("g_dbus_connection_register_object"),
                ElementsAre("g_dbus_connection_register_object "
                            "/org/ulmar/tevrol/CommunicationChannel/demo"));
    const std::string watch =
        "g_dbus_connection_signal_subscribe org.freedesktop.DBus NameOwnerChanged ";
    EXPECT_THAT(gio_calls::Of("g_dbus_connection_signal_subscribe"),
                ElementsAre(watch + "org.ulmar.Tevrol.demo_SERVICE_SYN",
                            watch + "org.ulmar.Tevrol.demo_SERVICE_SYN_ACK",
                            watch + "org.ulmar.Tevrol.demo_SERVICE_ACK"));
    // The three names as a mirror hears them.
    TestPartner partner;
    Connect(partner, channel);  // the partner opens and is answered by SYN_ACK
    EXPECT_TRUE(partner.Saw("heard SYN_ACK from " + OwnName()));
    partner.Leave();
    ASSERT_TRUE(IterateUntil([&] { return !channel.IsConnectionReady(); }));
    partner.Join();
    gio_calls::Clear();
    partner.Announce(HandshakeStage::SynAck);  // answered by ACK
    ASSERT_TRUE(IterateUntil([&] { return channel.IsConnectionReady(); }));
    EXPECT_THAT(
        gio_calls::Of("g_dbus_connection_call_sync R"),
        ElementsAre("g_dbus_connection_call_sync RequestName org.ulmar.Tevrol.demo_CLIENT_ACK",
                    "g_dbus_connection_call_sync ReleaseName org.ulmar.Tevrol.demo_CLIENT_ACK"));
}

TEST_F(ChannelObject, SameNameInTwoProcessesNeverPairs) {
    TestChannel channel;
    // The other process: the same class behind a connection of its own cannot be had in one
    // process, so its whole repertoire, the client pulses, is played from another connection.
    GDBusConnection* other = g_dbus_connection_new_for_address_sync(
        bus.Address().c_str(),
        static_cast<GDBusConnectionFlags>(G_DBUS_CONNECTION_FLAGS_AUTHENTICATION_CLIENT |
                                          G_DBUS_CONNECTION_FLAGS_MESSAGE_BUS_CONNECTION),
        nullptr, nullptr, nullptr);
    ASSERT_NE(other, nullptr);
    GDBusConnection* own = std::exchange(channel.m_connection, other);
    for (const std::string suffix : {"_SYN", "_SYN_ACK", "_ACK"}) {
        std::string name = "org.ulmar.Tevrol.demo_CLIENT" + suffix;
        EXPECT_TRUE(channel.BroadcastName(name));
    }
    channel.m_connection = own;
    Settle();
    EXPECT_EQ(channel.m_handshake, TevrolDbusRemote::CONNECTION_HANDSHAKE_SYN);
    EXPECT_THAT(channel.m_partner_dbus_name, IsEmpty());
    EXPECT_THAT(channel.ReadyCalls(), IsEmpty());
    g_object_unref(other);
}

TEST_F(ChannelObject, UnsafeNamesAreUsedUnchanged) {
    const std::string long_name(300, 'x');
    for (const std::string name : {"", "a-b", "a b", "a/b", "/", ".", "1.2", "a'b", "\xff\xfe",
                                   "\xc3\xa4", long_name.c_str()}) {
        SCOPED_TRACE(name);
        auto* channel =
            new TestChannel(name);  // kept: its subscriptions are live in the loop below
        EXPECT_EQ(channel->m_name, name);
        EXPECT_EQ(channel->m_object_name, "/org/ulmar/tevrol/CommunicationChannel/" + name);
        Settle();
        EXPECT_FALSE(channel->IsConnectionReady());
        Bytes data = ToBytes("into the void");
        channel->SendNotification(data);
        const CapturedOutput output;
        EXPECT_THAT(channel->SendMessage(data), IsEmpty());
        EXPECT_EQ(output.Text(), "Connection not set.\n");
    }
    TakeGlibReports();
}

TEST_F(ChannelObject, IntrospectionShowsSendAndNoSignal) {
    TestChannel channel;
    std::string text;
    // The loop must run to answer, so the question comes from a partner's side.
    auto asked = std::async(std::launch::async, [&] { text = Introspect(channel.m_object_name); });
    ASSERT_TRUE(IterateUntil(
        [&] { return asked.wait_for(std::chrono::seconds(0)) == std::future_status::ready; }));
    EXPECT_THAT(text, HasSubstr("<interface name=\"org.ulmar.tevrol.DbusCommunication\">"));
    EXPECT_THAT(text, HasSubstr("<method name=\"Send\">"));
    EXPECT_THAT(text, HasSubstr("type=\"ay\" name=\"data\" direction=\"in\""));
    EXPECT_THAT(text, HasSubstr("type=\"ay\" name=\"response\" direction=\"out\""));
    const std::string own = text.substr(text.find("org.ulmar.tevrol.DbusCommunication"));
    EXPECT_THAT(own, Not(HasSubstr("<signal")));
    EXPECT_THAT(own, Not(HasSubstr("<property")));
}

}  // namespace
