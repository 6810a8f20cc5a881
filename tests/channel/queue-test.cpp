// SPDX-License-Identifier: MIT
// What the partner does not take is kept up to a limit, and no more.
#include <atomic>
#include <csignal>

#include "tests/channel/ends.h"

namespace channel_test {
namespace {

class Queue : public ChannelByWay {
protected:
    // An end whose partner is stopped, and which takes 1 MiB for it.
    void OpenWithStoppedPartner() {
        Options options = Over(GetParam());
        options.queued = 1 << 20;
        partner = std::make_unique<EndProcess>(Role::Service, options.direct);
        sender = std::make_unique<Channel>("demo", Role::Client, Handlers(), options);
        ASSERT_TRUE(sender->WaitReady(kLong));
        ASSERT_TRUE(Await([&] { return sender->IsDirect() == options.direct; }));
        partner->Stop();
    }

    // Until the partner has taken all that was sent before.
    void GoOn() {
        partner->Signal(SIGCONT);
        ASSERT_TRUE(Await([&] { return !sender->Notify(ToBytes("last")); }));
        ASSERT_TRUE(partner->AwaitLine("notification last"));
    }

    std::unique_ptr<EndProcess> partner;
    std::unique_ptr<Channel> sender;
};
INSTANTIATE_TEST_SUITE_P(, Queue, testing::Values(Way::Bus, Way::Link), Name);

TEST_P(Queue, IsFullWhenAStoppedPartnerTakesNothingAndLosesNothing) {
    ASSERT_NO_FATAL_FAILURE(OpenWithStoppedPartner());
    int sent = 0;
    std::error_code error;
    const std::string padding(10000, '.');
    while (!(error = sender->Notify(ToBytes(std::to_string(sent) + padding))) && sent < 100000) {
        ++sent;
    }
    EXPECT_EQ(error, Error::Full);
    EXPECT_GT(sent, 50) << "about as many as fit";
    EXPECT_EQ(sender->RequestLater(Bytes(1 << 20)).get().error, Error::Full);
    ASSERT_NO_FATAL_FAILURE(GoOn());
    const auto lines = partner->Lines();
    int next = 0;
    for (const std::string& line : lines) {
        if (line.rfind("notification ", 0) == 0 && line != "notification last") {
            ASSERT_EQ(line, "notification " + std::to_string(next) + padding);
            ++next;
        }
    }
    EXPECT_EQ(next, sent);
}

TEST_P(Queue, ForgetsARequestThatTimesOutInIt) {
    ASSERT_NO_FATAL_FAILURE(OpenWithStoppedPartner());
    while (!sender->Notify(Bytes(100000, '.'))) {
    }
    // All together they are more than the queue takes, if they were kept.
    const Bytes forgotten = ToBytes("forgotten" + std::string(100000, '.'));
    for (int i = 0; i < 20; ++i) {
        EXPECT_EQ(sender->Request(forgotten, 1ms).error, Error::TimedOut);
    }
    ASSERT_NO_FATAL_FAILURE(GoOn());
    EXPECT_EQ(partner->Count("request forgotten"), 0U);
}

TEST_P(Queue, OfOneMessageTakesAnySizeThatMayBeSent) {
    Options options = Over(GetParam());
    options.queued = 1000;
    Open(GetParam(), options, Over(GetParam()), {}, Noting(at_service));
    EXPECT_TRUE(client->Request(Bytes(100000)));
    EXPECT_FALSE(client->Notify(Bytes(100000)));
    EXPECT_TRUE(at_service.Await("notification"));
}

TEST_P(Queue, IsFlushedBeforeTheProcessEnds) {
    Options options = Over(GetParam());
    EndProcess process(Role::Service, options.direct);
    {
        Channel end("demo", Role::Client, {}, options);
        EXPECT_TRUE(end.Flush(0ms)) << "nothing was sent";
        ASSERT_TRUE(end.WaitReady(kLong));
        ASSERT_TRUE(Await([&] { return end.IsDirect() == options.direct; }));
        process.Stop();
        const Bytes large(31 << 20, '.');
        ASSERT_FALSE(end.Notify(large));
        ASSERT_FALSE(end.Notify(ToBytes("last")));
        if (options.direct) {
            EXPECT_FALSE(end.Flush(10ms)) << "more than the socket holds";
        }
        process.Signal(SIGCONT);
        EXPECT_TRUE(end.Flush(kLong));
    }
    EXPECT_TRUE(process.AwaitLine("notification last"));
}

TEST_P(Queue, OfAnEndWhoseHandlerIsBusyDoesNotGrow) {
    // The handler holds on to the first notification; the partner gets no more through than both
    // ends keep, and all of it arrives in the end.
    std::promise<void> go_on;
    std::shared_future<void> may_go_on = go_on.get_future().share();
    std::atomic<std::size_t> handled{0};
    Handlers handlers;
    handlers.notification = [&](const Bytes&) {
        may_go_on.wait();
        ++handled;
    };
    Options options = Over(GetParam());
    options.queued = 1 << 20;
    Open(GetParam(), options, options, {}, handlers);
    std::size_t sent = 0;
    bool full = false;
    while (!full && sent < 100000) {
        const auto error = client->Notify(Bytes(10000));
        full = error == Error::Full && !Await([&] { return !client->Notify(Bytes(10000)); }, 200ms);
        sent += error && full ? 0 : 1;
    }
    EXPECT_TRUE(full);
    EXPECT_LT(sent, 2000U);
    go_on.set_value();
    ASSERT_TRUE(Await([&] { return handled == sent; }));
    service.reset();
}

}  // namespace
}  // namespace channel_test
