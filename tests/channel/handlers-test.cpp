// SPDX-License-Identifier: MIT
// Who calls the handlers, when, and in which order.
#include <atomic>
#include <condition_variable>
#include <deque>
#include <thread>

#include "tests/channel/ends.h"

namespace channel_test {
namespace {

// An application's loop: runs what it is handed, on a thread of its own.
class Loop {
public:
    ~Loop() {
        Post({});
        m_thread.join();
    }
    void Post(std::function<void()> task) {
        const std::lock_guard<std::mutex> lock(m_mutex);
        m_tasks.push_back(std::move(task));
        m_posted.notify_one();
    }
    std::thread::id Id() const {
        return m_thread.get_id();
    }
    // Runs a task on the loop and waits for it.
    void Do(const std::function<void()>& task) {
        std::promise<void> done;
        Post([&] {
            task();
            done.set_value();
        });
        done.get_future().wait();
    }

private:
    void Run() {
        for (;;) {
            std::unique_lock<std::mutex> lock(m_mutex);
            m_posted.wait(lock, [this] { return !m_tasks.empty(); });
            const std::function<void()> task = std::move(m_tasks.front());
            m_tasks.pop_front();
            lock.unlock();
            if (!task) {
                return;
            }
            task();
        }
    }

    std::mutex m_mutex;
    std::condition_variable m_posted;
    std::deque<std::function<void()>> m_tasks;
    std::thread m_thread{[this] { Run(); }};
};

class ChannelHandlers : public ChannelByWay {};
INSTANTIATE_TEST_SUITE_P(, ChannelHandlers, testing::Values(Way::Bus, Way::Link), Name);

TEST_P(ChannelHandlers, RunOneAtATimeAndInOrder) {
    std::atomic<int> running{0};
    std::atomic<bool> overlapped{false};
    Handlers handlers = Noting(at_service);
    handlers.notification = [&](const Bytes& notification) {
        overlapped = overlapped || ++running > 1;
        at_service.Add(Text(notification));
        --running;
    };
    Open(GetParam(), {}, handlers);
    constexpr int kCount = 2000;
    for (int i = 0; i < kCount; ++i) {
        ASSERT_FALSE(client->Notify(ToBytes("n" + std::to_string(i))));
    }
    ASSERT_TRUE(at_service.Await("n", kCount));
    EXPECT_FALSE(overlapped);
    const auto events = at_service.All();
    for (int i = 0; i < kCount; ++i) {
        ASSERT_EQ(events[static_cast<std::size_t>(i) + 1], "n" + std::to_string(i));
    }
}

TEST_P(ChannelHandlers, SeeANotificationBeforeTheReplyThatFollowsIt) {
    Handlers for_service;
    for_service.request = [&](const Bytes& request) {
        service->Notify(request);
        return request;
    };
    Open(GetParam(), Noting(at_client), for_service);
    for (int i = 0; i < 200; ++i) {
        const std::string text = std::to_string(i);
        client->RequestLater(ToBytes(text), [&](const Reply& reply) {
            at_client.Add("reply " + Text(reply.payload));
        });
    }
    ASSERT_TRUE(at_client.Await("reply", 200));
    const auto events = at_client.All();
    for (std::size_t i = 0; i < 200; ++i) {
        EXPECT_EQ(events[1 + 2 * i], "notification " + std::to_string(i));
        EXPECT_EQ(events[2 + 2 * i], "reply " + std::to_string(i));
    }
}

TEST_P(ChannelHandlers, ThatThrowDoNotEndTheProcess) {
    Handlers handlers = Noting(at_service);
    handlers.notification = [&](const Bytes& notification) {
        at_service.Add("notification");
        if (notification.empty()) {
            throw 1;  // NOLINT(hicpp-exception-baseclass)
        }
        throw std::runtime_error("no use for it");
    };
    Open(GetParam(), {}, handlers);
    EXPECT_FALSE(client->Notify({}));
    EXPECT_FALSE(client->Notify(ToBytes("x")));
    EXPECT_TRUE(client->Request(ToBytes("still there")));
    EXPECT_EQ(at_service.Count("notification"), 2U);
}

TEST_P(ChannelHandlers, AreCalledByTheApplicationsLoopWhereItHasOne) {
    Loop loop;
    std::vector<std::thread::id> callers;
    const auto note = [&] {
        const std::lock_guard<std::mutex> lock(mutex);
        callers.push_back(std::this_thread::get_id());
    };
    Handlers handlers = Noting(at_service);
    handlers.request = [&](const Bytes& request) {
        note();
        return request;
    };
    handlers.notification = [&](const Bytes&) { note(); };
    handlers.ready = [&](const std::string&) { note(); };
    Options options = Over(GetParam());
    options.run = [&](std::function<void()> task) { loop.Post(std::move(task)); };
    Open(GetParam(), Over(GetParam()), options, Noting(at_client), handlers);
    EXPECT_FALSE(client->Notify({}));
    EXPECT_TRUE(client->Request({}));
    std::promise<Reply> outcome;
    service->RequestLater(ToBytes("x"), [&](const Reply& reply) {
        note();
        outcome.set_value(reply);
    });
    EXPECT_TRUE(outcome.get_future().get());
    EXPECT_EQ(callers, std::vector<std::thread::id>(4, loop.Id()));
    service.reset();
}

TEST_P(ChannelHandlers, AreHandedOverAgainWhenTheLoopDoesNotTakeThem) {
    Loop loop;
    std::atomic<int> refusals{2};
    Options options = Over(GetParam());
    options.run = [&](std::function<void()> task) {
        if (refusals == 2 && refusals-- > 0) {
            throw std::runtime_error("the loop has not begun");
        }
        if (refusals == 1 && refusals-- > 0) {
            throw 1;
        }
        loop.Post(std::move(task));
    };
    Open(GetParam(), Over(GetParam()), options, {}, Noting(at_service));
    ASSERT_TRUE(Await([&] { return client->Request(ToBytes("x"), 1s) && refusals == 0; }));
    EXPECT_EQ(at_service.All().front(), "ready") << "nothing is lost, and all stays in order";
    service.reset();
}

TEST_P(ChannelHandlers, AreServedByALoopThatWaitsInARequest) {
    Loop loop;
    Handlers for_service;
    for_service.request = [&](const Bytes&) { return service->Request(ToBytes("back")).payload; };
    Handlers for_client;
    for_client.request = [](const Bytes& request) { return request; };
    Options options = Over(GetParam());
    options.run = [&](std::function<void()> task) { loop.Post(std::move(task)); };
    Open(GetParam(), options, Over(GetParam()), for_client, for_service);
    ASSERT_TRUE(service->Request({})) << "the loop's thread is known from its first handler on";
    Reply reply;
    loop.Do([&] { reply = client->Request(ToBytes("there")); });
    EXPECT_EQ(Text(reply.payload), "back");
    client.reset();
}

TEST_P(ChannelHandlers, MayWaitForARequestOfAnotherThread) {
    // The reply is read though the one handler does nothing but wait for it.
    Handlers for_service;
    for_service.request = [&](const Bytes& request) {
        return service->RequestLater(request).get().payload;
    };
    Open(GetParam(), Noting(at_client), for_service);
    EXPECT_EQ(Text(client->Request(ToBytes("round")).payload), "round");
}

TEST_P(ChannelHandlers, MaySendFromReadyOn) {
    Handlers for_client = Noting(at_client);
    for_client.ready = [&](const std::string& partner) {
        EXPECT_EQ(client->Partner(), partner);
        EXPECT_FALSE(client->Notify(ToBytes("hello")));
        EXPECT_TRUE(client->Request(ToBytes("there")));
        at_client.Add("greeted");
    };
    // The handler needs `client`, so it is constructed before its partner.
    client = std::make_unique<Channel>("demo", Role::Client, for_client, Over(GetParam()));
    service =
        std::make_unique<Channel>("demo", Role::Service, Noting(at_service), Over(GetParam()));
    ASSERT_TRUE(at_client.Await("greeted"));
    EXPECT_EQ(at_service.All(),
              (std::vector<std::string>{"ready", "notification hello", "request there"}));
}

}  // namespace
}  // namespace channel_test
