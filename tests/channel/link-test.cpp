// SPDX-License-Identifier: MIT
// The direct link: when there is one, and that nothing overtakes anything when it comes.
#include <thread>

#include "tests/channel/ends.h"

namespace channel_test {
namespace {

class Link : public ChannelTest {};

TEST_F(Link, IsNotUsedWhereEitherEndDoesNotWantIt) {
    for (const bool by_client : {false, true}) {
        Options client_options;
        Options service_options;
        (by_client ? client_options : service_options).direct = false;
        Open(Way::Bus, client_options, service_options, {}, Noting(at_service));
        EXPECT_TRUE(client->Request({}));
        EXPECT_TRUE(client->Request({})) << "behind the answer to an offer";
        EXPECT_FALSE(client->IsDirect());
        EXPECT_FALSE(service->IsDirect());
        client.reset();
        service.reset();
    }
}

TEST_F(Link, IsNotUsedWhereTheBusDoesNotLetItsOfferThrough) {
    bus = nullptr;
    bus = std::make_unique<tevrol::PrivateBus>(
        "", std::string(tevrol::PrivateBus::kOpenPolicy) +
                "<policy context='mandatory'>"
                "<deny send_interface='org.ulmar.tevrol.DirectLink' send_type='method_call'/>"
                "</policy>");
    Open(Way::Bus, Options(), Options(), {}, Noting(at_service));
    EXPECT_TRUE(client->Request({}));
    EXPECT_TRUE(client->Request({}));
    EXPECT_FALSE(client->IsDirect());
}

// Both ends send without a pause while the link comes up.
TEST_F(Link, KeepsTheOrderAsItComesUp) {
    for (int round = 0; round < 50; ++round) {
        Events to_client;
        Events to_service;
        constexpr int kCount = 300;
        const auto send = [](Channel& channel) {
            for (int i = 0; i < kCount; ++i) {
                const std::string text = std::to_string(i);
                if (i % 10 == 0) {
                    EXPECT_TRUE(channel.Request(ToBytes(text)));
                } else {
                    EXPECT_FALSE(channel.Notify(ToBytes(text)));
                }
            }
        };
        Handlers for_client = Noting(to_client);
        Handlers for_service = Noting(to_service);
        for (auto* handlers : {&for_client, &for_service}) {
            Events& events = handlers == &for_client ? to_client : to_service;
            handlers->request = [&events](const Bytes& bytes) {
                events.Add("n" + Text(bytes));
                return bytes;
            };
            handlers->notification = [&events](const Bytes& bytes) {
                events.Add("n" + Text(bytes));
            };
        }
        Channel the_service("demo", Role::Service, for_service);
        Channel the_client("demo", Role::Client, for_client);
        std::thread from_service([&] {
            ASSERT_TRUE(the_service.WaitReady(kLong));
            send(the_service);
        });
        ASSERT_TRUE(the_client.WaitReady(kLong));
        send(the_client);
        from_service.join();
        for (Events* events : {&to_client, &to_service}) {
            ASSERT_TRUE(events->Await("n", kCount));
            const auto all = events->All();
            for (int i = 0; i < kCount; ++i) {
                ASSERT_EQ(all[static_cast<std::size_t>(i) + 1], "n" + std::to_string(i)) << round;
            }
        }
        EXPECT_TRUE(the_client.IsDirect());
    }
}

TEST_F(Link, IsReadAsSoonAsItIsThere) {
    // What comes first may arrive together with the end of the link's set-up. The announcement that
    // an end repeats would find it, much later.
    constexpr int kRounds = 20;
    int at_once = 0;
    for (int round = 0; round < kRounds; ++round) {
        const Channel the_service("demo", Role::Service, Noting(at_service));
        Channel the_client("demo", Role::Client);
        ASSERT_TRUE(the_client.WaitReady(kLong));
        at_once += the_client.Request({}, 600ms) ? 1 : 0;
    }
    EXPECT_GE(at_once, kRounds - 2) << "the others may have met with a busy machine";
}

TEST_F(Link, AnswersWhatWasAskedByTheBus) {
    // The service asks before it has the link, and the answer comes after.
    std::promise<void> may_answer;
    std::shared_future<void> answer = may_answer.get_future().share();
    Handlers for_client;
    for_client.request_later = [&](const Bytes& request, const tevrol::Answer& reply) {
        std::thread([&, request, reply] {
            answer.wait();
            at_client.Add("answers");
            request.empty() ? reply.Fail("no bytes") : reply(request);
        }).detach();
    };
    Handlers for_service;
    std::future<Reply> by_bus;
    std::future<Reply> failed;
    for_service.ready = [&](const std::string&) {
        by_bus = service->RequestLater(ToBytes("early"));
        failed = service->RequestLater({});
        at_service.Add("asked");
    };
    Options options;
    options.queued = 4000;
    service = std::make_unique<Channel>("demo", Role::Service, for_service, options);
    client = std::make_unique<Channel>("demo", Role::Client, for_client);
    ASSERT_TRUE(at_service.Await("asked"));
    ASSERT_TRUE(Await([&] { return client->IsDirect() && service->IsDirect(); }));
    may_answer.set_value();
    EXPECT_EQ(Text(by_bus.get().payload), "early");
    const Reply reply = failed.get();
    EXPECT_EQ(reply.error, Error::Failed);
    EXPECT_EQ(reply.text, "no bytes");
    ASSERT_TRUE(at_client.Await("answers", 2));
    EXPECT_FALSE(service->Notify(Bytes(100000))) << "nothing waits that was answered";
}

}  // namespace
}  // namespace channel_test
