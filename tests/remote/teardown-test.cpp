// SPDX-License-Identifier: MIT
// What the destructor releases, what it waits for and what it leaves behind.
#include "tests/support/channel-test.h"
#include "tests/support/gio-calls.h"
#include "tests/support/handshake.h"

namespace {

using testing::ElementsAre;
using testing::IsEmpty;
using testing::IsSupersetOf;

class Teardown : public ChannelTest {
protected:
    static std::string Unwatch(guint id) {
        return "g_bus_unwatch_name " + std::to_string(id);
    }
};

TEST_F(Teardown, NoBusMeansNoCalls) {
    gio_calls::Fail("g_bus_get_sync");
    auto* channel = new TestChannel;
    gio_calls::Clear();
    delete channel;
    EXPECT_THAT(gio_calls::All(), IsEmpty());
    EXPECT_THAT(TakeGlibReports(), IsEmpty());
}

TEST_F(Teardown, PendingResendIsDroppedAndThreadIsAwaited) {
    auto* channel = new TestChannel;
    TestPartner partner;
    partner.Join();
    ASSERT_TRUE(partner.HoldClientName(HandshakeStage::SynAck));
    HeldThread pass("Executed OnResendHandshake function\n");  // before it looks at the map
    partner.Open();
    ASSERT_TRUE(IterateUntil([&] { return ResendThread(*channel) != 0; }));
    gio_calls::Clear();
    ClearLog();
    gio_calls::BeforeCall(1, [&] { pass.GoOn(); });  // pthread_join
    delete channel;
    EXPECT_THAT(gio_calls::Of("pthread_join"), ElementsAre("pthread_join"));
    const auto lines = LogOf("OnResendHandshake");
    ASSERT_GE(lines.size(), 2U);
    EXPECT_EQ(lines[lines.size() - 2],
              Debug("OnResendHandshake", "Number of handshakes to resend: 0\n"));
    EXPECT_EQ(lines.back(), Debug("OnResendHandshake", "Nothing left to resend, closing timer\n"));
    EXPECT_THAT(LogOf("TimerThread"), ElementsAre(Debug("TimerThread", "Finished timer thread\n")));
}

TEST_F(Teardown, UnboundChannelPassesSubscriptionsToUnwatch) {
    auto* channel = new TestChannel;
    const std::vector<std::string> unwatched = {Unwatch(channel->m_notification_watch_syn),
                                                Unwatch(channel->m_notification_watch_syn_ack),
                                                Unwatch(channel->m_notification_watch_ack)};
    ClearLog();
    gio_calls::Clear();
    delete channel;
    EXPECT_EQ(gio_calls::All(), unwatched);
    // GIO knows none of the ids: the subscriptions stay, by design.
    EXPECT_EQ(TakeGlibReports().size(), 3U);
    EXPECT_THAT(Log(), IsEmpty());
}

TEST_F(Teardown, BoundPartnerIsReleased) {
    auto* channel = new TestChannel;
    TestPartner partner;
    Connect(partner, *channel);
    gpointer proxy = channel->m_proxy;
    g_object_add_weak_pointer(G_OBJECT(channel->m_proxy), &proxy);
    const std::vector<std::string> released = {
        Unwatch(channel->m_notification_watch_syn), Unwatch(channel->m_notification_watch_syn_ack),
        Unwatch(channel->m_notification_watch_ack), Unwatch(channel->m_proxy_watch),
        "g_dbus_connection_signal_unsubscribe " + std::to_string(channel->m_signal_id)};
    gio_calls::Clear();
    delete channel;
    EXPECT_EQ(gio_calls::All(), released);
    EXPECT_EQ(proxy, nullptr);
}

TEST_F(Teardown, NameWatchWithIdOfSubscriptionIsRemoved) {
    auto* channel = new TestChannel;
    const guint bystander = g_bus_watch_name_on_connection(connection, "org.example.Bystander",
                                                           G_BUS_NAME_WATCHER_FLAGS_NONE, nullptr,
                                                           nullptr, nullptr, nullptr);
    // Both kinds of id count from 1 in spaces of their own.
    const std::vector<guint> subscriptions = {channel->m_notification_watch_syn,
                                              channel->m_notification_watch_syn_ack,
                                              channel->m_notification_watch_ack};
    ASSERT_THAT(subscriptions, IsSupersetOf({bystander}));
    delete channel;
    EXPECT_EQ(TakeGlibReports().size(), 2U);
    g_bus_unwatch_name(bystander);  // gone already
    EXPECT_EQ(TakeGlibReports().size(), 1U);
}

TEST_F(Teardown, OwnedNameIsReleased) {
    auto* channel = new TestChannel;
    channel->m_owner_id =
        g_bus_own_name_on_connection(connection, "org.example.Owned", G_BUS_NAME_OWNER_FLAGS_NONE,
                                     nullptr, nullptr, nullptr, nullptr);
    const std::string unown = "g_bus_unown_name " + std::to_string(channel->m_owner_id);
    gio_calls::Clear();
    delete channel;
    EXPECT_EQ(gio_calls::All().front(), unown);
}

TEST_F(Teardown, BasePointerRunsDerivedDestructorFirst) {
    struct Derived : TestChannel {
        explicit Derived(std::vector<std::string>& order) : m_order(order) {}
        ~Derived() override {
            m_order.emplace_back("derived");
            EXPECT_THAT(gio_calls::Of("g_bus_unwatch_name"), IsEmpty());
        }
        std::vector<std::string>& m_order;
    };
    std::vector<std::string> order;
    TevrolDbusRemote* base = new Derived(order);
    gio_calls::Clear();
    delete base;  // AddressSanitizer checks that the storage is freed, whole
    EXPECT_THAT(order, ElementsAre("derived"));
    EXPECT_EQ(gio_calls::Of("g_bus_unwatch_name").size(), 3U);
}

}  // namespace
