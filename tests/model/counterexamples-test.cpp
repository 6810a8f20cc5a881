// SPDX-License-Identifier: MIT
// What the model of the handshake says can happen, on a real bus: each run of events that
// docs/ordering.md draws, made to happen, and what an application does about it.
#include <optional>

#include "tests/support/channel-test.h"
#include "tests/support/gio-calls.h"
#include "tests/support/handshake.h"
#include "tests/support/stranger.h"

namespace {

using testing::Each;
using testing::ElementsAre;
using testing::Pair;
using Moment = PartnerFaults::Moment;

constexpr const char* kSynAck = "org.ulmar.Tevrol.demo_CLIENT_SYN_ACK";
const std::string kSynAckRequest =
    std::string("g_dbus_connection_call_sync RequestName ") + kSynAck;
constexpr const char* kPartnersAck = "org.ulmar.Tevrol.demo_SERVICE_ACK";

// Where the resend thread begins a pass, the lock not yet taken, and where it has made its last.
constexpr const char* kPassBegins = "Executed OnResendHandshake function\n";
constexpr const char* kThreadEnds = "Finished timer thread\n";

const LogLine kRefused = Error("BroadcastName", "Cannot own name due to return code = 3\n\n");

class OrderOfEvents : public ChannelTest {
protected:
    void TearDown() override {
        if (channel) {
            EndResends(*channel);
        }
    }

    void StartChannel() {
        channel.emplace();
    }

    // The partner joins and announces its SYN.
    static void StartPartner(TestPartner& end) {
        end.Join();
        end.Open();
    }

    bool BothReady(const TestPartner& end) {
        return channel->IsConnectionReady() && end.IsReady() && end.BoundTo() == OwnName();
    }
    bool Bound() {
        return channel->m_signal_id != 0;
    }
    bool Unbound() {
        return channel->m_signal_id == 0;
    }

    std::optional<TestChannel> channel;
    TestPartner partner;
    std::optional<Stranger> other{bus.Address()};  // a process that is no partner
};

TEST_F(OrderOfEvents, BothEndsStartingAtOnceStayUnready) {
    // The partner listens, but takes nothing from its queue before both SYNs are announced.
    partner.OnEvent([&](const tevrol::PartnerEvent& event) {
        if (event.kind == tevrol::PartnerEvent::Kind::Joined) {
            StartChannel();
            partner.AnnounceNow(HandshakeStage::Syn);
        }
    });
    partner.Join();
    ASSERT_TRUE(IterateUntil([&] { return Bound() && partner.Saw("announced SYN_ACK"); }));
    Settle(partner);
    ExpectBound(*channel, partner.UniqueName());
    EXPECT_EQ(partner.BoundTo(), OwnName());
    EXPECT_FALSE(channel->IsConnectionReady());
    EXPECT_FALSE(partner.IsReady());

    // One end leaves and comes back, once the other has noticed.
    partner.OnEvent({});
    partner.Leave();
    ASSERT_TRUE(IterateUntil([&] { return Unbound(); }));
    StartPartner(partner);
    EXPECT_TRUE(IterateUntil([&] { return BothReady(partner); }));
}

TEST_F(OrderOfEvents, RefusedFirstSynIsNotFoundByRunningPartner) {
    partner.Join();
    other->Acquire("org.ulmar.Tevrol.demo_CLIENT_SYN");
    StartChannel();
    EXPECT_THAT(Errors(), ElementsAre(kRefused));
    Settle(partner);
    ExpectUnbound(*channel);
    EXPECT_EQ(partner.BoundTo(), "");

    partner.Open();
    EXPECT_TRUE(IterateUntil([&] { return BothReady(partner); }));
}

TEST_F(OrderOfEvents, PartnerWithRefusedSynIsNotFound) {
    StartChannel();
    other->Acquire("org.ulmar.Tevrol.demo_SERVICE_SYN");
    StartPartner(partner);
    Settle(partner);
    EXPECT_FALSE(partner.Saw("announced SYN"));
    ExpectUnbound(*channel);
    EXPECT_EQ(partner.BoundTo(), "");
}

TEST_F(OrderOfEvents, AnswerRefusedForeverStaysUnready) {
    StartChannel();
    other->Acquire(kSynAck);
    StartPartner(partner);
    constexpr std::size_t kPasses = 3;
    ASSERT_TRUE(IterateUntil([&] { return Errors().size() > kPasses; }));
    EXPECT_THAT(Errors(), Each(kRefused));
    ExpectBound(*channel, partner.UniqueName());
    EXPECT_FALSE(channel->IsConnectionReady());
    EXPECT_FALSE(partner.IsReady());

    // Given back while no partner listens: one that does would take it for this end's, see below.
    partner.Leave();
    ASSERT_TRUE(IterateUntil([&] { return Unbound(); }));
    other->Release(kSynAck);
    StartPartner(partner);
    EXPECT_TRUE(IterateUntil([&] { return BothReady(partner); }));
}

TEST_F(OrderOfEvents, ProcessReleasingThisEndsNameIsTakenForIt) {
    StartChannel();
    other->Acquire(kSynAck);
    HeldThread resend(kPassBegins);  // or its SYN_ACK would take the readiness back again
    StartPartner(partner);
    ASSERT_TRUE(IterateUntil([&] { return Bound(); }));
    const std::string holder = other->UniqueName();
    other->Release(kSynAck);
    ASSERT_TRUE(IterateUntil([&] { return channel->IsConnectionReady() && partner.IsReady(); }));
    EXPECT_EQ(partner.BoundTo(), holder);
    resend.GoOn();

    // It must own no name of a channel that it is no end of. When it ends, so does the confusion.
    other.reset();
    ASSERT_TRUE(IterateUntil([&] { return partner.Saw("lost " + holder); }));
    partner.Leave();
    ASSERT_TRUE(IterateUntil([&] { return Unbound(); }));
    StartPartner(partner);
    EXPECT_TRUE(IterateUntil([&] { return BothReady(partner); }));
}

TEST_F(OrderOfEvents, PartnerDyingWithItsSynIsBoundThenLost) {
    StartChannel();
    for (const Moment moment : {Moment::DuringSyn, Moment::AfterSyn}) {
        PartnerFaults dies;
        dies.leave_at = moment;
        partner.SetFaults(dies);
        partner.Join();
        const std::string name = partner.UniqueName();
        partner.Open();
        ASSERT_EQ(partner.UniqueName(), "");
        ASSERT_TRUE(IterateUntil([&] { return Bound(); }));
        EXPECT_EQ(channel->m_partner_dbus_name, name);
        ASSERT_TRUE(IterateUntil([&] { return Unbound(); }));
        EXPECT_THAT(channel->ReadyCalls().back(), Pair(false, name));
    }
    EXPECT_EQ(channel->ReadyCalls().size(), 2U);
}

TEST_F(OrderOfEvents, PartnerRestartedBeforeItsLossIsReadyAlone) {
    StartChannel();
    partner.Join();
    const std::string first = partner.UniqueName();
    partner.Open();
    partner.Leave();
    StartPartner(partner);
    // All of this waits in the queue of this end, whose loop has not run.
    ASSERT_TRUE(IterateUntil([&] { return partner.IsReady(); }));
    Settle(partner);
    ExpectUnbound(*channel);
    EXPECT_THAT(channel->ReadyCalls(), ElementsAre(Pair(false, first)));
    EXPECT_TRUE(partner.IsReady());

    partner.Open();
    EXPECT_TRUE(IterateUntil([&] { return Bound(); }));
    Settle(partner);
    // The partner is bound already, so it does not answer: it has to come back after the loss.
    EXPECT_FALSE(channel->IsConnectionReady());
    partner.Leave();
    ASSERT_TRUE(IterateUntil([&] { return Unbound(); }));
    StartPartner(partner);
    EXPECT_TRUE(IterateUntil([&] { return BothReady(partner); }));
}

TEST_F(OrderOfEvents, AnnouncementRefusedAsThreadEndsIsNotRepeated) {
    StartChannel();
    HeldThread resend(kPassBegins);
    gio_calls::Fail(kSynAckRequest, 2);
    StartPartner(partner);
    ASSERT_TRUE(IterateUntil([&] { return Bound(); }));
    partner.Leave();
    ASSERT_TRUE(IterateUntil([&] { return Unbound(); }));
    resend.GoOnTo(kThreadEnds);  // the pass has dropped what was owed to the lost partner

    StartPartner(partner);
    ASSERT_TRUE(IterateUntil([&] { return Bound() && !Owed(*channel).empty(); }));
    resend.GoOn();
    ASSERT_TRUE(IterateUntil([&] { return ResendThread(*channel) == 0; }));
    Settle(partner);
    EXPECT_THAT(Owed(*channel), ElementsAre(Pair(partner.UniqueName(), "_SYN_ACK")));
    EXPECT_FALSE(channel->IsConnectionReady());

    partner.Leave();
    ASSERT_TRUE(IterateUntil([&] { return Unbound(); }));
    StartPartner(partner);
    EXPECT_TRUE(IterateUntil([&] { return BothReady(partner); }));
}

TEST_F(OrderOfEvents, PartnerAnnouncedWhileAnotherIsBoundIsNotFound) {
    StartChannel();
    Connect(partner, *channel);
    TestPartner second;
    StartPartner(second);
    Settle(second);
    ExpectBound(*channel, partner.UniqueName());
    partner.Leave();
    ASSERT_TRUE(IterateUntil([&] { return Unbound(); }));
    Settle(second);
    ExpectUnbound(*channel);
    EXPECT_FALSE(second.IsReady());

    second.Open();
    EXPECT_TRUE(IterateUntil([&] { return BothReady(second); }));
}

TEST_F(OrderOfEvents, TwoListeningPartnersTakeOneAnswer) {
    StartChannel();
    TestPartner second;
    second.Join();
    StartPartner(partner);
    ASSERT_TRUE(IterateUntil([&] { return BothReady(partner) && second.IsReady(); }));
    EXPECT_EQ(partner.BoundTo(), OwnName());
    EXPECT_EQ(second.BoundTo(), OwnName());
    Settle(second);
    ExpectBound(*channel, partner.UniqueName());
}

TEST_F(OrderOfEvents, AckOfOtherProcessMakesReadyInItsName) {
    StartChannel();
    partner.Join();
    partner.Announce(HandshakeStage::Syn);
    other->Pulse(kPartnersAck);
    ASSERT_TRUE(IterateUntil([&] { return channel->ReadyCalls().size() == 2; }));
    EXPECT_THAT(channel->ReadyCalls(),
                ElementsAre(Pair(true, other->UniqueName()), Pair(true, partner.UniqueName())));
    ExpectBound(*channel, partner.UniqueName());
}

TEST_F(OrderOfEvents, RepeatedSynAckTakesReadinessBackWithoutLoss) {
    StartChannel();
    gio_calls::Fail(kSynAckRequest);
    HeldThread resend(kPassBegins);
    StartPartner(partner);
    ASSERT_TRUE(IterateUntil([&] { return Bound(); }));
    const pthread_t thread = ResendThread(*channel);
    other->Pulse(kPartnersAck);
    ASSERT_TRUE(IterateUntil([&] { return channel->IsConnectionReady(); }));
    EXPECT_EQ(partner.BoundTo(), "");  // ready, and the partner knows nothing of it

    resend.GoOn();
    ASSERT_EQ(pthread_join(thread, nullptr), 0);  // the loop does not run meanwhile
    EXPECT_FALSE(channel->IsConnectionReady());
    EXPECT_THAT(channel->ReadyCalls(), ElementsAre(Pair(true, other->UniqueName())));
    EXPECT_TRUE(IterateUntil([&] { return BothReady(partner); }));
}

}  // namespace
