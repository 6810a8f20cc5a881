// SPDX-License-Identifier: MIT
// What a channel does without a free descriptor or match rule, with a name that is no path element,
// and with a main context that is not thread-default any more.
#include <sys/resource.h>

#include <csignal>
#include <iostream>

#include "tests/support/channel-test.h"
#include "tests/support/stranger.h"

namespace {

using testing::ElementsAre;
using testing::IsEmpty;
using testing::Pair;

constexpr const char* kPath = "/org/ulmar/tevrol/CommunicationChannel/demo";
constexpr const char* kInterface = "org.ulmar.tevrol.DbusCommunication";
constexpr const char* kSyn = "org.ulmar.Tevrol.demo_SERVICE_SYN";
constexpr const char* kSynAck = "org.ulmar.Tevrol.demo_SERVICE_SYN_ACK";

// ---- Descriptors ----

class NoFreeDescriptor : public ChannelTest {
protected:
    static void TakeAll() {
        rlimit descriptors{};
        getrlimit(RLIMIT_NOFILE, &descriptors);
        descriptors.rlim_cur = 0;
        std::cerr << "none is free now" << std::endl;
        setrlimit(RLIMIT_NOFILE, &descriptors);
    }
};

// GLib's g_error(): it cannot make the context in which a synchronous call waits.
TEST_F(NoFreeDescriptor, ConstructionEndsProcess) {
    PrepareDeath();
    EXPECT_EXIT(
        {
            TakeAll();
            const TestChannel channel;
        },
        testing::KilledBySignal(SIGTRAP), "none is free now");
}

TEST_F(NoFreeDescriptor, PartnersSynEndsProcess) {
    PrepareDeath();
    const auto hear_of_a_partner = [this] {
        const TestChannel channel;
        Stranger partner(bus.Address());
        partner.Pulse(kSyn);
        Receive();
        TakeAll();
        IterateUntil([] { return false; });
    };
    EXPECT_EXIT(hear_of_a_partner(), testing::KilledBySignal(SIGTRAP), "none is free now");
}

// ---- Match rules ----

// How many of them the process's connection has, as the bus says.
guint CountMatchRules(GDBusConnection* connection) {
    GVariant* reply = g_dbus_connection_call_sync(
        connection, "org.freedesktop.DBus", "/org/freedesktop/DBus",
        "org.freedesktop.DBus.Debug.Stats", "GetConnectionStats",
        g_variant_new("(s)", g_dbus_connection_get_unique_name(connection)), nullptr,
        G_DBUS_CALL_FLAGS_NONE, -1, nullptr, nullptr);
    GVariant* statistics = g_variant_get_child_value(reply, 0);
    guint rules = 0;
    EXPECT_TRUE(g_variant_lookup(statistics, "MatchRules", "u", &rules));
    g_variant_unref(statistics);
    g_variant_unref(reply);
    return rules;
}

class MatchRules : public ChannelTest {};

TEST_F(MatchRules, ChannelTakesThreeAndBindingTwoMore) {
    const guint before = CountMatchRules(connection);
    TestChannel channel;
    EXPECT_EQ(CountMatchRules(connection), before + 3);
    TestPartner partner;
    Connect(partner, channel);
    EXPECT_EQ(CountMatchRules(connection), before + 5);
    partner.Leave();
    ASSERT_TRUE(IterateUntil([&] { return !channel.IsConnectionReady(); }));
    EXPECT_EQ(CountMatchRules(connection), before + 3);
}

class MatchRulesUsedUp : public ChannelTest {
protected:
    // Enough for either end.
    static constexpr guint kMost = 8;

    MatchRulesUsedUp()
        : ChannelTest("<limit name=\"max_match_rules_per_connection\">" + std::to_string(kMost) +
                      "</limit>") {}

    static void TakeAll() {
        for (guint i = CountMatchRules(connection); i < kMost; ++i) {
            const std::string rule = "arg0='" + std::to_string(i) + "'";
            g_variant_unref(CallDriver(connection, "AddMatch", g_variant_new("(s)", rule.c_str())));
        }
    }
};

TEST_F(MatchRulesUsedUp, LossOfPartnerIsNotTold) {
    TestChannel channel;
    TakeAll();
    TestPartner partner;
    Connect(partner, channel);
    const std::string name = partner.UniqueName();
    EXPECT_EQ(CountMatchRules(connection), kMost);
    // Addressed to this process, a notification needs no rule.
    ASSERT_TRUE(partner.Notify(ToBytes("hello")));
    Settle(partner);
    EXPECT_EQ(channel.Notifications().size(), 1U);

    partner.Leave();
    while (NameHasOwner(name)) {
    }
    Settle();
    EXPECT_TRUE(channel.IsConnectionReady());
    EXPECT_THAT(channel.ReadyCalls(), ElementsAre(Pair(true, name)));
    EXPECT_THAT(Errors(), IsEmpty());
    // Bound to a partner that is gone, it binds no other one.
    TestPartner next;
    next.Join();
    next.Open();
    Settle(next);
    EXPECT_EQ(channel.m_partner_dbus_name, name);
}

// ---- Names ----

class NameUnfitForPath : public ChannelTest {};

TEST_F(NameUnfitForPath, BecomesReadyAndCarriesNothing) {
    const CapturedOutput output;
    TestChannel channel("a-b");  // fit for a bus name
    Stranger peer(bus.Address());
    peer.Pulse("org.ulmar.Tevrol.a-b_SERVICE_SYN_ACK");
    Settle();
    EXPECT_TRUE(channel.IsConnectionReady());
    EXPECT_THAT(channel.ReadyCalls(), ElementsAre(Pair(true, peer.UniqueName())));
    EXPECT_EQ(channel.m_reg_obj_id, 0U);
    EXPECT_THAT(Errors(), IsEmpty());
    Bytes data = ToBytes("hello");
    EXPECT_THAT(channel.SendMessage(data), IsEmpty());
    EXPECT_EQ(output.Text(), "Proxy not ready\n");
    ClearLog();
    channel.SendNotification(data);
    EXPECT_THAT(Errors(),
                ElementsAre(Error("SendNotification", "SignalSubscription not ready\n\n")));
    EXPECT_THAT(
        TakeGlibReports(),
        testing::Contains(testing::HasSubstr("g_dbus_connection_register_object: assertion")));
}

// ---- Main contexts ----

class OwnContext : public ChannelTest {
protected:
    OwnContext() {
        g_main_context_push_thread_default(m_context);
    }
    ~OwnContext() override {
        g_main_context_unref(m_context);
    }
    static void AwaitEndOf(const std::string& partner) {
        while (NameHasOwner(partner)) {
        }
    }
    void Iterate() const {
        Receive();
        while (g_main_context_iteration(m_context, FALSE) != FALSE) {
        }
    }
    void NotifyAndIterate(Stranger& partner) const {
        partner.Emit(OwnName().c_str(), kPath, kInterface, "SendSignal",
                     g_variant_new("(@ay)", g_variant_new_bytestring("hello")));
        Iterate();
    }

    GMainContext* const m_context = g_main_context_new();
};

TEST_F(OwnContext, KeptThreadDefaultGetsEverything) {
    TestChannel channel;
    std::string gone;
    {
        Stranger partner(bus.Address());
        gone = partner.UniqueName();
        partner.Pulse(kSynAck);
        Iterate();
        EXPECT_TRUE(channel.IsConnectionReady());
        NotifyAndIterate(partner);
        EXPECT_EQ(channel.Notifications().size(), 1U);
    }
    AwaitEndOf(gone);
    Iterate();
    EXPECT_FALSE(channel.IsConnectionReady());
    g_main_context_pop_thread_default(m_context);
}

TEST_F(OwnContext, PoppedGetsNeitherNotificationsNorLoss) {
    TestChannel channel;
    g_main_context_pop_thread_default(m_context);
    std::string gone;
    {
        Stranger partner(bus.Address());
        gone = partner.UniqueName();
        partner.Pulse(kSynAck);
        Iterate();
        EXPECT_TRUE(channel.IsConnectionReady());
        NotifyAndIterate(partner);
        EXPECT_THAT(channel.Notifications(), IsEmpty());
        Settle();
        EXPECT_EQ(channel.Notifications().size(), 1U);
    }
    AwaitEndOf(gone);
    Iterate();
    EXPECT_TRUE(channel.IsConnectionReady());
    Settle();
    EXPECT_FALSE(channel.IsConnectionReady());
}

}  // namespace
