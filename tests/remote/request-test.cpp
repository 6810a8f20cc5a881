// SPDX-License-Identifier: MIT
// Requests and their replies, in both directions.
#include <chrono>

#include "tests/support/message-test.h"

namespace {

using std::chrono::steady_clock;
using testing::ElementsAre;
using testing::IsEmpty;
using testing::StartsWith;

constexpr const char* kCall = "g_dbus_proxy_call_sync";

Bytes Reversed(const Bytes& bytes) {
    return {bytes.rbegin(), bytes.rend()};
}

LogLine Sending(std::size_t size) {
    return Debug("SendMessage", "Sending sync message with " + std::to_string(size) + " bytes\n\n");
}

LogLine Replied(std::size_t size) {
    return Debug("SendMessage", "Reply with " + std::to_string(size) + " bytes\n\n");
}

LogLine Failed(const std::string& code_and_message) {
    return Error("SendMessage", "Error while sending message " + code_and_message + "\n\n");
}

class RequestBeforeHandshake : public MessageTest {
protected:
    RequestBeforeHandshake() : MessageTest(Reversed) {}

    static LogLine CalledBy(const std::string& sender, const std::string& path = kPath) {
        return Debug("cb_MethodCall", "cb_MethodCall sender=" + sender + " obj_path=" + path +
                                          " iface_name=" + kInterface + " method_name=Send\n\n");
    }

    // Sends from here; `data` is left as it is.
    Bytes Send(const Bytes& data) {
        Bytes sent = data;
        Bytes reply = channel.SendMessage(sent);
        EXPECT_EQ(sent, data);
        return reply;
    }

    // Printed on standard output alone, and nothing sent.
    void ExpectRefused(const std::string& line) {
        Forget();
        const CapturedOutput output;
        EXPECT_THAT(Send(ToBytes("x")), IsEmpty());
        EXPECT_EQ(output.Text(), line + "\n");
        EXPECT_THAT(Log(), IsEmpty());
        EXPECT_THAT(gio_calls::All(), IsEmpty());
    }

    std::future<Bytes> SendFromAnotherThread(const Bytes& data) {
        return std::async(std::launch::async, [this, data] { return Send(data); });
    }

    template <typename Value>
    static bool IsFulfilled(const std::future<Value>& future) {
        return future.wait_for(std::chrono::seconds(0)) == std::future_status::ready;
    }

    void Misbehave(PartnerFaults::Reply reply) {
        PartnerFaults faults;
        faults.reply = reply;
        partner.SetFaults(faults);
    }

    void AnswerWith(const tevrol::Body& body) {
        PartnerFaults faults;
        faults.reply = PartnerFaults::Reply::WrongType;
        faults.wrong_body = body;
        partner.SetFaults(faults);
    }
};

class Request : public RequestBeforeHandshake {
protected:
    void SetUp() override {
        RequestBeforeHandshake::SetUp();
        Connect();
    }
};

// ---- From here ----

TEST_F(Request, EmptyPayloadRoundTrips) {
    EXPECT_THAT(Send({}), IsEmpty());
    EXPECT_THAT(Log(), ElementsAre(Sending(0), Replied(0)));
    EXPECT_THAT(partner.Requests(), ElementsAre(Bytes()));
}

TEST_F(Request, EveryByteValueRoundTrips) {
    EXPECT_EQ(Send(AllByteValues()), Reversed(AllByteValues()));
    EXPECT_THAT(partner.Requests(), ElementsAre(AllByteValues()));
    EXPECT_THAT(Log(), ElementsAre(Sending(256), Replied(256)));
    EXPECT_THAT(gio_calls::All(), ElementsAre("g_dbus_proxy_call_sync Send"));
}

TEST_F(Request, AnySizeRoundTrips) {
    for (const std::size_t size : Sizes()) {
        SCOPED_TRACE(size);
        ClearLog();
        Bytes data(size, 'a');
        if (size > 0) {
            data.back() = 'z';
        }
        EXPECT_EQ(Send(data), Reversed(data));
        EXPECT_EQ(partner.Requests().back(), data);
        EXPECT_THAT(Log(), ElementsAre(Sending(size), Replied(size)));
    }
}

TEST_F(Request, ReplyBufferHasExactSize) {
    const Bytes reply = Send(Bytes(100, 'x'));  // growing byte by byte leads to room for 128
    EXPECT_EQ(reply.size(), 100U);
    EXPECT_EQ(reply.capacity(), 100U);
}

TEST_F(RequestBeforeHandshake, PrintsConnectionNotSet) {
    ExpectRefused("Connection not set.");
}

TEST_F(Request, IncompleteHandshakePrintsConnectionNotSet) {
    for (const int state : IncompleteStates()) {
        SCOPED_TRACE(state);
        channel.m_handshake = state;
        ASSERT_NE(channel.m_proxy, nullptr);
        ExpectRefused("Connection not set.");
    }
    Settle();
    partner.Settle();
    EXPECT_THAT(partner.Requests(), IsEmpty());
}

TEST_F(RequestBeforeHandshake, MissingProxyPrintsProxyNotReady) {
    gio_calls::Fail("g_dbus_proxy_new_sync");
    Connect();
    ASSERT_EQ(channel.m_proxy, nullptr);
    ExpectRefused("Proxy not ready");
}

TEST_F(Request, TimeoutIsLoggedAndGivesEmptyBuffer) {
    // The channel leaves the library's default alone ...
    EXPECT_EQ(g_dbus_proxy_get_default_timeout(channel.m_proxy), -1);
    // ... and goes by it: a shorter one takes effect.
    g_dbus_proxy_set_default_timeout(channel.m_proxy, 50);
    Misbehave(PartnerFaults::Reply::Never);
    const auto start = steady_clock::now();
    EXPECT_THAT(Send(ToBytes("anyone?")), IsEmpty());
    EXPECT_LT(steady_clock::now() - start, std::chrono::seconds(20));
    EXPECT_THAT(Log(), ElementsAre(Sending(7), Failed("[24] Timeout was reached")));
    EXPECT_THAT(partner.Requests(), ElementsAre(ToBytes("anyone?")));
}

TEST_F(Request, ErrorReplyIsLoggedAndGivesEmptyBuffer) {
    Misbehave(PartnerFaults::Reply::Error);
    EXPECT_THAT(Send(ToBytes("please")), IsEmpty());
    EXPECT_THAT(Log(),
                ElementsAre(Sending(6), Failed("[36] GDBus.Error:org.ulmar.tevrol.Error.Rehearsed: "
                                               "refused on purpose")));
}

TEST_F(Request, LocalFailureIsLoggedWithCodeAndMessage) {
    gio_calls::Fail(kCall);
    EXPECT_THAT(Send(ToBytes("x")), IsEmpty());
    EXPECT_THAT(Log(), ElementsAre(Sending(1), Failed("[0] failed on purpose")));
}

TEST_F(Request, MissingReplyWithoutErrorGivesEmptyBuffer) {
    gio_calls::Fail(kCall, 1, gio_calls::Failure::WithoutError);
    EXPECT_THAT(Send(ToBytes("x")), IsEmpty());
    EXPECT_THAT(Log(), ElementsAre(Sending(1)));
}

TEST_F(Request, ReplyOfWrongTypeIsLoggedAndGivesEmptyBuffer) {
    for (const auto& [type, body] : WrongBodies()) {
        SCOPED_TRACE(type);
        ClearLog();
        AnswerWith(body);
        EXPECT_THAT(Send(ToBytes("x")), IsEmpty());
        EXPECT_THAT(Log(), ElementsAre(Sending(1), WrongType("SendMessage", type)));
        EXPECT_THAT(gio_calls::KeptReplies(), IsEmpty());
    }
    EXPECT_THAT(TakeGlibReports(), IsEmpty());
}

TEST_F(Request, ReplyKeepsExactlyOneReference) {
    EXPECT_EQ(Send(ToBytes("abc")), ToBytes("cba"));
    const std::vector<GVariant*> kept = gio_calls::KeptReplies();
    ASSERT_EQ(kept.size(), 1U);
    g_variant_unref(kept[0]);
    EXPECT_THAT(gio_calls::KeptReplies(), IsEmpty());
}

TEST_F(Request, OtherThreadGetsReplyWhileLoopRuns) {
    auto reply = SendFromAnotherThread(ToBytes("abc"));
    ASSERT_TRUE(IterateUntil([&] { return IsFulfilled(reply); }));
    EXPECT_EQ(reply.get(), ToBytes("cba"));
}

TEST_F(Request, LossOfPartnerFailsRunningRequest) {
    PartnerFaults faults;
    faults.leave_at = PartnerFaults::Moment::OnRequest;
    partner.SetFaults(faults);
    const std::string lost = partner.UniqueName();
    EXPECT_THAT(Send(ToBytes("x")), IsEmpty());
    EXPECT_THAT(Log(),
                ElementsAre(Sending(1), Failed("[4] GDBus.Error:org.freedesktop.DBus.Error.NoReply:"
                                               " Message recipient disconnected from message bus "
                                               "without replying")));
    ASSERT_TRUE(IterateUntil([&] { return !channel.IsConnectionReady(); }));
    EXPECT_EQ(channel.ReadyCalls().back(), std::make_pair(false, lost));
    ExpectRefused("Connection not set.");
}

// ---- To here ----

TEST_F(Request, PartnersRequestReachesOverrideWithEveryByteValue) {
    channel.answer = Reversed;
    const PartnerReply reply = Await(partner.Request(AllByteValues()));
    EXPECT_EQ(reply.payload, Reversed(AllByteValues()));
    EXPECT_EQ(reply.error, "");
    EXPECT_THAT(channel.Requests(), ElementsAre(AllByteValues()));
    EXPECT_THAT(Log(), ElementsAre(CalledBy(partner.UniqueName())));
}

TEST_F(Request, PartnersRequestOfAnySizeRoundTrips) {
    for (const std::size_t size : Sizes()) {
        SCOPED_TRACE(size);
        const Bytes data(size, 'p');
        const PartnerReply reply = Await(partner.Request(data));
        EXPECT_TRUE(reply.ok) << reply.error;
        EXPECT_EQ(reply.payload, data);
        EXPECT_EQ(channel.Requests().back(), data);
    }
}

TEST_F(RequestBeforeHandshake, StrangerIsServed) {
    const PartnerReply reply =
        Await(partner.RequestOf(OwnName(), tevrol::PayloadBody(ToBytes("hello"))));
    EXPECT_EQ(reply.payload, ToBytes("hello"));
    EXPECT_THAT(channel.Requests(), ElementsAre(ToBytes("hello")));
    EXPECT_THAT(Log(), ElementsAre(CalledBy(partner.UniqueName())));
}

TEST_F(Request, StrangerIsServedWhilePartnerIsBound) {
    TestPartner stranger;
    stranger.Join();
    const PartnerReply reply =
        Await(stranger.RequestOf(OwnName(), tevrol::PayloadBody(ToBytes("hello"))));
    EXPECT_EQ(reply.payload, ToBytes("hello"));
    EXPECT_THAT(channel.Requests(), ElementsAre(ToBytes("hello")));
}

TEST_F(Request, PartnersRequestOfWrongTypeGetsError) {
    for (const auto& body :
         {tevrol::TextBody("text"), tevrol::Body([](sd_bus_message*) { return 0; })}) {
        const PartnerReply reply = Await(partner.RequestOf(OwnName(), body));
        EXPECT_FALSE(reply.ok);
        EXPECT_THAT(reply.error, StartsWith("org.freedesktop.DBus.Error.InvalidArgs: "));
    }
    EXPECT_THAT(channel.Requests(), IsEmpty());
    EXPECT_THAT(Log(), IsEmpty());
}

TEST_F(Request, PartnersRequestIsServedWhileThreadWaits) {
    Misbehave(PartnerFaults::Reply::Never);
    auto waiting = SendFromAnotherThread(ToBytes("mine"));
    ASSERT_TRUE(IterateUntil([&] { return !partner.Requests().empty(); }));
    EXPECT_EQ(Await(partner.Request(ToBytes("yours"))).payload, ToBytes("yours"));
    EXPECT_FALSE(IsFulfilled(waiting));
    partner.Leave();
    ASSERT_TRUE(IterateUntil([&] { return IsFulfilled(waiting); }));
    EXPECT_THAT(waiting.get(), IsEmpty());
}

TEST_F(Request, ThreadGetsReplyWhilePartnerWaits) {
    channel.answer = [&](const Bytes&) { return SendFromAnotherThread(ToBytes("abc")).get(); };
    EXPECT_EQ(Await(partner.Request(ToBytes("yours"))).payload, ToBytes("cba"));
}

class RequestDefaultHandler : public MessageTest {
protected:
    TevrolDbusRemote plain{"plain"};
    TestPartner its_partner{"plain"};
};

TEST_F(RequestDefaultHandler, AnswersWithFixedTextAndOwnName) {
    ChannelTest::Connect(its_partner, plain);
    for (const auto& [request, logged] : PayloadsAndLoggedTexts()) {
        ClearLog();
        const CapturedOutput output;
        const PartnerReply reply = Await(its_partner.Request(ToBytes(request)));
        EXPECT_EQ(reply.payload, ToBytes("Default handler from : " + OwnName()));
        EXPECT_EQ(output.Text(), request + "\n");
        EXPECT_THAT(LogOf("HandleMessage"),
                    ElementsAre(Debug("HandleMessage",
                                      "Default handler - HandleMessage = " + logged + "\n\n")));
    }
}

// ---- The callback by itself ----

TEST_F(Request, MissingConnectionOrObjectIsError) {
    ExpectNeedsConnectionAndObject(CalledBy(":1.9"), [](GDBusConnection* on, gpointer user_data) {
        TevrolDbusRemote::cb_MethodCall(on, ":1.9", kPath, kInterface, "Send", nullptr, nullptr,
                                        user_data);
    });
    EXPECT_THAT(channel.Requests(), IsEmpty());
}

TEST_F(Request, OtherObjectPathIsNotAnswered) {
    for (const std::string& path : OtherPaths()) {
        ClearLog();
        TevrolDbusRemote::cb_MethodCall(connection, ":1.9", path.c_str(), kInterface, "Send",
                                        nullptr, nullptr, &channel);
        EXPECT_THAT(Log(), ElementsAre(CalledBy(":1.9", path)));
    }
    EXPECT_THAT(channel.Requests(), IsEmpty());
}

}  // namespace
