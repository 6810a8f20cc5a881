// SPDX-License-Identifier: MIT
// Channels end at any moment.
#include <atomic>
#include <thread>

#include "tests/channel/ends.h"

namespace channel_test {
namespace {

class Closing : public ChannelByWay {};
INSTANTIATE_TEST_SUITE_P(, Closing, testing::Values(Way::Bus, Way::Link), Name);

TEST_P(Closing, EndsTheRequestsOfOtherThreads) {
    Open(GetParam(), {}, KeepingRequests(at_service));
    std::vector<std::thread> waiting;
    for (int i = 0; i < 4; ++i) {
        waiting.emplace_back([&] { EXPECT_EQ(client->Request({}).error, Error::Closed); });
    }
    ASSERT_TRUE(at_service.Await("asked", 4));
    std::future<Reply> later = client->RequestLater({});
    Events outcome;
    client->RequestLater({}, [&](const Reply& reply) {
        EXPECT_EQ(reply.error, Error::Closed);
        outcome.Add("told");
    });
    Channel* const ending = client.get();
    std::thread closing([&] { ending->~Channel(); });
    for (std::thread& thread : waiting) {
        thread.join();
    }
    closing.join();
    ::operator delete(client.release());
    EXPECT_EQ(later.get().error, Error::Closed);
    EXPECT_EQ(outcome.Count("told"), 1U) << "before the destructor has returned";
}

TEST_P(Closing, WaitsForTheHandlerThatRuns) {
    std::atomic<bool> ended{false};
    Handlers handlers;
    handlers.notification = [&](const Bytes&) {
        at_service.Add("begun");
        std::this_thread::sleep_for(50ms);  // what is waited for
        ended = true;
    };
    Open(GetParam(), {}, handlers);
    ASSERT_FALSE(client->Notify({}));
    ASSERT_TRUE(at_service.Await("begun"));
    service.reset();
    EXPECT_TRUE(ended);
}

TEST_P(Closing, SendsNothingMoreForItsHandler) {
    Channel* end = nullptr;
    Handlers handlers;
    handlers.notification = [&](const Bytes&) {
        at_service.Add("begun");
        EXPECT_TRUE(Await([&] { return end->Notify({}) == Error::Closed; }));
        EXPECT_EQ(end->Request({}).error, Error::Closed);
    };
    Open(GetParam(), {}, handlers);
    end = service.get();
    ASSERT_FALSE(client->Notify({}));
    ASSERT_TRUE(at_service.Await("begun"));
    service.reset();
}

TEST_P(Closing, CallsNoHandlerAfterwards) {
    std::function<void()> handed_over;
    Options options = Over(GetParam());
    options.run = [&](std::function<void()> task) {
        const std::lock_guard<std::mutex> lock(mutex);
        handed_over = std::move(task);
    };
    Open(GetParam(), Over(GetParam()), options, {}, Noting(at_service));
    ASSERT_TRUE(Await([&] {
        const std::lock_guard<std::mutex> lock(mutex);
        return static_cast<bool>(handed_over);
    }));
    service.reset();
    handed_over();
    EXPECT_TRUE(at_service.All().empty());
}

TEST_P(Closing, AtAnyMomentUnderLoad) {
    Handlers echo;
    echo.request = [](const Bytes& request) { return request; };
    Channel partner("demo", Role::Service, echo, Over(GetParam()));
    for (int round = 0; round < 100; ++round) {
        auto end = std::make_unique<Channel>("demo", Role::Client, echo, Over(GetParam()));
        std::vector<std::future<Reply>> replies;
        if (round % 2 == 0) {
            ASSERT_TRUE(end->WaitReady(kLong));
        }
        for (int i = 0; i < round; ++i) {
            replies.push_back(end->RequestLater(Bytes(100)));
            partner.Notify(Bytes(10));
        }
        end.reset();
        for (auto& reply : replies) {
            reply.get();
        }
    }
}

TEST_P(Closing, DeliversWhatWasSentBefore) {
    Open(GetParam(), {}, Noting(at_service));
    for (int i = 0; i < 100; ++i) {
        ASSERT_FALSE(client->Notify(ToBytes(std::to_string(i))));
    }
    client.reset();
    ASSERT_TRUE(at_service.Await("lost"));
    EXPECT_EQ(at_service.Count("notification"), 100U);
}

TEST(ClosingDeathTest, ByItsOwnHandlerIsSaidToBeAMistake) {
    testing::GTEST_FLAG(death_test_style) = "threadsafe";
    EXPECT_DEATH(
        {
            const tevrol::PrivateBus bus;
            std::unique_ptr<Channel> end;
            Handlers handlers;
            handlers.ready = [&](const std::string&) { end.reset(); };
            end = std::make_unique<Channel>("demo", Role::Client, handlers);
            Channel partner("demo", Role::Service);
            std::this_thread::sleep_for(kLong);
        },
        "a channel is destroyed by its own handler");
}

}  // namespace
}  // namespace channel_test
