// SPDX-License-Identifier: MIT
// tevrolctl's channel end while it loses its partner: requests that are on their way or wait.
#include <gtest/gtest.h>

#include <condition_variable>
#include <future>
#include <mutex>
#include <optional>
#include <string>
#include <thread>
#include <vector>

#include "devkit/loop.h"
#include "devkit/partner.h"
#include "devkit/private-bus.h"
#include "devkit/thread-safety.h"
#include "programs/common/bus.h"
#include "programs/tevrolctl/bus/channel-end.h"
#include "tests/support/gio-calls.h"

namespace {

using programs::ChannelEnd;
using programs::Outcome;
using tevrol::Bytes;
using tevrol::IterateUntil;

class ChannelEndLoss : public testing::Test {
protected:
    ChannelEndLoss() {
        programs::SystemBus();
        end = new ChannelEnd("demo",
                             {[](const Bytes& request) { return request; }, [](const Bytes&) {},
                              [this](bool ready, const std::string&) { OnReady(ready); }});
        partner.Join();
        partner.Open();
        EXPECT_TRUE(IterateUntil([&] { return end->IsConnectionReady(); }));
    }

    void OnReady(bool ready) {
        const std::lock_guard<std::mutex> lock(mutex);
        lost = !ready;
        changed.notify_all();
    }
    bool HasWaitingRequests() const {
        const tevrol::Lock lock(end->m_jobs_mutex);
        return !end->m_jobs.empty();
    }
    // The next request gets as far as its call through the proxy, and `action` runs ahead of it.
    static void InTheNextCall(std::function<void()> action) {
        gio_calls::BeforeCall(1, std::move(action));
    }

    const tevrol::PrivateBus bus;
    tevrol::Partner partner{"demo"};
    ChannelEnd* end = nullptr;  // never destroyed, as its thread goes on
    std::mutex mutex;           // guards `lost`
    std::condition_variable changed;
    bool lost = false;
};

// The proxy is released behind the handler, and the request still uses it.
TEST_F(ChannelEndLoss, IsNotToldToTheApplicationBeforeTheRunningRequestIsOver) {
    std::optional<Outcome> running;
    std::optional<Outcome> waiting;
    bool told_too_early = false;
    std::promise<void> calling;
    std::promise<void> queued;
    InTheNextCall([&] {
        calling.set_value();
        queued.get_future().wait();
        partner.Leave();
        // The loss drops the requests that wait: from then on it is being handled.
        while (HasWaitingRequests()) {
            std::this_thread::yield();
        }
        // Time for a loss that does not wait for this call. One that does takes no part in it.
        std::unique_lock<std::mutex> lock(mutex);
        told_too_early =
            changed.wait_for(lock, std::chrono::milliseconds(100), [&] { return lost; });
    });
    end->Request({'1'}, [&](const Outcome& outcome) { running = outcome; });
    calling.get_future().wait();
    end->Request({'2'}, [&](const Outcome& outcome) { waiting = outcome; });
    queued.set_value();
    EXPECT_TRUE(IterateUntil([&] { return running && waiting; }));
    EXPECT_FALSE(told_too_early);
    EXPECT_TRUE(lost);
    EXPECT_FALSE(running->ok);
    EXPECT_FALSE(waiting->ok);
    EXPECT_EQ(waiting->error, "the partner is gone");
}

TEST_F(ChannelEndLoss, LeavesNoRequestForTheNextPartner) {
    InTheNextCall([&] { partner.Leave(); });
    std::vector<std::string> errors;
    for (int i = 0; i < 3; ++i) {
        end->Request({'x'}, [&](const Outcome& outcome) { errors.push_back(outcome.error); });
    }
    EXPECT_TRUE(IterateUntil([&] { return errors.size() == 3; }));
    std::vector<Bytes> requests;
    tevrol::Partner next("demo", {[&](const Bytes& request) {
                                      requests.push_back(request);
                                      return request;
                                  },
                                  {}});
    next.Join();
    next.Open();
    EXPECT_TRUE(IterateUntil([&] { return end->IsConnectionReady(); }));
    std::optional<Outcome> outcome;
    end->Request({'y'}, [&](const Outcome& result) { outcome = result; });
    EXPECT_TRUE(IterateUntil([&] { return outcome.has_value(); }));
    EXPECT_EQ(outcome->reply, Bytes{'y'});
    EXPECT_EQ(requests, std::vector<Bytes>{{'y'}});
}

// The library logs nothing for the second: its log still ends with the first one's reply.
TEST_F(ChannelEndLoss, AnEarlierReplyIsNotTheNextRequests) {
    std::vector<Outcome> outcomes;
    const auto keep = [&](const Outcome& outcome) { outcomes.push_back(outcome); };
    end->Request({'1'}, keep);
    EXPECT_TRUE(IterateUntil([&] { return outcomes.size() == 1; }));
    partner.Leave();
    EXPECT_TRUE(IterateUntil([&] { return !end->IsConnectionReady(); }));
    end->Request({'2'}, keep);
    EXPECT_TRUE(IterateUntil([&] { return outcomes.size() == 2; }));
    EXPECT_TRUE(outcomes.at(0).ok);
    EXPECT_FALSE(outcomes.at(1).ok);
    EXPECT_EQ(outcomes.at(1).error, "no connection to the partner");
}

TEST_F(ChannelEndLoss, RequestsAreSentOneAfterTheOtherInOrder) {
    std::vector<char> replies;
    for (char name = 'a'; name < 'k'; ++name) {
        end->Request({name}, [&](const Outcome& outcome) {
            EXPECT_TRUE(outcome.ok);
            EXPECT_GT(outcome.duration, 0);
            replies.push_back(outcome.reply.at(0));
        });
    }
    EXPECT_TRUE(IterateUntil([&] { return replies.size() == 10; }));
    EXPECT_EQ(std::string(replies.begin(), replies.end()), "abcdefghij");
}

}  // namespace
