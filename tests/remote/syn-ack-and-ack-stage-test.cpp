// SPDX-License-Identifier: MIT
// The stages that complete the handshake: SYN_ACK, where this end has opened, and ACK, where the
// partner has. How the SYN_ACK stage binds is tested together with the SYN stage.
#include <optional>

#include "tests/support/gio-calls.h"
#include "tests/support/handshake.h"
#include "tests/support/stranger.h"

namespace {

using testing::ElementsAre;
using testing::IsEmpty;
using testing::Pair;

using C = TevrolDbusRemote;

class CompletingStage : public ChannelTest {
protected:
    CompletingStage() {
        channel.on_ready = [this](bool, const std::string&) {
            ready_when_told = channel.IsConnectionReady();
            held_when_told = IsHeld(channel.m_mutex);
        };
        partner.Join();
        ClearLog();
        gio_calls::Clear();
    }

    void ExpectToldOnce(const std::string& whom) const {
        EXPECT_THAT(channel.ReadyCalls(), ElementsAre(Pair(true, whom)));
        EXPECT_TRUE(ready_when_told);
        EXPECT_TRUE(held_when_told);
    }

    TestChannel channel;
    TestPartner partner;
    bool ready_when_told = false;
    bool held_when_told = false;
};

// ---- The two ways through the handshake ----

class RunningPartner : public ChannelTest {};

TEST_F(RunningPartner, AnswersFirstSynAndBothBecomeReady) {
    std::optional<TestChannel> channel;
    TestPartner partner;
    partner.Join();
    channel.emplace();
    ClearLog();
    gio_calls::Clear();
    ASSERT_TRUE(IterateUntil([&] { return channel->IsConnectionReady() && partner.IsReady(); }));
    const std::string unique_name = partner.UniqueName();
    EXPECT_EQ(Log(), kSynAckStage.Pulsed(unique_name) + kSynAckStage.Bound(unique_name) +
                         kSynAckStage.Answered());
    EXPECT_THAT(AnnouncedNames(), ElementsAre("org.ulmar.Tevrol.demo_CLIENT_ACK"));
    ExpectBound(*channel, unique_name);
    EXPECT_THAT(channel->ReadyCalls(), ElementsAre(Pair(true, unique_name)));
    EXPECT_THAT(
        partner.Events(),
        ElementsAre("joined " + unique_name, "heard SYN from " + OwnName(), "bound " + OwnName(),
                    "announced SYN_ACK", "heard ACK from " + OwnName(), "ready " + OwnName()));
}

TEST_F(CompletingStage, PartnerStartingSecondMakesBothReady) {
    Connect(partner, channel);
    const std::string unique_name = partner.UniqueName();
    EXPECT_EQ(Log(), kSynStage.Pulsed(unique_name) + kSynStage.Bound(unique_name) +
                         kSynStage.Answered() + kAckStage.Pulsed(unique_name));
    EXPECT_THAT(AnnouncedNames(), ElementsAre("org.ulmar.Tevrol.demo_CLIENT_SYN_ACK"));
    ExpectBound(channel, unique_name);
    ExpectToldOnce(unique_name);
    EXPECT_THAT(
        partner.Events(),
        ElementsAre("joined " + unique_name, "announced SYN", "heard SYN_ACK from " + OwnName(),
                    "bound " + OwnName(), "announced ACK", "ready " + OwnName()));
}

// ---- SYN_ACK ----

TEST_F(CompletingStage, SynAckIsAnsweredByAckAndToldOnce) {
    ASSERT_TRUE(partner.Announce(HandshakeStage::SynAck));
    Settle(partner);
    ExpectBound(channel, partner.UniqueName());
    EXPECT_THAT(AnnouncedNames(), ElementsAre("org.ulmar.Tevrol.demo_CLIENT_ACK"));
    EXPECT_EQ(HandshakeState(channel), C::CONNECTION_HANDSHAKE_ACK);
    ExpectToldOnce(partner.UniqueName());
}

TEST_F(CompletingStage, RefusedAckIsToldOnceResent) {
    ASSERT_TRUE(partner.HoldClientName(HandshakeStage::Ack));
    ASSERT_TRUE(partner.Announce(HandshakeStage::SynAck));
    Settle(partner);
    ExpectBound(channel, partner.UniqueName());
    EXPECT_THAT(Owed(channel), ElementsAre(Pair(partner.UniqueName(), "_ACK")));
    EXPECT_EQ(HandshakeState(channel), C::CONNECTION_HANDSHAKE_SYN);
    EXPECT_THAT(channel.ReadyCalls(), IsEmpty());

    ASSERT_TRUE(partner.ReleaseClientName(HandshakeStage::Ack));
    ASSERT_TRUE(IterateUntil([&] { return ResendThread(channel) == 0; }));
    EXPECT_EQ(HandshakeState(channel), C::CONNECTION_HANDSHAKE_ACK);
    EXPECT_THAT(Owed(channel), IsEmpty());
    ExpectToldOnce(partner.UniqueName());
}

TEST_F(CompletingStage, SynAckOfBoundPartnerIsIgnored) {
    // Refused, so that the partner does not complete the handshake.
    TestPartner other;
    other.Join();
    ASSERT_TRUE(other.Acquire(HandshakeStage::Ack));
    partner.Open();
    ASSERT_TRUE(IterateUntil([&] { return channel.m_signal_id != 0; }));
    ASSERT_TRUE(partner.Announce(HandshakeStage::SynAck));
    Settle(partner);
    EXPECT_EQ(LogOf(kSynAckStage.function), kSynAckStage.Pulsed(partner.UniqueName()));
    EXPECT_THAT(AnnouncedNames(), ElementsAre(kSynStage.Answer()));
    EXPECT_EQ(HandshakeState(channel), C::CONNECTION_HANDSHAKE_SYN_ACK);
    EXPECT_THAT(channel.ReadyCalls(), IsEmpty());
}

// ---- ACK ----

TEST_F(CompletingStage, AckAfterAnsweredSynCompletes) {
    partner.Open();
    ASSERT_TRUE(IterateUntil([&] { return channel.m_signal_id != 0; }));
    EXPECT_EQ(HandshakeState(channel), C::CONNECTION_HANDSHAKE_SYN_ACK);
    ClearLog();
    ASSERT_TRUE(IterateUntil([&] { return channel.IsConnectionReady(); }));
    EXPECT_EQ(Log(), kAckStage.Pulsed(partner.UniqueName()));
    ExpectToldOnce(partner.UniqueName());
}

TEST_F(CompletingStage, AckWithoutPartnerIsIgnored) {
    ASSERT_TRUE(partner.Announce(HandshakeStage::Ack));
    Settle(partner);
    EXPECT_EQ(Log(), kAckStage.Pulsed(partner.UniqueName()));
    EXPECT_EQ(HandshakeState(channel), C::CONNECTION_HANDSHAKE_SYN);
    ExpectUnbound(channel);
    EXPECT_THAT(channel.ReadyCalls(), IsEmpty());
}

TEST_F(CompletingStage, AckOfOtherProcessCompletesInItsName) {
    // It owns the name, so the partner's own ACK is refused at first and comes later.
    Stranger other(bus.Address());
    other.Acquire(kAckStage.Listened());
    partner.Open();
    ASSERT_TRUE(IterateUntil([&] {
        return partner.Saw("refused ACK: org.ulmar.Tevrol.demo_SERVICE_ACK: File exists");
    }));
    EXPECT_THAT(channel.ReadyCalls(), IsEmpty());
    other.Release(kAckStage.Listened());
    ASSERT_TRUE(IterateUntil([&] { return channel.ReadyCalls().size() == 2; }));
    EXPECT_THAT(channel.ReadyCalls(),
                ElementsAre(Pair(true, other.UniqueName()), Pair(true, partner.UniqueName())));
    EXPECT_TRUE(ready_when_told);
    EXPECT_TRUE(held_when_told);
    ExpectBound(channel, partner.UniqueName());
}

TEST_F(CompletingStage, SecondAckIsToldAgain) {
    TestPartner other;
    Connect(partner, channel);
    other.Join();
    ASSERT_TRUE(partner.Announce(HandshakeStage::Ack));
    Settle(partner);
    ASSERT_TRUE(other.Announce(HandshakeStage::Ack));
    Settle(other);
    EXPECT_THAT(channel.ReadyCalls(),
                ElementsAre(Pair(true, partner.UniqueName()), Pair(true, partner.UniqueName()),
                            Pair(true, other.UniqueName())));
    EXPECT_EQ(HandshakeState(channel), C::CONNECTION_HANDSHAKE_ACK);
    ExpectBound(channel, partner.UniqueName());
}

TEST_F(CompletingStage, AcquisitionChangesNothing) {
    ASSERT_TRUE(partner.Acquire(HandshakeStage::SynAck));
    Settle(partner);
    EXPECT_EQ(Log(), kSynAckStage.Acquired(partner.UniqueName()));
    ExpectUnbound(channel);

    Connect(partner, channel);
    ClearLog();
    ASSERT_TRUE(partner.Acquire(HandshakeStage::Ack));
    Settle(partner);
    EXPECT_EQ(Log(), kAckStage.Acquired(partner.UniqueName()));
    EXPECT_EQ(HandshakeState(channel), C::CONNECTION_HANDSHAKE_ACK);
    ExpectToldOnce(partner.UniqueName());
}

TEST_F(CompletingStage, OwnAckChangesNothing) {
    Connect(partner, channel);
    ClearLog();
    std::string listened = kAckStage.Listened();
    ASSERT_TRUE(channel.BroadcastName(listened));
    Settle();
    EXPECT_EQ(Log(), BroadcastLines(listened) + kAckStage.Pulsed(OwnName()));
    ExpectToldOnce(partner.UniqueName());
}

TEST_F(CompletingStage, MissingConnectionOrChannelIsError) {
    Connect(partner, channel);
    ExpectNullIsRefused(kAckStage, connection, channel);
    ExpectToldOnce(partner.UniqueName());
}

TEST_F(CompletingStage, AckBodyOfWrongTypeIsError) {
    Connect(partner, channel);
    ExpectOtherTypesAreRefused(kAckStage, connection, channel);
    ExpectToldOnce(partner.UniqueName());
    ExpectBound(channel, partner.UniqueName());
}

}  // namespace
