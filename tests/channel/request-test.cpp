// SPDX-License-Identifier: MIT
// Requests and their outcomes.
#include <algorithm>
#include <thread>

#include "tests/channel/ends.h"

namespace channel_test {
namespace {

using testing::HasSubstr;

class Requests : public ChannelByWay {};
INSTANTIATE_TEST_SUITE_P(, Requests, testing::Values(Way::Bus, Way::Link), Name);

TEST_P(Requests, AreAnsweredInBothDirections) {
    Open(GetParam(), Noting(at_client), Noting(at_service));
    EXPECT_EQ(Text(client->Request(ToBytes("to the service")).payload), "to the service");
    EXPECT_EQ(Text(service->Request(ToBytes("to the client")).payload), "to the client");
}

TEST_P(Requests, CarryEveryByteAndEverySize) {
    Open(GetParam(), {}, Noting(at_service));
    constexpr std::size_t kMiB = 1 << 20;
    for (const std::size_t size : {std::size_t{0}, std::size_t{1}, std::size_t{255},
                                   std::size_t{256}, std::size_t{65535}, kMiB, 5 * kMiB}) {
        Bytes payload(size);
        for (std::size_t i = 0; i < size; ++i) {
            payload[i] = static_cast<char>(i * 7);
        }
        const Reply reply = client->Request(payload);
        ASSERT_TRUE(reply) << reply.error.message();
        EXPECT_TRUE(reply.payload == payload) << size;
    }
}

TEST_P(Requests, AnEmptyReplyIsASuccess) {
    Handlers handlers;
    handlers.request = [](const Bytes&) { return Bytes(); };
    Open(GetParam(), {}, handlers);
    const Reply reply = client->Request(ToBytes("anything"));
    EXPECT_TRUE(reply);
    EXPECT_TRUE(reply.payload.empty());
}

TEST_P(Requests, WithoutAHandlerAreRefused) {
    Open(GetParam());
    EXPECT_EQ(client->Request({}).error, Error::Refused);
    EXPECT_EQ(service->Request({}).error, Error::Refused);
}

TEST_P(Requests, AHandlerThatThrowsGivesItsText) {
    Handlers handlers;
    handlers.request = [](const Bytes& request) -> Bytes {
        if (request.empty()) {
            throw 1;  // NOLINT(hicpp-exception-baseclass)
        }
        throw std::runtime_error("the valve is stuck");
    };
    Open(GetParam(), {}, handlers);
    const Reply reply = client->Request(ToBytes("open"));
    EXPECT_EQ(reply.error, Error::Failed);
    EXPECT_EQ(reply.text, "the valve is stuck");
    EXPECT_EQ(client->Request({}).error, Error::Failed);
}

TEST_P(Requests, AreAnsweredLaterFromAnotherThread) {
    std::thread answering;
    Handlers handlers;
    handlers.request_later = [&](const Bytes& request, tevrol::Answer answer) {
        answering = std::thread([request, answer] { answer(request); });
        at_service.Add("answering");
    };
    Open(GetParam(), {}, handlers);
    EXPECT_EQ(Text(client->Request(ToBytes("later")).payload), "later");
    ASSERT_TRUE(at_service.Await("answering"));
    answering.join();
}

TEST_P(Requests, OnlyTheFirstAnswerCounts) {
    Handlers handlers;
    handlers.request_later = [&](const Bytes&, const tevrol::Answer& answer) {
        answer(ToBytes("one"));
        answer(ToBytes("two"));
        answer.Fail("three");
    };
    Open(GetParam(), {}, handlers);
    EXPECT_EQ(Text(client->Request({}).payload), "one");
    EXPECT_EQ(Text(client->Request({}).payload), "one");
}

TEST_P(Requests, AnAnswerThatIsDroppedFails) {
    Handlers handlers;
    handlers.request_later = [&](const Bytes&, const tevrol::Answer&) {};
    Open(GetParam(), {}, handlers);
    const Reply reply = client->Request({});
    EXPECT_EQ(reply.error, Error::Failed);
    EXPECT_EQ(reply.text, "the request was not answered");
}

TEST_P(Requests, AnAnswerMayOutliveItsChannel) {
    Open(GetParam(), {}, KeepingRequests(at_service));
    auto reply = client->RequestLater({});
    ASSERT_TRUE(at_service.Await("asked"));
    service.reset();
    kept.front()(ToBytes("too late"));
    EXPECT_EQ(reply.get().error, Error::PartnerLost);
}

TEST_P(Requests, TimeOutAndTheNextOneIsAnswered) {
    Handlers handlers = KeepingRequests(at_service);
    handlers.request_later = [keep = handlers.request_later](const Bytes& request,
                                                             const tevrol::Answer& answer) {
        if (request.empty()) {
            keep(request, answer);
        } else {
            answer(request);
        }
    };
    Open(GetParam(), {}, handlers);
    EXPECT_EQ(client->Request({}, 20ms).error, Error::TimedOut);
    EXPECT_EQ(client->Request({}, -1ms).error, Error::TimedOut);
    EXPECT_EQ(Text(client->Request(ToBytes("next")).payload), "next");
}

TEST_P(Requests, LaterOnesTimeOutToo) {
    Options options = Over(GetParam());
    options.timeout = 20ms;
    Open(GetParam(), options, Over(GetParam()), {}, KeepingRequests(at_service));
    EXPECT_EQ(client->RequestLater({}).get().error, Error::TimedOut);
    std::promise<Reply> outcome;
    client->RequestLater({}, [&](const Reply& reply) { outcome.set_value(reply); });
    EXPECT_EQ(outcome.get_future().get().error, Error::TimedOut);
}

TEST_P(Requests, LaterOnesGiveTheirReplyToAFunctionOrAFuture) {
    Open(GetParam(), {}, Noting(at_service));
    std::promise<Reply> outcome;
    client->RequestLater(ToBytes("function"),
                         [&](const Reply& reply) { outcome.set_value(reply); });
    EXPECT_EQ(Text(outcome.get_future().get().payload), "function");
    EXPECT_EQ(Text(client->RequestLater(ToBytes("future")).get().payload), "future");
    client->RequestLater(ToBytes("given up"));  // and dropped
    EXPECT_TRUE(at_service.Await("request given up"));
}

TEST_P(Requests, TooLargeIsFoundBeforeAnythingIsSent) {
    Options options = Over(GetParam());
    options.largest = 1000;
    Open(GetParam(), options, Over(GetParam()), {}, Noting(at_service));
    EXPECT_TRUE(client->Request(Bytes(1000)));
    EXPECT_EQ(client->Request(Bytes(1001)).error, Error::TooLarge);
    EXPECT_EQ(client->RequestLater(Bytes(1001)).get().error, Error::TooLarge);
    EXPECT_EQ(client->Notify(Bytes(1001)), Error::TooLarge);
    EXPECT_EQ(at_service.All().size(), 2U) << "ready and the one request";
}

TEST_P(Requests, AReplyThatIsTooLargeIsAnErrorAtTheRequester) {
    Handlers handlers;
    handlers.request = [](const Bytes&) { return Bytes(1001); };
    Options options = Over(GetParam());
    options.largest = 1000;
    Open(GetParam(), Over(GetParam()), options, {}, handlers);
    EXPECT_EQ(client->Request({}).error, Error::TooLarge);
}

TEST_P(Requests, InsideHandlersOfBothEndsDoNotWaitForEachOther) {
    // The service asks back inside its handler, and the client again inside the handler of that.
    Handlers for_client;
    for_client.request = [&](const Bytes& request) {
        const int depth = request.at(0);
        return depth == 0 ? ToBytes("bottom")
                          : client->Request({static_cast<char>(depth - 1)}).payload;
    };
    Handlers for_service;
    for_service.request = [&](const Bytes& request) { return service->Request(request).payload; };
    Open(GetParam(), for_client, for_service);
    EXPECT_EQ(Text(client->Request({char{5}}, kLong).payload), "bottom");
}

TEST_P(Requests, FromManyThreadsEachGetItsOwnReply) {
    Open(GetParam(), Noting(at_client), Noting(at_service));
    std::vector<std::thread> threads;
    for (int thread = 0; thread < 16; ++thread) {
        threads.emplace_back([&, thread] {
            Channel& channel = thread % 2 == 0 ? *client : *service;
            for (int i = 0; i < 100; ++i) {
                const std::string text = std::to_string(thread) + "-" + std::to_string(i);
                EXPECT_EQ(Text(channel.Request(ToBytes(text)).payload), text);
            }
        });
    }
    for (std::thread& thread : threads) {
        thread.join();
    }
}

TEST_P(Requests, MoreThanTheBusAllowsAtOnceWaitTheirTurn) {
    Open(GetParam(), {}, KeepingRequests(at_service));
    constexpr std::size_t kRequests = 300;
    std::vector<std::future<Reply>> replies;
    for (std::size_t i = 0; i < kRequests; ++i) {
        replies.push_back(client->RequestLater({}));
    }
    ASSERT_TRUE(at_service.Await("asked", 100));
    for (std::size_t answered = 0; answered < kRequests; ++answered) {
        ASSERT_TRUE(at_service.Await("asked", answered + 1));
        const std::lock_guard<std::mutex> lock(mutex);
        kept[answered]({});
    }
    for (auto& reply : replies) {
        EXPECT_TRUE(reply.get());
    }
}

TEST(Errors, HaveASentenceEach) {
    std::vector<std::string> sentences;
    for (int value = 1; value <= static_cast<int>(Error::NoBus); ++value) {
        sentences.push_back(make_error_code(static_cast<Error>(value)).message());
        EXPECT_EQ(sentences.back().back(), '.');
        EXPECT_EQ(std::count(sentences.begin(), sentences.end(), sentences.back()), 1);
    }
    EXPECT_EQ(tevrol::ErrorCategory().message(0), "Unknown error.");
    EXPECT_STREQ(tevrol::ErrorCategory().name(), "tevrol");
}

TEST(Names, ThatCannotBeUsedAreRefused) {
    for (const std::string& name : {std::string(), std::string("a-b"), std::string("a.b"),
                                    std::string("a b"), std::string("1a"), std::string("\xc3\xa4"),
                                    std::string("a\0b", 3), std::string(201, 'a')}) {
        EXPECT_THROW(Channel(name, Role::Client), std::invalid_argument) << name;
    }
    EXPECT_NO_THROW(Channel(std::string(200, 'a'), Role::Client));
    Options options;
    options.largest = (std::size_t{64} << 20) + 1;
    EXPECT_THROW(Channel("demo", Role::Client, {}, options), std::invalid_argument);
}

}  // namespace
}  // namespace channel_test
