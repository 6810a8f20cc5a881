// SPDX-License-Identifier: MIT
// The SYN stage: how a partner's SYN is answered. The SYN_ACK stage binds a partner in the same
// way, so what both do is tested for both here; what the SYN_ACK stage adds has a file of its own.
#include "tests/support/gio-calls.h"
#include "tests/support/handshake.h"

namespace {

using testing::ElementsAre;
using testing::IsEmpty;
using testing::Pair;

using C = TevrolDbusRemote;

// A channel and a partner that is on the bus and has not announced anything.
class StageTest : public ChannelTest {
protected:
    StageTest() {
        partner.Join();
        ClearLog();
        gio_calls::Clear();
    }

    // One pulse of the partner, and what the callback of `tested` makes of it, up to its end.
    void PulseUntilBound(const TestedStage& tested) {
        ASSERT_TRUE(partner.Announce(tested.heard));
        ASSERT_TRUE(IterateUntil([&] { return channel.m_signal_id != 0; }));
    }

    void ExpectUntouched() {
        ExpectUnbound(channel);
        EXPECT_EQ(HandshakeState(channel), C::CONNECTION_HANDSHAKE_SYN);
        EXPECT_THAT(Owed(channel), IsEmpty());
        EXPECT_THAT(channel.ReadyCalls(), IsEmpty());
    }

    TestChannel channel;
    TestPartner partner;
};

// ---- What the SYN and the SYN_ACK stage have in common ----

class BindingStage : public StageTest, public testing::WithParamInterface<TestedStage> {
protected:
    // The log as it was when the resend thread began; it adds lines of its own later.
    static Lines FirstLines(std::size_t count) {
        Lines lines = Log();
        EXPECT_GE(lines.size(), count);
        lines.erase(lines.begin() + static_cast<Lines::difference_type>(count), lines.end());
        return lines;
    }

    // The partner's own process holds the name that the answer needs.
    void PulseAndRefuseAnswer() {
        ASSERT_TRUE(partner.HoldClientName(stage.answered));
        PulseUntilBound(stage);
    }

    const TestedStage& stage = GetParam();
};

INSTANTIATE_TEST_SUITE_P(, BindingStage, testing::Values(kSynStage, kSynAckStage));

TEST_P(BindingStage, AcquisitionIsLoggedAndChangesNothing) {
    ASSERT_TRUE(partner.Acquire(stage.heard));
    Settle(partner);
    EXPECT_EQ(Log(), stage.Acquired(partner.UniqueName()));
    EXPECT_THAT(AnnouncedNames(), IsEmpty());
    ExpectUntouched();
}

TEST_P(BindingStage, OwnReleaseChangesNothing) {
    std::string listened = stage.Listened();
    ASSERT_TRUE(channel.BroadcastName(listened));
    Settle();
    EXPECT_EQ(Log(), BroadcastLines(listened) + stage.Pulsed(OwnName()));
    EXPECT_THAT(AnnouncedNames(), ElementsAre(listened));
    ExpectUntouched();
}

TEST_P(BindingStage, PartnerIsBoundAndAnswered) {
    PulseUntilBound(stage);
    EXPECT_EQ(Log(), stage.Pulsed(partner.UniqueName()) + stage.Bound(partner.UniqueName()) +
                         stage.Answered());
    ExpectBound(channel, partner.UniqueName());
    EXPECT_EQ(HandshakeState(channel), stage.completed);
    EXPECT_THAT(Owed(channel), IsEmpty());
    EXPECT_TRUE(IterateUntil([&] {
        return partner.Saw(std::string("heard ") + ToString(stage.answered) + " from " + OwnName());
    }));
}

TEST_P(BindingStage, BindingStepsComeInOrder) {
    PulseUntilBound(stage);
    const std::string unique_name = partner.UniqueName();
    EXPECT_THAT(gio_calls::All(),
                ElementsAre("g_bus_watch_name_on_connection " + unique_name,
                            "g_dbus_proxy_new_sync " + unique_name +
                                " /org/ulmar/tevrol/CommunicationChannel/demo",
                            "g_dbus_connection_signal_subscribe " + unique_name + " (null) (null)",
                            "g_dbus_connection_call_sync RequestName " + stage.Answer(),
                            "g_dbus_connection_call_sync ReleaseName " + stage.Answer()));
}

TEST_P(BindingStage, BoundPartnersReleaseIsIgnored) {
    Connect(partner, channel);
    const guint watch = channel.m_proxy_watch;
    ClearLog();
    gio_calls::Clear();
    ASSERT_TRUE(partner.Announce(stage.heard));
    Settle(partner);
    EXPECT_EQ(Log(), stage.Pulsed(partner.UniqueName()));
    EXPECT_THAT(AnnouncedNames(), IsEmpty());
    ExpectBound(channel, partner.UniqueName());
    EXPECT_EQ(channel.m_proxy_watch, watch);
    EXPECT_EQ(channel.ReadyCalls().size(), 1U);
}

TEST_P(BindingStage, OtherProcessIsIgnoredWhilePartnerIsBound) {
    TestPartner other;
    Connect(partner, channel);
    ClearLog();
    gio_calls::Clear();
    other.Join();
    ASSERT_TRUE(other.Announce(stage.heard));
    Settle(other);
    EXPECT_EQ(Log(), stage.Pulsed(other.UniqueName()));
    EXPECT_THAT(AnnouncedNames(), IsEmpty());
    ExpectBound(channel, partner.UniqueName());
    EXPECT_EQ(channel.ReadyCalls().size(), 1U);
}

TEST_P(BindingStage, RefusedAnswerIsOwedAndStartsOneThread) {
    PulseAndRefuseAnswer();
    const Lines expected = stage.Pulsed(partner.UniqueName()) + stage.Bound(partner.UniqueName()) +
                           stage.Refused() + stage.ThreadStarted(1);
    EXPECT_EQ(FirstLines(expected.size()), expected);
    EXPECT_THAT(Owed(channel), ElementsAre(Pair(partner.UniqueName(), stage.Suffix())));
    EXPECT_THAT(gio_calls::Of("pthread_create"), ElementsAre("pthread_create"));
    EXPECT_NE(ResendThread(channel), 0U);
    EXPECT_EQ(HandshakeState(channel), C::CONNECTION_HANDSHAKE_SYN);
    ExpectBound(channel, partner.UniqueName());
    EXPECT_THAT(channel.ReadyCalls(), IsEmpty());
}

TEST_P(BindingStage, RefusedAnswerReplacesOwedEntry) {
    channel.m_resendHandshake[partner.UniqueName()] = "_OLD";
    PulseAndRefuseAnswer();
    EXPECT_THAT(Owed(channel), ElementsAre(Pair(partner.UniqueName(), stage.Suffix())));
}

TEST_P(BindingStage, RecordedThreadIsTheOnlyOne) {
    // Stands for a thread that has made its last pass and not yet cleared the field.
    channel.m_timerThread = pthread_self();
    PulseAndRefuseAnswer();
    EXPECT_EQ(Log(), stage.Pulsed(partner.UniqueName()) + stage.Bound(partner.UniqueName()) +
                         stage.Refused());
    EXPECT_THAT(gio_calls::Of("pthread_create"), IsEmpty());
    EXPECT_THAT(Owed(channel), ElementsAre(Pair(partner.UniqueName(), stage.Suffix())));
    channel.m_timerThread = 0;
}

TEST_P(BindingStage, FailedThreadCreationIsLoggedAndAnswerStaysOwed) {
    gio_calls::Fail("pthread_create");
    PulseAndRefuseAnswer();
    EXPECT_EQ(Log(), stage.Pulsed(partner.UniqueName()) + stage.Bound(partner.UniqueName()) +
                         stage.Refused() + stage.ThreadStarted(0));
    EXPECT_EQ(ResendThread(channel), gio_calls::kHandleOfNoThread);
    EXPECT_THAT(Owed(channel), ElementsAre(Pair(partner.UniqueName(), stage.Suffix())));
    ExpectBound(channel, partner.UniqueName());
}

TEST_P(BindingStage, FailedProxyIsLoggedAndTheRestGoesOn) {
    gio_calls::Fail("g_dbus_proxy_new_sync");
    PulseUntilBound(stage);
    EXPECT_EQ(Log(), stage.Pulsed(partner.UniqueName()) +
                         stage.Bound(partner.UniqueName(), "failed on purpose") + stage.Answered());
    EXPECT_EQ(channel.m_proxy, nullptr);
    EXPECT_NE(channel.m_proxy_watch, 0U);
    EXPECT_NE(channel.m_signal_id, 0U);
    EXPECT_EQ(channel.m_partner_dbus_name, partner.UniqueName());
    EXPECT_THAT(AnnouncedNames(), ElementsAre(stage.Answer()));
    EXPECT_EQ(HandshakeState(channel), stage.completed);
}

TEST_P(BindingStage, PartnerWithoutProxyIsBound) {
    gio_calls::Fail("g_dbus_proxy_new_sync", 1, gio_calls::Failure::WithoutError);
    Connect(partner, channel);
    ClearLog();
    ASSERT_TRUE(partner.Announce(stage.heard));
    Settle(partner);
    EXPECT_EQ(Log(), stage.Pulsed(partner.UniqueName()));
    EXPECT_EQ(channel.m_proxy, nullptr);
}

TEST_P(BindingStage, MissingConnectionOrChannelIsError) {
    ExpectNullIsRefused(stage, connection, channel);
    ExpectUntouched();
}

TEST_P(BindingStage, BodyOfWrongTypeIsError) {
    ExpectOtherTypesAreRefused(stage, connection, channel);
    ExpectUntouched();
}

// ---- The SYN stage alone ----

class SynStage : public StageTest {};

TEST_F(SynStage, AnsweredSynLeadsToSynAckUntold) {
    PulseUntilBound(kSynStage);
    ExpectBound(channel, partner.UniqueName());
    EXPECT_THAT(AnnouncedNames(), ElementsAre("org.ulmar.Tevrol.demo_CLIENT_SYN_ACK"));
    EXPECT_EQ(HandshakeState(channel), C::CONNECTION_HANDSHAKE_SYN_ACK);
    EXPECT_FALSE(channel.IsConnectionReady());
    EXPECT_THAT(channel.ReadyCalls(), IsEmpty());
}

TEST_F(SynStage, BothEndsStartingAtOnceAreNotReady) {
    partner.Open();
    // As if this end had been constructed just then: the partner, listening already, has announced
    // its SYN before it hears this one, and the loop here has not run yet.
    std::string own_syn = "org.ulmar.Tevrol.demo_CLIENT_SYN";
    ASSERT_TRUE(channel.BroadcastName(own_syn));
    ASSERT_TRUE(IterateUntil([&] {
        return partner.Saw("announced SYN_ACK") && partner.Saw("heard SYN_ACK from " + OwnName());
    }));
    Settle(partner);
    const std::string unique_name = partner.UniqueName();
    EXPECT_EQ(LogOf(kSynAckStage.function), kSynAckStage.Pulsed(unique_name));
    EXPECT_THAT(AnnouncedNames(), ElementsAre(own_syn, kSynStage.Answer()));
    ExpectBound(channel, unique_name);
    EXPECT_EQ(HandshakeState(channel), C::CONNECTION_HANDSHAKE_SYN_ACK);
    EXPECT_THAT(channel.ReadyCalls(), IsEmpty());
    EXPECT_FALSE(partner.IsReady());

    // Only an ACK ends it.
    ASSERT_TRUE(partner.Announce(HandshakeStage::Ack));
    Settle(partner);
    EXPECT_TRUE(channel.IsConnectionReady());
}

}  // namespace
