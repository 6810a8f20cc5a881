// What the model of the handshake says can happen, on a real bus: each run of events that
// docs/ordering.md draws, made to happen, and what an application does about it.
#include <future>
#include <optional>

#include "tests/support/channel-test.h"
#include "tests/support/gio-calls.h"
#include "tests/support/handshake.h"

namespace {

using testing::ElementsAre;
using testing::Pair;
using Moment = PartnerFaults::Moment;

constexpr const char* kSynAckRequest =
    "g_dbus_connection_call_sync RequestName org.ulmar.Tevrol.demo_CLIENT_SYN_ACK";

class OrderOfEvents : public ChannelTest {
protected:
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

    // What a process that is no partner, and listens to nothing, does with a name of the channel.
    void Acquire(const std::string& name) const {
        g_variant_unref(CallDriver(other.get(), "RequestName",
                                   g_variant_new("(su)", (kBase + name).c_str(), 0U)));
    }
    void Release(const std::string& name) const {
        g_variant_unref(
            CallDriver(other.get(), "ReleaseName", g_variant_new("(s)", (kBase + name).c_str())));
    }
    std::string AnnounceAck() const {
        Acquire("_SERVICE_ACK");
        Release("_SERVICE_ACK");
        return g_dbus_connection_get_unique_name(other.get());
    }

    const std::string kBase = "org.ulmar.Tevrol.demo";
    std::optional<TestChannel> channel;
    TestPartner partner;
    const Connection other = OpenConnection(bus.Address());
};

TEST_F(OrderOfEvents, EndsThatStartAtTheSameMomentStayBoundAndUnready) {
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

TEST_F(OrderOfEvents, EndWhoseFirstSynIsRefusedIsNotFoundByARunningPartner) {
    partner.Join();
    Acquire("_CLIENT_SYN");
    StartChannel();
    EXPECT_THAT(Errors(),
                ElementsAre(Error("BroadcastName", "Cannot own name due to return code = 3\n\n")));
    Settle(partner);
    ExpectUnbound(*channel);
    EXPECT_EQ(partner.BoundTo(), "");

    partner.Open();
    EXPECT_TRUE(IterateUntil([&] { return BothReady(partner); }));
}

TEST_F(OrderOfEvents, PartnerWhoseSynIsRefusedIsNotFound) {
    StartChannel();
    Acquire("_SERVICE_SYN");
    StartPartner(partner);
    Settle(partner);
    EXPECT_FALSE(partner.Saw("announced SYN"));
    ExpectUnbound(*channel);
    EXPECT_EQ(partner.BoundTo(), "");
}

TEST_F(OrderOfEvents, EndWhoseAnswerIsRefusedForEverStaysBoundAndUnready) {
    StartChannel();
    constexpr int kPasses = 3;
    gio_calls::Fail(kSynAckRequest, 1 + kPasses);
    gio_calls::Clear();
    StartPartner(partner);
    ASSERT_TRUE(IterateUntil([&] { return AnnouncedNames().size() == 1 + kPasses; }));
    ExpectBound(*channel, partner.UniqueName());
    EXPECT_FALSE(channel->IsConnectionReady());
    EXPECT_FALSE(partner.IsReady());

    EXPECT_TRUE(IterateUntil([&] { return BothReady(partner); }));
}

TEST_F(OrderOfEvents, ProcessThatGivesBackANameOfThisEndIsTakenForIt) {
    StartChannel();
    Acquire("_CLIENT_SYN_ACK");
    StartPartner(partner);
    ASSERT_TRUE(IterateUntil([&] { return Bound(); }));
    const std::string holder = g_dbus_connection_get_unique_name(other.get());
    Release("_CLIENT_SYN_ACK");
    ASSERT_TRUE(IterateUntil([&] { return channel->IsConnectionReady() && partner.IsReady(); }));
    EXPECT_EQ(partner.BoundTo(), holder);

    // It must own no name of a channel that it is no end of. When it ends, so does the confusion.
    ASSERT_NE(g_dbus_connection_close_sync(other.get(), nullptr, nullptr), FALSE);
    ASSERT_TRUE(IterateUntil([&] { return partner.Saw("lost " + holder); }));
    partner.Leave();
    ASSERT_TRUE(IterateUntil([&] { return Unbound(); }));
    StartPartner(partner);
    EXPECT_TRUE(IterateUntil([&] { return BothReady(partner); }));
}

TEST_F(OrderOfEvents, PartnerThatDiesWithItsSynIsBoundAndThenLostWithoutHavingBeenReady) {
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

TEST_F(OrderOfEvents, PartnerThatRestartsBeforeItsLossIsDispatchedIsReadyAlone) {
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

TEST_F(OrderOfEvents, AnnouncementRefusedAsTheResendThreadEndsIsNotRepeated) {
    std::promise<void> ending;
    std::promise<void> may_end;
    StartChannel();
    OnLogLine([&](const LogLine& line) {
        if (line.message == "Finished timer thread\n") {
            ending.set_value();
            may_end.get_future().wait();
        }
    });
    gio_calls::Fail(kSynAckRequest, 2);
    StartPartner(partner);
    ASSERT_TRUE(IterateUntil([&] { return Bound(); }));
    partner.Leave();
    ASSERT_TRUE(IterateUntil([&] { return Unbound(); }));
    ending.get_future().wait();  // the pass has dropped what was owed to the lost partner

    StartPartner(partner);
    ASSERT_TRUE(IterateUntil([&] { return Bound() && !Owed(*channel).empty(); }));
    may_end.set_value();
    ASSERT_TRUE(IterateUntil([&] { return ResendThread(*channel) == 0; }));
    Settle(partner);
    EXPECT_THAT(Owed(*channel), ElementsAre(Pair(partner.UniqueName(), "_SYN_ACK")));
    EXPECT_FALSE(channel->IsConnectionReady());

    partner.Leave();
    ASSERT_TRUE(IterateUntil([&] { return Unbound(); }));
    StartPartner(partner);
    EXPECT_TRUE(IterateUntil([&] { return BothReady(partner); }));
}

TEST_F(OrderOfEvents, SecondPartnerThatAnnouncedItselfWhileAnotherWasBoundIsNotFound) {
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

TEST_F(OrderOfEvents, TwoPartnersThatListenBothTakeOneAnswerForTheirs) {
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

TEST_F(OrderOfEvents, AckOfAnotherProcessMakesReadyWithItsNameOneThatIsBoundToAPartner) {
    StartChannel();
    partner.Join();
    partner.Announce(HandshakeStage::Syn);
    const std::string name = AnnounceAck();
    ASSERT_TRUE(IterateUntil([&] { return channel->ReadyCalls().size() == 2; }));
    EXPECT_THAT(channel->ReadyCalls(),
                ElementsAre(Pair(true, name), Pair(true, partner.UniqueName())));
    ExpectBound(*channel, partner.UniqueName());
}

TEST_F(OrderOfEvents, ReadyByAnotherProcessIsTakenBackByTheRepeatedSynAckWithoutALoss) {
    StartChannel();
    gio_calls::Fail(kSynAckRequest);
    StartPartner(partner);
    ASSERT_TRUE(IterateUntil([&] { return Bound(); }));
    const pthread_t thread = ResendThread(*channel);
    const std::string name = AnnounceAck();
    ASSERT_TRUE(IterateUntil([&] { return channel->IsConnectionReady(); }));
    EXPECT_EQ(partner.BoundTo(), "");  // ready, and the partner knows nothing of it

    ASSERT_EQ(pthread_join(thread, nullptr), 0);  // the loop does not run meanwhile
    EXPECT_FALSE(channel->IsConnectionReady());
    EXPECT_THAT(channel->ReadyCalls(), ElementsAre(Pair(true, name)));
    EXPECT_TRUE(IterateUntil([&] { return BothReady(partner); }));
}

}  // namespace
