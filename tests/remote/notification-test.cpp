// SPDX-License-Identifier: MIT
// Notifications, in both directions.
#include "tests/support/message-test.h"

namespace {

using testing::ElementsAre;
using testing::IsEmpty;
using testing::SizeIs;

constexpr const char* kEmit = "g_dbus_connection_emit_signal";

LogLine Sending(std::size_t size) {
    return Debug("SendNotification", "Sending signal with " + std::to_string(size) + " bytes\n\n");
}

LogLine NotSet() {
    return Error("SendNotification", "Connection not set.\n\n");
}

class NotificationBeforeHandshake : public MessageTest {
protected:
    static LogLine CalledBy(const std::string& sender, const std::string& path = kPath,
                            const std::string& member = "SendSignal") {
        return Debug("cb_SignalCall", "cb_SignalCall sender=" + sender + " obj_path=" + path +
                                          " iface_name=" + kInterface + " signal_name=" + member +
                                          "\n\n");
    }

    // Sends from here, to the partner of that name if one is given; `data` is left as it is.
    void Send(const Bytes& data, const std::optional<std::string>& name = std::nullopt) {
        Bytes sent = data;
        if (name) {
            channel.SendNotification(sent, *name);
        } else {
            channel.SendNotification(sent);
        }
        EXPECT_EQ(sent, data);
    }

    // Sends from here and waits until the partner has it.
    void SendAndAwait(const Bytes& data) {
        const std::size_t before = partner.Notifications().size();
        Send(data);
        ASSERT_TRUE(IterateUntil([&] { return partner.Notifications().size() > before; }));
        EXPECT_EQ(partner.Notifications().back(), data);
    }

    void ExpectNothingSent() {
        EXPECT_THAT(gio_calls::Of(kEmit), IsEmpty());
        Settle();
        partner.Settle();
        EXPECT_THAT(partner.Notifications(), IsEmpty());
    }
};

class Notification : public NotificationBeforeHandshake {
protected:
    void SetUp() override {
        NotificationBeforeHandshake::SetUp();
        Connect();
    }
};

// ---- From here ----

TEST_F(Notification, EmptyPayloadIsEmptyArray) {
    SendAndAwait({});
    EXPECT_THAT(Log(), ElementsAre(Sending(0)));
}

TEST_F(Notification, EveryByteValueReachesPartner) {
    SendAndAwait(AllByteValues());
    EXPECT_THAT(Log(), ElementsAre(Sending(256)));
    EXPECT_THAT(gio_calls::All(),
                ElementsAre("g_dbus_connection_emit_signal SendSignal to " + partner.UniqueName()));
}

TEST_F(Notification, AnySizeReachesPartner) {
    for (const std::size_t size : Sizes()) {
        SCOPED_TRACE(size);
        ClearLog();
        SendAndAwait(Bytes(size, 'n'));
        EXPECT_THAT(Log(), ElementsAre(Sending(size)));
    }
}

TEST_F(NotificationBeforeHandshake, LogsConnectionNotSet) {
    const CapturedOutput output;
    Send(ToBytes("early"));
    EXPECT_THAT(Log(), ElementsAre(NotSet()));
    EXPECT_EQ(output.Text(), "");
    ExpectNothingSent();
}

TEST_F(Notification, IncompleteHandshakeLogsConnectionNotSet) {
    for (const int state : IncompleteStates()) {
        SCOPED_TRACE(state);
        ClearLog();
        channel.m_handshake = state;
        Send(ToBytes("early"));
        EXPECT_THAT(Log(), ElementsAre(NotSet()));
    }
    ExpectNothingSent();
}

TEST_F(NotificationBeforeHandshake, MissingSubscriptionIsLoggedAndNotSent) {
    gio_calls::Fail("g_dbus_connection_signal_subscribe " + partner.UniqueName());
    partner.Announce(HandshakeStage::SynAck);
    ASSERT_TRUE(IterateUntil([&] { return channel.IsConnectionReady(); }));
    ASSERT_EQ(channel.m_signal_id, 0U);
    Forget();
    Send(ToBytes("nowhere"));
    EXPECT_THAT(Log(), ElementsAre(Error("SendNotification", "SignalSubscription not ready\n\n")));
    ExpectNothingSent();
}

TEST_F(Notification, PartnersNameIsSent) {
    Send(ToBytes("note"), partner.UniqueName());
    ASSERT_TRUE(IterateUntil([&] { return !partner.Notifications().empty(); }));
    EXPECT_THAT(partner.Notifications(), ElementsAre(ToBytes("note")));
    EXPECT_THAT(Log(), ElementsAre(Sending(4)));
}

TEST_F(Notification, NearlyPartnersNameIsLoggedAndNotSent) {
    const std::string name = partner.UniqueName();
    std::string other_byte = name;
    other_byte.back() = static_cast<char>(other_byte.back() + 1);
    for (const std::string& other :
         {std::string(), other_byte, name + "0", name + " ", " " + name,
          name.substr(0, name.size() - 1), name + std::string(1, '\0')}) {
        SCOPED_TRACE(other);
        ClearLog();
        Send(ToBytes("note"), other);
        EXPECT_THAT(Log(),
                    ElementsAre(Error("SendNotification",
                                      "Attempt to send notification to not connected partner!\n")));
    }
    ExpectNothingSent();
}

TEST_F(NotificationBeforeHandshake, EmptyNameComparesEqualAndFailsLater) {
    Send(ToBytes("note"), "");
    EXPECT_THAT(Log(), ElementsAre(NotSet()));
    ClearLog();
    channel.m_handshake = TevrolDbusRemote::CONNECTION_HANDSHAKE_ACK;
    Send(ToBytes("note"), "");
    EXPECT_THAT(Log(), ElementsAre(Error("SendNotification", "SignalSubscription not ready\n\n")));
    ExpectNothingSent();
}

TEST_F(Notification, OnlyPartnerReceivesIt) {
    std::vector<std::string> heard;  // members
    const Connection listener = OpenConnection(bus.Address());
    g_dbus_connection_signal_subscribe(
        listener.get(), nullptr, kInterface, nullptr, kPath, nullptr, G_DBUS_SIGNAL_FLAGS_NONE,
        [](GDBusConnection*, const gchar*, const gchar*, const gchar*, const gchar* member,
           GVariant*,
           gpointer data) { static_cast<std::vector<std::string>*>(data)->emplace_back(member); },
        &heard, nullptr);
    SendAndAwait(ToBytes("for the partner"));
    // Had it been for the listener too, it would be ahead of this one.
    ASSERT_TRUE(partner.NotifyTo(g_dbus_connection_get_unique_name(listener.get()),
                                 tevrol::PayloadBody({}), "Marker"));
    ASSERT_TRUE(IterateUntil([&] { return !heard.empty(); }));
    EXPECT_THAT(heard, ElementsAre("Marker"));
}

TEST_F(Notification, FailureIsLoggedWithCodeAndMessage) {
    gio_calls::Fail(kEmit);
    Send(ToBytes("x"));
    EXPECT_THAT(Log(), ElementsAre(Sending(1),
                                   Error("SendNotification",
                                         "Error while sending signal [0] failed on purpose\n\n")));
    EXPECT_THAT(gio_calls::Of(kEmit), SizeIs(1));  // nothing is tried again
}

TEST_F(Notification, ClosedConnectionIsLoggedWithLibrarysError) {
    const Connection closed = ClosedConnection(bus.Address());
    GDBusConnection* open = std::exchange(channel.m_connection, closed.get());
    Send(ToBytes("x"));
    channel.m_connection = open;
    EXPECT_THAT(Log(),
                ElementsAre(Sending(1), Error("SendNotification",
                                              "Error while sending signal [18] The connection is "
                                              "closed\n\n")));
}

TEST_F(Notification, OtherThreadReachesPartner) {
    std::async(std::launch::async, [&] { Send(ToBytes("from afar")); }).get();
    ASSERT_TRUE(IterateUntil([&] { return !partner.Notifications().empty(); }));
    EXPECT_THAT(partner.Notifications(), ElementsAre(ToBytes("from afar")));
}

TEST_F(Notification, OrderIsKept) {
    for (const char* text : {"first", "second", "third"}) {
        Send(ToBytes(text));
    }
    ASSERT_TRUE(IterateUntil([&] { return partner.Notifications().size() == 3; }));
    EXPECT_THAT(partner.Notifications(),
                ElementsAre(ToBytes("first"), ToBytes("second"), ToBytes("third")));
}

TEST_F(Notification, LostPartnerLogsConnectionNotSet) {
    partner.Leave();
    ASSERT_TRUE(IterateUntil([&] { return !channel.IsConnectionReady(); }));
    Forget();
    Send(ToBytes("late"));
    EXPECT_THAT(Log(), ElementsAre(NotSet()));
    ExpectNothingSent();
}

// ---- To here ----

TEST_F(Notification, PartnersNotificationReachesOverrideWithEveryByteValue) {
    ASSERT_TRUE(partner.Notify(AllByteValues()));
    Settle(partner);
    EXPECT_THAT(channel.Notifications(), ElementsAre(AllByteValues()));
    EXPECT_THAT(Log(), ElementsAre(CalledBy(partner.UniqueName())));
}

TEST_F(Notification, PartnersNotificationOfAnySizeArrives) {
    for (const std::size_t size : Sizes()) {
        SCOPED_TRACE(size);
        ASSERT_TRUE(partner.Notify(Bytes(size, 'p')));
        Settle(partner);
        EXPECT_EQ(channel.Notifications().back(), Bytes(size, 'p'));
    }
    EXPECT_THAT(channel.Notifications(), SizeIs(4));
}

TEST_F(Notification, PartnersSignalMayHaveAnyName) {
    ASSERT_TRUE(partner.Notify(tevrol::PayloadBody(ToBytes("note")), "AnyOther"));
    Settle(partner);
    EXPECT_THAT(channel.Notifications(), ElementsAre(ToBytes("note")));
    EXPECT_THAT(Log(), ElementsAre(CalledBy(partner.UniqueName(), kPath, "AnyOther")));
}

TEST_F(Notification, PartnersSignalOfWrongTypeIsLoggedAndDropped) {
    for (const auto& [type, body] : WrongBodies()) {
        SCOPED_TRACE(type);
        ClearLog();
        ASSERT_TRUE(partner.Notify(body));
        Settle(partner);
        EXPECT_THAT(Log(),
                    ElementsAre(CalledBy(partner.UniqueName()), WrongType("cb_SignalCall", type)));
    }
    EXPECT_THAT(channel.Notifications(), IsEmpty());
    EXPECT_THAT(TakeGlibReports(), IsEmpty());
}

TEST_F(Notification, StrangerIsIgnored) {
    TestPartner stranger;
    stranger.Join();
    ASSERT_TRUE(stranger.NotifyTo(OwnName(), tevrol::PayloadBody(ToBytes("psst"))));
    Settle(stranger);
    EXPECT_THAT(channel.Notifications(), IsEmpty());
    EXPECT_THAT(Log(), IsEmpty());
}

TEST_F(Notification, FormerPartnerIsIgnored) {
    partner.Leave();
    ASSERT_TRUE(IterateUntil([&] { return !channel.IsConnectionReady(); }));
    partner.Join();
    Forget();
    ASSERT_TRUE(partner.NotifyTo(OwnName(), tevrol::PayloadBody(ToBytes("late"))));
    Settle(partner);
    EXPECT_THAT(channel.Notifications(), IsEmpty());
    EXPECT_THAT(Log(), IsEmpty());
}

class NotificationDefaultHandler : public MessageTest {
protected:
    TevrolDbusRemote plain{"plain"};
    TestPartner its_partner{"plain"};
};

TEST_F(NotificationDefaultHandler, PrintsAndLogsUpToFirstZeroByte) {
    ChannelTest::Connect(its_partner, plain);
    for (const auto& [payload, logged] : PayloadsAndLoggedTexts()) {
        ClearLog();
        const CapturedOutput output;
        ASSERT_TRUE(its_partner.Notify(ToBytes(payload)));
        Settle(its_partner);
        EXPECT_EQ(output.Text(), payload + "\n");
        EXPECT_THAT(
            LogOf("HandleNotification"),
            ElementsAre(Debug("HandleNotification",
                              "Default handler - HandleNotification = " + logged + "\n\n")));
    }
}

// ---- The callback by itself ----

TEST_F(Notification, MissingConnectionOrObjectIsError) {
    ExpectNeedsConnectionAndObject(CalledBy(":1.9"), [](GDBusConnection* on, gpointer user_data) {
        TevrolDbusRemote::cb_SignalCall(on, ":1.9", kPath, kInterface, "SendSignal", nullptr,
                                        user_data);
    });
    EXPECT_THAT(channel.Notifications(), IsEmpty());
}

TEST_F(Notification, OtherObjectPathIsIgnored) {
    for (const std::string& path : OtherPaths()) {
        ClearLog();
        TevrolDbusRemote::cb_SignalCall(connection, ":1.9", path.c_str(), kInterface, "SendSignal",
                                        nullptr, &channel);
        EXPECT_THAT(Log(), ElementsAre(CalledBy(":1.9", path)));
    }
    EXPECT_THAT(channel.Notifications(), IsEmpty());
}

}  // namespace
