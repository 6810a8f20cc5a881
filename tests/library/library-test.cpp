// SPDX-License-Identifier: MIT
// The library as it is linked by an application, static or shared: a program that defines the log's
// function itself, as this one does (support/log.cpp), gets every line of a channel.
#include <set>

#include "tests/support/channel-test.h"

namespace {

using testing::ElementsAre;

class Library : public ChannelTest {
protected:
    // The function of each line, in order.
    static std::vector<std::string> Functions() {
        std::vector<std::string> functions;
        for (const LogLine& line : Log()) {
            functions.push_back(line.function);
        }
        return functions;
    }
};

TEST_F(Library, ProgramsLogGetsEveryLineOfConstruction) {
    const TevrolDbusRemote channel("demo");
    std::vector<std::string> lines(7, "TevrolDbusRemote");
    lines.insert(lines.end(), {"BroadcastName", "BroadcastName"});
    EXPECT_EQ(Functions(), lines);
}

TEST_F(Library, ProgramsLogGetsLinesOfEveryFunction) {
    TevrolDbusRemote channel("demo");
    TestPartner partner;
    partner.Join();
    // The whole life: a handshake whose answer is resent, messages both ways, the loss.
    ASSERT_TRUE(partner.HoldClientName(HandshakeStage::SynAck));
    partner.Open();
    ASSERT_TRUE(IterateUntil([] { return !LogOf("OnResendHandshake").empty(); }));
    ASSERT_TRUE(partner.ReleaseClientName(HandshakeStage::SynAck));
    ASSERT_TRUE(IterateUntil([&] {
        return channel.IsConnectionReady() && partner.IsReady() && !LogOf("TimerThread").empty();
    }));
    Bytes data = ToBytes("hello");
    EXPECT_EQ(channel.SendMessage(data), data);
    channel.SendNotification(data);
    EXPECT_TRUE(Await(partner.Request(data)).ok);
    partner.Notify(data);
    Settle(partner);
    partner.Leave();
    ASSERT_TRUE(IterateUntil([&] { return !channel.IsConnectionReady(); }));
    partner.Join();
    partner.Announce(HandshakeStage::SynAck);
    ASSERT_TRUE(IterateUntil([&] { return channel.IsConnectionReady(); }));

    const auto lines = Functions();
    const std::set<std::string> functions(lines.begin(), lines.end());
    EXPECT_THAT(functions, ElementsAre("BroadcastName", "HandleConnectionReady", "HandleMessage",
                                       "HandleNotification", "OnResendHandshake", "SendMessage",
                                       "SendNotification", "TevrolDbusRemote", "TimerThread",
                                       "cb_AckNameOwnerChanged", "cb_MethodCall",
                                       "cb_PartnerNameVanished", "cb_SignalCall",
                                       "cb_SynAckNameOwnerChanged", "cb_SynNameOwnerChanged"));
}

}  // namespace
