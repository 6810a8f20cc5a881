// SPDX-License-Identifier: MIT
// Every end with every other, in every order of starting.
#include <thread>

#include "tests/channel/ends.h"

namespace channel_test {
namespace {

class Pairs : public ChannelTest {
protected:
    // A client as it exists already; it prints "ready: NAME".
    static std::unique_ptr<tevrol::PartnerProcess> ExampleClient() {
        return std::make_unique<tevrol::PartnerProcess>(
            std::vector<std::string>{TEVROL_EXAMPLE_PROGRAM});
    }
    // A service as it exists already; it prints "ready NAME".
    static std::unique_ptr<tevrol::PartnerProcess> ExampleService() {
        return std::make_unique<tevrol::PartnerProcess>(TEVROL_PARTNER_PROGRAM, "demo");
    }
    static bool IsReady(const tevrol::PartnerProcess& process) {
        return process.Find("ready").has_value();
    }
};

TEST_F(Pairs, AServiceFindsAClientThatExistsAlready) {
    {
        const auto other = ExampleClient();
        Channel end("demo", Role::Service, Noting(at_service));
        EXPECT_TRUE(end.WaitReady(kLong));
        EXPECT_TRUE(Await([&] { return IsReady(*other); }));
        EXPECT_EQ(Text(end.Request(ToBytes("stressed")).payload), "desserts");
        EXPECT_TRUE(at_service.Await("notification hello"));
    }
    Channel end("demo", Role::Service, Noting(at_service));
    const auto other = ExampleClient();
    EXPECT_TRUE(end.WaitReady(kLong));
    EXPECT_TRUE(Await([&] { return IsReady(*other); }));
    EXPECT_FALSE(end.IsDirect());
}

TEST_F(Pairs, AClientFindsAServiceThatExistsAlready) {
    {
        const auto other = ExampleService();
        ASSERT_TRUE(Await([&] { return other->Find("announced SYN").has_value(); }));
        Channel end("demo", Role::Client, Noting(at_client));
        EXPECT_TRUE(end.WaitReady(kLong));
        EXPECT_TRUE(Await([&] { return IsReady(*other); }));
        EXPECT_EQ(Text(end.Request(ToBytes("echo")).payload), "echo");
        other->Command("notify hello");
        EXPECT_TRUE(at_client.Await("notification hello"));
        EXPECT_FALSE(end.IsDirect());
    }
    Channel end("demo", Role::Client, Noting(at_client));
    const auto other = ExampleService();
    EXPECT_TRUE(end.WaitReady(kLong));
    EXPECT_TRUE(Await([&] { return IsReady(*other); }));
}

TEST_F(Pairs, AreReadyHoweverTheyStartTogether) {
    for (int i = 0; i < 50; ++i) {
        const auto other_client = ExampleClient();
        Channel a_service("demo", Role::Service);
        EXPECT_TRUE(a_service.WaitReady(kLong)) << i;
        EXPECT_TRUE(Await([&] { return IsReady(*other_client); })) << i;
    }
    for (int i = 0; i < 50; ++i) {
        const auto other_service = ExampleService();
        Channel a_client("demo", Role::Client);
        EXPECT_TRUE(a_client.WaitReady(kLong)) << i;
        EXPECT_TRUE(Await([&] { return IsReady(*other_service); })) << i;
    }
    for (int i = 0; i < 50; ++i) {
        std::optional<Channel> a_client;
        std::thread starting([&] { a_client.emplace("demo", Role::Client); });
        Channel a_service("demo", Role::Service);
        starting.join();
        EXPECT_TRUE(a_service.WaitReady(kLong)) << i;
        EXPECT_TRUE(a_client->WaitReady(kLong)) << i;
    }
}

TEST_F(Pairs, OfDifferentNamesDoNotMeet) {
    Channel one("one", Role::Service);
    Channel two("two", Role::Client);
    Channel same("one", Role::Client);
    EXPECT_TRUE(one.WaitReady(kLong));
    EXPECT_FALSE(two.IsReady());
}

TEST_F(Pairs, OfTheSameRoleDoNotMeet) {
    Channel one("demo", Role::Service);
    Channel two("demo", Role::Service);
    EXPECT_FALSE(one.WaitReady(200ms));
    EXPECT_FALSE(two.IsReady());
}

}  // namespace
}  // namespace channel_test
