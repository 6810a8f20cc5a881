// SPDX-License-Identifier: MIT
// The bus goes away, comes back, stops, and refuses.
#include <csignal>
#include <thread>

#include "tests/channel/ends.h"

namespace channel_test {
namespace {

class ChannelBus : public ChannelByWay {};
INSTANTIATE_TEST_SUITE_P(, ChannelBus, testing::Values(Way::Bus, Way::Link), Name);

TEST(WithoutABus, AChannelSaysSo) {
    Options options;
    options.address = "unix:path=/nonexistent/bus";
    Channel channel("demo", Role::Client, {}, options);
    EXPECT_EQ(channel.Request({}).error, Error::NoBus);
    EXPECT_EQ(channel.Notify({}), Error::NoBus);
    EXPECT_EQ(channel.RequestLater({}).get().error, Error::NoBus);
    EXPECT_FALSE(channel.WaitReady(10ms));
    EXPECT_EQ(channel.Partner(), "");
}

TEST_P(ChannelBus, MayDieAndComeBack) {
    Open(GetParam(), Noting(at_client), Noting(at_service));
    const std::string address = bus->Address();
    for (std::size_t round = 1; round <= 3; ++round) {
        bus->Kill();
        ASSERT_TRUE(at_client.Await("lost", round));
        ASSERT_TRUE(at_service.Await("lost", round));
        // The loss may have come by the link, before the end of the bus.
        EXPECT_TRUE(Await([&] { return client->Request({}).error == Error::NoBus; }));
        bus = nullptr;
        bus = std::make_unique<tevrol::PrivateBus>();  // DBUS_SYSTEM_BUS_ADDRESS names the new one
        ASSERT_TRUE(client->WaitReady(kLong));
        ASSERT_TRUE(service->WaitReady(kLong));
        EXPECT_TRUE(client->Request(ToBytes("again")));
    }
}

TEST_P(ChannelBus, ThatDiesEndsTheRequestAtOnce) {
    Open(GetParam(), {}, KeepingRequests(at_service));
    std::thread killing([&] {
        ASSERT_TRUE(at_service.Await("asked"));
        bus->Kill();
    });
    const Reply reply = client->Request({}, kLong);
    EXPECT_TRUE(reply.error == Error::NoBus || reply.error == Error::PartnerLost)
        << reply.error.message();
    killing.join();
}

TEST_P(ChannelBus, MayStop) {
    Open(GetParam(), Noting(at_client), Noting(at_service));
    bus->Stop();
    if (GetParam() == Way::Link) {
        EXPECT_TRUE(client->Request(ToBytes("no need of it")));
    } else {
        EXPECT_EQ(client->Request({}, 20ms).error, Error::TimedOut);
    }
    Channel another("another", Role::Client);  // does not wait for it, nor does its end
    bus->Signal(SIGCONT);
    EXPECT_TRUE(client->Request(ToBytes("again")));
}

TEST_F(ChannelTest, BindsNobodyWhoseLossTheBusDoesNotReport) {
    bus = nullptr;
    // Three rules for the names, and none for the partner.
    bus = std::make_unique<tevrol::PrivateBus>(
        "<limit name='max_match_rules_per_connection'>3</limit>");
    service = std::make_unique<Channel>("demo", Role::Service, Noting(at_service));
    client = std::make_unique<Channel>("demo", Role::Client, Noting(at_client));
    EXPECT_FALSE(client->WaitReady(500ms));
    EXPECT_EQ(client->Request({}).error, Error::NotReady);
    EXPECT_TRUE(at_client.All().empty());
}

TEST_F(ChannelTest, ComesBackAfterAMessageThatTheBusDoesNotCarry) {
    bus = nullptr;
    bus = std::make_unique<tevrol::PrivateBus>("<limit name='max_message_size'>100000</limit>");
    Open(Way::Bus, Noting(at_client), Noting(at_service));
    const Reply reply = client->Request(Bytes(200000));
    EXPECT_TRUE(reply.error == Error::NoBus || reply.error == Error::PartnerLost)
        << reply.error.message();
    EXPECT_TRUE(at_client.Await("lost"));
    EXPECT_TRUE(at_service.Await("lost"));
    EXPECT_TRUE(Await([&] { return client->Request(Bytes(1000)).operator bool(); }));
}

TEST_F(ChannelTest, KeepsNoRuleOfAPartnerThatIsLost) {
    bus = nullptr;
    // Three rules for the names, and one for the partner.
    bus = std::make_unique<tevrol::PrivateBus>(
        "<limit name='max_match_rules_per_connection'>4</limit>");
    client = std::make_unique<Channel>("demo", Role::Client);
    for (int i = 0; i < 3; ++i) {
        service = std::make_unique<Channel>("demo", Role::Service, Noting(at_service));
        ASSERT_TRUE(client->WaitReady(kLong));
        EXPECT_TRUE(client->Request({}));
        service = nullptr;
        ASSERT_TRUE(Await([&] { return !client->IsReady(); }));
    }
}

}  // namespace
}  // namespace channel_test
