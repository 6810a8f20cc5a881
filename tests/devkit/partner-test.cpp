// SPDX-License-Identifier: MIT
// The partner as a library: what an application can rehearse with it.
#include "devkit/partner.h"

#include <system_error>

#include "tests/support/channel-test.h"

namespace {

using std::chrono::milliseconds;
using std::chrono::steady_clock;
using testing::Contains;
using testing::ElementsAre;
using testing::ElementsAreArray;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::StartsWith;
using Moment = PartnerFaults::Moment;
using Reply = PartnerFaults::Reply;

constexpr const char* kPath = "/org/ulmar/tevrol/CommunicationChannel/demo";
constexpr const char* kInterface = "org.ulmar.tevrol.DbusCommunication";

PartnerFaults Faulty(Reply reply, milliseconds lateness = milliseconds(0)) {
    PartnerFaults faults;
    faults.reply = reply;
    faults.lateness = lateness;
    return faults;
}

PartnerFaults Leaving(Moment moment) {
    PartnerFaults faults;
    faults.leave_at = moment;
    return faults;
}

// The client that the process behind `end` would be: announces one of its names.
void AnnounceClient(GDBusConnection* end, const std::string& suffix) {
    const std::string name = "org.ulmar.Tevrol.demo_CLIENT_" + suffix;
    g_variant_unref(CallDriver(end, "RequestName", g_variant_new("(su)", name.c_str(), 0U)));
    g_variant_unref(CallDriver(end, "ReleaseName", g_variant_new("(s)", name.c_str())));
}

class PartnerLibrary : public ChannelTest {
protected:
    Bytes Send(const std::string& text) {
        Bytes data = ToBytes(text);
        return channel.SendMessage(data);
    }

    // Another process owns the partner's name of a stage until the connection is closed.
    Connection HoldServiceName(const std::string& suffix) const {
        Connection holder = OpenConnection(bus.Address());
        const std::string name = "org.ulmar.Tevrol.demo_SERVICE_" + suffix;
        g_variant_unref(
            CallDriver(holder.get(), "RequestName", g_variant_new("(su)", name.c_str(), 0U)));
        return holder;
    }

    TestChannel channel;
    TestPartner partner;
};

// ---- Handshake ----

TEST_F(PartnerLibrary, OpensTheHandshakeAndTellsItsCourse) {
    Connect(partner, channel);
    EXPECT_THAT(partner.Events(),
                ElementsAre("joined " + partner.UniqueName(), "announced SYN",
                            "heard SYN_ACK from " + OwnName(), "bound " + OwnName(),
                            "announced ACK", "ready " + OwnName()));
    EXPECT_EQ(partner.BoundTo(), OwnName());
    EXPECT_THAT(channel.ReadyCalls(), ElementsAre(std::make_pair(true, partner.UniqueName())));
}

TEST_F(PartnerLibrary, AnswersTheSynOfAnEndThatStartsSecond) {
    TestPartner waiting("second");
    waiting.Join();
    TestChannel second("second");
    ASSERT_TRUE(IterateUntil([&] { return second.IsConnectionReady() && waiting.IsReady(); }));
    EXPECT_THAT(waiting.Events(),
                ElementsAre("joined " + waiting.UniqueName(), "heard SYN from " + OwnName(),
                            "bound " + OwnName(), "announced SYN_ACK",
                            "heard ACK from " + OwnName(), "ready " + OwnName()));
}

TEST_F(PartnerLibrary, LeavesAndIsReadyAgainAfterItJoinsAgain) {
    Connect(partner, channel);
    const std::string first = partner.UniqueName();
    partner.Leave();
    EXPECT_EQ(partner.Events().back(), "left");
    EXPECT_EQ(partner.UniqueName(), "");
    EXPECT_EQ(partner.BoundTo(), "");
    EXPECT_FALSE(partner.IsReady());
    ASSERT_TRUE(IterateUntil([&] { return !channel.IsConnectionReady(); }));
    Connect(partner, channel);
    EXPECT_NE(partner.UniqueName(), first);
    EXPECT_EQ(Send("again"), ToBytes("again"));
}

TEST_F(PartnerLibrary, JoinedTwiceStaysAsItIs) {
    partner.Join();
    const std::string name = partner.UniqueName();
    partner.Join();
    EXPECT_EQ(partner.UniqueName(), name);
    EXPECT_THAT(partner.Events(), ElementsAre("joined " + name));
}

TEST_F(PartnerLibrary, AnnouncesAStageInAnyStateByAcquiringAndReleasingIt) {
    partner.Join();
    EXPECT_TRUE(partner.Announce(HandshakeStage::Ack));
    EXPECT_FALSE(NameHasOwner("org.ulmar.Tevrol.demo_SERVICE_ACK"));
    EXPECT_TRUE(partner.Acquire(HandshakeStage::Ack));
    EXPECT_TRUE(NameHasOwner("org.ulmar.Tevrol.demo_SERVICE_ACK"));
    EXPECT_TRUE(partner.Release(HandshakeStage::Ack));
    EXPECT_FALSE(NameHasOwner("org.ulmar.Tevrol.demo_SERVICE_ACK"));
    EXPECT_FALSE(partner.Release(HandshakeStage::Ack));
}

TEST_F(PartnerLibrary, HoldsAClientNameSoThatTheAnnouncementFailsUntilItIsReleased) {
    partner.Join();
    ASSERT_TRUE(partner.HoldClientName(HandshakeStage::SynAck));
    EXPECT_TRUE(NameHasOwner("org.ulmar.Tevrol.demo_CLIENT_SYN_ACK"));
    partner.Open();
    ASSERT_TRUE(IterateUntil([] { return !Errors().empty(); }));
    EXPECT_THAT(Errors().front(),
                Error("BroadcastName", "Cannot own name due to return code = 3\n\n"));
    ASSERT_TRUE(partner.ReleaseClientName(HandshakeStage::SynAck));
    EXPECT_TRUE(IterateUntil([&] { return channel.IsConnectionReady() && partner.IsReady(); }));
}

TEST_F(PartnerLibrary, RepeatsAnAnswerThatIsRefusedUntilItSucceeds) {
    partner.Join();
    Connection holder = HoldServiceName("ACK");
    partner.Open();
    const std::string refused = "refused ACK: org.ulmar.Tevrol.demo_SERVICE_ACK: File exists";
    ASSERT_TRUE(IterateUntil([&] { return partner.Count(refused) >= 2; }));
    EXPECT_FALSE(partner.IsReady());
    holder.reset();
    EXPECT_TRUE(IterateUntil([&] { return channel.IsConnectionReady() && partner.IsReady(); }));
}

TEST_F(PartnerLibrary, AnnouncesItsSynOnceEvenIfThatIsRefused) {
    partner.Join();
    const Connection holder = HoldServiceName("SYN");
    partner.Open();
    EXPECT_THAT(partner.Events(),
                ElementsAre("joined " + partner.UniqueName(),
                            "refused SYN: org.ulmar.Tevrol.demo_SERVICE_SYN: File exists"));
    EXPECT_FALSE(partner.Announce(HandshakeStage::Syn));
}

TEST_F(PartnerLibrary, LosesAClientThatLeavesTheBus) {
    partner.Join();
    const Connection client = OpenConnection(bus.Address());
    const std::string name = g_dbus_connection_get_unique_name(client.get());
    AnnounceClient(client.get(), "SYN_ACK");
    ASSERT_TRUE(IterateUntil([&] { return partner.IsReady(); }));
    g_dbus_connection_close_sync(client.get(), nullptr, nullptr);
    ASSERT_TRUE(IterateUntil([&] { return partner.Saw("lost " + name); }));
    EXPECT_FALSE(partner.IsReady());
    EXPECT_EQ(partner.BoundTo(), "");
}

TEST(PartnerLibraryOnASmallBus, DoesNotBindAClientThatItCannotWatch) {
    // Of the two rules that a bound partner needs, there is one left.
    const tevrol::PrivateBus bus("  <limit name='max_match_rules_per_connection'>4</limit>\n");
    const Connection client = OpenConnection(bus.Address());
    const std::string name = g_dbus_connection_get_unique_name(client.get());
    TestPartner partner;
    partner.Join();
    AnnounceClient(client.get(), "SYN");
    ASSERT_TRUE(IterateUntil([&] { return partner.Saw("lost " + name); }));
    EXPECT_THAT(
        partner.Events(),
        ElementsAre("joined " + partner.UniqueName(), "heard SYN from " + name, "bound " + name,
                    "failed: cannot listen to " + name + ": No buffer space available",
                    "lost " + name));
    EXPECT_EQ(partner.BoundTo(), "");
}

TEST_F(PartnerLibrary, LosesAClientThatHasLeftTheBusBeforeItIsBoundAndAnswersItNothing) {
    partner.Join();
    const Connection client = OpenConnection(bus.Address());
    const std::string name = g_dbus_connection_get_unique_name(client.get());
    std::promise<void> gone;
    partner.OnEvent([&](const tevrol::PartnerEvent& event) {
        if (event.kind == tevrol::PartnerEvent::Kind::Heard) {
            gone.get_future().wait();
        }
    });
    AnnounceClient(client.get(), "SYN_ACK");
    g_dbus_connection_close_sync(client.get(), nullptr, nullptr);
    EXPECT_TRUE(IterateUntil([&] { return !NameHasOwner(name); }));
    gone.set_value();
    ASSERT_TRUE(IterateUntil([&] { return partner.Saw("lost " + name); }));
    partner.Settle();
    EXPECT_THAT(partner.Events(),
                ElementsAre("joined " + partner.UniqueName(), "heard SYN_ACK from " + name,
                            "bound " + name, "lost " + name));
    EXPECT_FALSE(partner.IsReady());
}

// ---- Requests to it ----

TEST_F(PartnerLibrary, EchoesRequestsUnlessItIsGivenAnAnswer) {
    Connect(partner, channel);
    EXPECT_EQ(Send("echo"), ToBytes("echo"));
    EXPECT_EQ(partner.Events().back(), "request from " + OwnName() + ": 4 bytes \"echo\"");
}

TEST_F(PartnerLibrary, AnswersWithWhatItsFunctionGives) {
    TestPartner fixed("demo", [](const Bytes&) { return ToBytes("fixed"); });
    Connect(fixed, channel);
    EXPECT_EQ(Send("anything"), ToBytes("fixed"));
}

TEST_F(PartnerLibrary, ToldToNeverReplyLeavesTheRequestWaiting) {
    Connect(partner, channel);
    partner.SetFaults(Faulty(Reply::Never));
    auto waiting = std::async(std::launch::async, [&] { return Send("x"); });
    ASSERT_TRUE(IterateUntil([&] { return partner.Requests().size() == 1; }));
    Settle(partner);
    EXPECT_EQ(waiting.wait_for(std::chrono::seconds(0)), std::future_status::timeout);
    partner.Leave();
    EXPECT_THAT(waiting.get(), IsEmpty());
}

TEST_F(PartnerLibrary, ToldToBeLateRepliesCorrectlyAfterThatTime) {
    Connect(partner, channel);
    partner.SetFaults(Faulty(Reply::Late, milliseconds(100)));
    const auto start = steady_clock::now();
    EXPECT_EQ(Send("late"), ToBytes("late"));
    EXPECT_GE(steady_clock::now() - start, milliseconds(100));
}

TEST_F(PartnerLibrary, ThatLeavesBeforeItsLateReplyGivesNone) {
    Connect(partner, channel);
    partner.SetFaults(Faulty(Reply::Late, std::chrono::hours(1)));
    auto waiting = std::async(std::launch::async, [&] { return Send("late"); });
    ASSERT_TRUE(IterateUntil([&] { return partner.Requests().size() == 1; }));
    partner.Leave();
    EXPECT_THAT(waiting.get(), IsEmpty());
}

TEST_F(PartnerLibrary, ToldToReplyWithAnErrorDoes) {
    Connect(partner, channel);
    partner.SetFaults(Faulty(Reply::Error));
    EXPECT_THAT(Send("x"), IsEmpty());
    EXPECT_THAT(Errors().back().message,
                HasSubstr("org.ulmar.tevrol.Error.Rehearsed: refused on purpose"));
}

TEST_F(PartnerLibrary, ToldToReplyWithAWrongTypeSendsTextOrTheBodyItIsGiven) {
    Connect(partner, channel);
    PartnerFaults faults = Faulty(Reply::WrongType);
    partner.SetFaults(faults);
    EXPECT_THAT(Send("x"), IsEmpty());
    EXPECT_THAT(Errors().back().message, HasSubstr("type (s) instead"));
    faults.wrong_body = [](sd_bus_message* reply) { return sd_bus_message_append(reply, "u", 7U); };
    partner.SetFaults(faults);
    EXPECT_THAT(Send("x"), IsEmpty());
    EXPECT_THAT(Errors().back().message, HasSubstr("type (u) instead"));
}

TEST_F(PartnerLibrary, BehavesAgainOnceItsFaultsAreTakenBack) {
    Connect(partner, channel);
    partner.SetFaults(Faulty(Reply::Error));
    EXPECT_THAT(Send("x"), IsEmpty());
    partner.SetFaults({});
    EXPECT_EQ(Send("x"), ToBytes("x"));
}

// ---- Messages from it ----

TEST_F(PartnerLibrary, SendsNotificationsOfTheRightAndOfAWrongType) {
    Connect(partner, channel);
    EXPECT_TRUE(partner.Notify(ToBytes("right")));
    EXPECT_TRUE(partner.Notify(tevrol::TextBody("wrong")));
    Settle(partner);
    EXPECT_THAT(channel.Notifications(), ElementsAre(ToBytes("right")));
    EXPECT_THAT(Errors().back().message, HasSubstr("type (s) instead"));
}

TEST_F(PartnerLibrary, TellsNotificationsOfItsClientAndSignalsOfAnotherType) {
    Connect(partner, channel);
    Bytes note = ToBytes("note");
    channel.SendNotification(note);
    g_dbus_connection_emit_signal(connection, partner.UniqueName().c_str(), kPath, kInterface,
                                  "SendSignal", g_variant_new("(s)", "text"), nullptr);
    const std::string malformed = "malformed signal from " + OwnName() + ": type \"s\"";
    ASSERT_TRUE(IterateUntil([&] { return partner.Saw(malformed); }));
    EXPECT_THAT(partner.Events(),
                Contains("notification from " + OwnName() + ": 4 bytes \"note\""));
}

TEST_F(PartnerLibrary, GivesTheReplyToItsRequestOrTheErrorInstead) {
    Connect(partner, channel);
    channel.answer = [](const Bytes&) { return ToBytes("answer"); };
    const PartnerReply reply = Await(partner.Request(ToBytes("question")));
    EXPECT_TRUE(reply.ok);
    EXPECT_EQ(reply.payload, ToBytes("answer"));
    const PartnerReply failed = Await(partner.Request(tevrol::TextBody("text")));
    EXPECT_FALSE(failed.ok);
    EXPECT_THAT(failed.error, StartsWith("org.freedesktop.DBus.Error.InvalidArgs: "));
}

// A client that is not GDBus may leave the text out, which GDBus never does.
TEST_F(PartnerLibrary, GivesTheNameOfAnErrorWithoutAText) {
    partner.Join();
    const Connection client = OpenConnection(bus.Address());
    const auto refuse = +[](GDBusConnection* end, GDBusMessage* message, gboolean incoming,
                            gpointer) -> GDBusMessage* {
        if (incoming == FALSE ||
            g_dbus_message_get_message_type(message) != G_DBUS_MESSAGE_TYPE_METHOD_CALL) {
            return message;
        }
        GDBusMessage* error = g_dbus_message_new();
        g_dbus_message_set_message_type(error, G_DBUS_MESSAGE_TYPE_ERROR);
        g_dbus_message_set_error_name(error, "org.example.Refused");
        g_dbus_message_set_reply_serial(error, g_dbus_message_get_serial(message));
        g_dbus_message_set_destination(error, g_dbus_message_get_sender(message));
        g_dbus_connection_send_message(end, error, G_DBUS_SEND_MESSAGE_FLAGS_NONE, nullptr,
                                       nullptr);
        g_object_unref(error);
        g_object_unref(message);
        return nullptr;
    };
    g_dbus_connection_add_filter(client.get(), refuse, nullptr, nullptr);
    const PartnerReply reply = Await(partner.RequestOf(
        g_dbus_connection_get_unique_name(client.get()), tevrol::PayloadBody(ToBytes("question"))));
    EXPECT_FALSE(reply.ok);
    EXPECT_EQ(reply.error, "org.example.Refused: ");
}

TEST_F(PartnerLibrary, GivesAnErrorForItsRequestWhenItLeavesBeforeTheReply) {
    Connect(partner, channel);
    auto request = partner.Request(ToBytes("question"));  // the loop does not run: no reply
    partner.Leave();
    const PartnerReply reply = request.get();
    EXPECT_FALSE(reply.ok);
    EXPECT_EQ(reply.error, "left the bus before the reply");
}

TEST_F(PartnerLibrary, OffTheBusRefusesWhatNeedsIt) {
    EXPECT_EQ(partner.UniqueName(), "");
    EXPECT_FALSE(partner.Announce(HandshakeStage::Syn));
    EXPECT_FALSE(partner.Release(HandshakeStage::Syn));
    EXPECT_FALSE(partner.HoldClientName(HandshakeStage::Syn));
    EXPECT_FALSE(partner.Notify(ToBytes("x")));
    EXPECT_FALSE(partner.NotifyTo(OwnName(), tevrol::PayloadBody({})));
    EXPECT_EQ(partner.Request(ToBytes("x")).get().error, "not ready");
    EXPECT_EQ(partner.RequestOf(OwnName(), tevrol::PayloadBody({})).get().error, "not on the bus");
    partner.Settle();
    partner.Leave();
    EXPECT_THAT(partner.Events(),
                ElementsAre("refused SYN: org.ulmar.Tevrol.demo_SERVICE_SYN: Transport endpoint is "
                            "not connected",
                            "refused SYN: org.ulmar.Tevrol.demo_CLIENT_SYN: Transport endpoint is "
                            "not connected"));
}

TEST_F(PartnerLibrary, ThatIsNotReadyRefusesToRequestAndNotify) {
    partner.Join();
    EXPECT_EQ(partner.Request(ToBytes("x")).get().error, "not ready");
    EXPECT_FALSE(partner.Notify(ToBytes("x")));
}

// ---- The bus ----

TEST_F(PartnerLibrary, LeavesWhenTheBusGoesAway) {
    Connect(partner, channel);
    bus.Kill();
    EXPECT_TRUE(IterateUntil([&] { return partner.Saw("left"); }));
    EXPECT_EQ(partner.UniqueName(), "");
    EXPECT_THROW(partner.Join(), std::system_error);
}

TEST(PartnerLibraryWithoutABus, ThrowsOnJoining) {
    setenv("DBUS_SYSTEM_BUS_ADDRESS", "unix:path=/nonexistent/socket", 1);
    TestPartner partner;
    EXPECT_THAT([&] { partner.Join(); },
                testing::ThrowsMessage<std::system_error>(
                    "cannot reach the system bus: No such file or directory"));
    EXPECT_THAT(partner.Events(), IsEmpty());
}

TEST_F(PartnerLibrary, RefusesAChannelNameThatCannotBeUsed) {
    for (const std::string name :
         {"", "a-b", "a b", "a/b", "/", ".", "1digit", "a'b", "\xc3\xa4"}) {
        SCOPED_TRACE(name);
        TestPartner unusable(name);
        EXPECT_THROW(unusable.Join(), std::system_error);
        EXPECT_THAT(unusable.Events(), IsEmpty());
        EXPECT_EQ(unusable.UniqueName(), "");
    }
    TestPartner too_long(std::string(250, 'x'));
    EXPECT_THROW(too_long.Join(), std::system_error);
}

// ---- Leaving ----

struct LeavingCase {
    std::string name;
    Moment moment;
    bool opens;                       // the handshake, or answers
    std::vector<std::string> events;  // between joining and leaving; @ is the client
};

class PartnerLibraryLeaving : public PartnerLibrary,
                              public testing::WithParamInterface<LeavingCase> {};

TEST_P(PartnerLibraryLeaving, LeavesThenAndOnlyOnce) {
    const LeavingCase& leaving = GetParam();
    std::vector<std::string> expected = leaving.events;
    for (std::string& event : expected) {
        const std::size_t client = event.find('@');
        if (client != std::string::npos) {
            event.replace(client, 1, OwnName());
        }
    }
    partner.SetFaults(Leaving(leaving.moment));
    partner.Join();
    const std::string name = partner.UniqueName();
    expected.insert(expected.begin(), "joined " + name);
    expected.emplace_back("left");
    // The other end: this process's channel, or one that starts now.
    std::unique_ptr<TestChannel> late;
    if (leaving.opens) {
        partner.Open();
    } else {
        late = std::make_unique<TestChannel>();
    }
    if (leaving.moment == Moment::OnRequest) {
        ASSERT_TRUE(IterateUntil([&] { return channel.IsConnectionReady(); }));
        EXPECT_THAT(Send("x"), IsEmpty());
    }
    ASSERT_TRUE(IterateUntil([&] { return partner.Saw("left"); }));
    EXPECT_THAT(partner.Events(), ElementsAreArray(expected));
    if (leaving.opens) {
        // Once: the next time it stays. The other end must have forgotten it before.
        ASSERT_TRUE(IterateUntil([&] { return !NameHasOwner(name); }));
        Settle();
        ASSERT_TRUE(IterateUntil([&] { return channel.m_proxy_watch == 0; }));
        Connect(partner, channel);
    }
}

INSTANTIATE_TEST_SUITE_P(
    At, PartnerLibraryLeaving,
    testing::Values(
        LeavingCase{"BeforeSyn", Moment::BeforeSyn, true, {}},
        LeavingCase{"DuringSyn", Moment::DuringSyn, true, {}},
        LeavingCase{"AfterSyn", Moment::AfterSyn, true, {"announced SYN"}},
        LeavingCase{"BeforeSynAck", Moment::BeforeSynAck, false, {"heard SYN from @", "bound @"}},
        LeavingCase{"DuringSynAck", Moment::DuringSynAck, false, {"heard SYN from @", "bound @"}},
        LeavingCase{"AfterSynAck",
                    Moment::AfterSynAck,
                    false,
                    {"heard SYN from @", "bound @", "announced SYN_ACK"}},
        LeavingCase{"BeforeAck",
                    Moment::BeforeAck,
                    true,
                    {"announced SYN", "heard SYN_ACK from @", "bound @"}},
        LeavingCase{"DuringAck",
                    Moment::DuringAck,
                    true,
                    {"announced SYN", "heard SYN_ACK from @", "bound @"}},
        LeavingCase{"AfterAck",
                    Moment::AfterAck,
                    true,
                    {"announced SYN", "heard SYN_ACK from @", "bound @", "announced ACK"}},
        LeavingCase{
            "Ready",
            Moment::OnReady,
            true,
            {"announced SYN", "heard SYN_ACK from @", "bound @", "announced ACK", "ready @"}},
        LeavingCase{"Request",
                    Moment::OnRequest,
                    true,
                    {"announced SYN", "heard SYN_ACK from @", "bound @", "announced ACK", "ready @",
                     "request from @: 1 byte \"x\""}}),
    [](const auto& tested) { return tested.param.name; });

}  // namespace
