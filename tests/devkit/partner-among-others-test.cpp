// SPDX-License-Identifier: MIT
// The partner among other processes: whom it binds, whom it answers, whose messages it takes.
#include "tests/support/channel-test.h"
#include "tests/support/stranger.h"

namespace {

using testing::Contains;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::Not;

constexpr const char* kPath = "/org/ulmar/tevrol/CommunicationChannel/demo";
constexpr const char* kInterface = "org.ulmar.tevrol.DbusCommunication";

GVariant* Payload(const std::string& text) {
    return g_variant_new(
        "(@ay)", g_variant_new_fixed_array(G_VARIANT_TYPE_BYTE, text.data(), text.size(), 1));
}

class PartnerAmongOthers : public ChannelTest {
protected:
    PartnerAmongOthers() {
        partner.Join();
    }

    static std::string ClientName(const std::string& stage) {
        return "org.ulmar.Tevrol.demo_CLIENT_" + stage;
    }
    static std::string ServiceName(const std::string& stage) {
        return "org.ulmar.Tevrol.demo_SERVICE_" + stage;
    }

    // Binds `end` by its SYN_ACK: both are ready.
    void Connect(Stranger& end) {
        end.Pulse(ClientName("SYN_ACK"));
        EXPECT_TRUE(IterateUntil([&] { return partner.IsReady(); }));
        EXPECT_EQ(partner.BoundTo(), end.UniqueName());
    }
    void Notify(Stranger& sender, GVariant* body, const char* path = kPath,
                const char* interface_name = kInterface, const char* member = "SendSignal") {
        sender.Emit(partner.UniqueName().c_str(), path, interface_name, member, body);
    }
    // Calls `method` of the partner's object from this process. Its reply as text, or its error.
    std::string Ask(const char* method, GVariant* body) const {
        GError* error = nullptr;
        GVariant* reply = g_dbus_connection_call_sync(
            connection, partner.UniqueName().c_str(), kPath, kInterface, method, body, nullptr,
            G_DBUS_CALL_FLAGS_NONE, G_MAXINT, nullptr, &error);
        if (reply == nullptr) {
            gchar* name = g_dbus_error_get_remote_error(error);
            const std::string text = name;
            g_free(name);
            g_error_free(error);
            return text;
        }
        gchar* printed = g_variant_print(reply, FALSE);
        const std::string text = printed;
        g_free(printed);
        g_variant_unref(reply);
        return text;
    }
    // Returns when the partner has taken in what the bus has passed to it so far.
    void AwaitEverything() const {
        EXPECT_EQ(Ask("Send", Payload("?")), "([0x3f],)");
    }

    // Another partner, refused from now on, tells that the time of a repetition has passed.
    void AwaitTimeForARepetition() {
        TestPartner clock("clock");
        clock.Join();
        stranger.Acquire("org.ulmar.Tevrol.clock_SERVICE_ACK");
        client.Pulse("org.ulmar.Tevrol.clock_CLIENT_SYN_ACK");
        EXPECT_TRUE(IterateUntil([&] {
            return clock.Count("refused ACK: org.ulmar.Tevrol.clock_SERVICE_ACK: File exists") >= 3;
        }));
    }

    TestPartner partner;
    Stranger client{bus.Address()};
    Stranger stranger{bus.Address()};
};

// ---- Whom it binds ----

TEST_F(PartnerAmongOthers, StaysWithItsClientWhenAStrangerAnnounces) {
    Connect(client);
    const std::size_t before = partner.Events().size();
    stranger.Pulse(ClientName("SYN"));
    stranger.Pulse(ClientName("SYN_ACK"));
    AwaitEverything();
    EXPECT_EQ(partner.BoundTo(), client.UniqueName());
    const auto events = partner.Events();
    EXPECT_THAT(std::vector<std::string>(events.begin() + static_cast<std::ptrdiff_t>(before),
                                         events.end() - 1),
                ElementsAre("heard SYN from " + stranger.UniqueName(),
                            "heard SYN_ACK from " + stranger.UniqueName()));
}

TEST_F(PartnerAmongOthers, AnswersItsClientsSynOnce) {
    client.Pulse(ClientName("SYN"));
    client.Pulse(ClientName("SYN"));
    client.Pulse(ClientName("SYN_ACK"));
    AwaitEverything();
    EXPECT_EQ(partner.Count("announced SYN_ACK"), 1);
    EXPECT_EQ(partner.Count("announced ACK"), 0);
    EXPECT_FALSE(partner.IsReady());
}

TEST_F(PartnerAmongOthers, TakesAnAckForNothingWhenItIsNotBound) {
    client.Pulse(ClientName("ACK"));
    AwaitEverything();
    EXPECT_FALSE(partner.IsReady());
    EXPECT_EQ(partner.BoundTo(), "");
    EXPECT_THAT(partner.Events(), Not(Contains(HasSubstr("ready"))));
}

TEST_F(PartnerAmongOthers, TakesAStrangersAckForItsClientsAsTheOtherEndDoes) {
    client.Pulse(ClientName("SYN"));
    stranger.Pulse(ClientName("ACK"));
    EXPECT_TRUE(IterateUntil([&] { return partner.Saw("ready " + client.UniqueName()); }));
    EXPECT_EQ(partner.BoundTo(), client.UniqueName());
}

TEST_F(PartnerAmongOthers, HearsAReleaseOnlyAndNotItsOwn) {
    client.Acquire(ClientName("SYN"));
    EXPECT_TRUE(partner.HoldClientName(HandshakeStage::SynAck));
    EXPECT_TRUE(partner.ReleaseClientName(HandshakeStage::SynAck));
    AwaitEverything();
    EXPECT_THAT(partner.Events(), Not(Contains(HasSubstr("heard"))));
    client.Release(ClientName("SYN"));
    AwaitEverything();
    EXPECT_TRUE(partner.Saw("heard SYN from " + client.UniqueName()));
}

TEST_F(PartnerAmongOthers, HearsNothingOfANameThatPassesFromOneToAnother) {
    const auto acquire = [](const Connection& end, guint32 flags) {
        g_variant_unref(CallDriver(end.get(), "RequestName",
                                   g_variant_new("(su)", ClientName("SYN").c_str(), flags)));
    };
    constexpr guint32 kAllowReplacement = 1;
    constexpr guint32 kReplaceExisting = 2;
    const Connection first = OpenConnection(bus.Address());
    const Connection second = OpenConnection(bus.Address());
    acquire(first, kAllowReplacement);
    acquire(second, kReplaceExisting);
    AwaitEverything();
    EXPECT_THAT(partner.Events(), Not(Contains(HasSubstr("heard"))));
}

TEST_F(PartnerAmongOthers, HearsNoOtherChannel) {
    client.Pulse("org.ulmar.Tevrol.demo2_CLIENT_SYN");
    client.Pulse("org.ulmar.Tevrol.demo_SERVICE_SYN");
    AwaitEverything();
    EXPECT_THAT(partner.Events(), Not(Contains(HasSubstr("heard"))));
}

TEST_F(PartnerAmongOthers, KeepsItsClientWhenAStrangerLeaves) {
    Connect(client);
    {
        Stranger passer_by(bus.Address());
        Notify(passer_by, Payload("x"));
    }
    AwaitEverything();
    EXPECT_TRUE(partner.IsReady());
    EXPECT_THAT(partner.Events(), Not(Contains(HasSubstr("lost"))));
}

TEST_F(PartnerAmongOthers, BindsTheNextClientAfterTheLossOfTheFirst) {
    {
        Stranger first(bus.Address());
        Connect(first);
    }
    EXPECT_TRUE(IterateUntil([&] { return partner.BoundTo().empty(); }));
    EXPECT_FALSE(partner.IsReady());
    Connect(client);
}

TEST_F(PartnerAmongOthers, AcquiresANameAtOnceOrNever) {
    stranger.Acquire(ClientName("ACK"));
    EXPECT_FALSE(partner.HoldClientName(HandshakeStage::Ack));
    stranger.Release(ClientName("ACK"));
    EXPECT_FALSE(NameHasOwner(ClientName("ACK")));
    EXPECT_TRUE(partner.HoldClientName(HandshakeStage::Ack));
}

TEST_F(PartnerAmongOthers, LetsNobodyTakeANameFromIt) {
    EXPECT_TRUE(partner.HoldClientName(HandshakeStage::Ack));
    constexpr guint32 kReplaceExisting = 2;
    GVariant* reply =
        CallDriver(connection, "RequestName",
                   g_variant_new("(su)", ClientName("ACK").c_str(), kReplaceExisting | 4U));
    guint32 code = 0;
    g_variant_get(reply, "(u)", &code);
    g_variant_unref(reply);
    EXPECT_EQ(code, 3U);
}

TEST_F(PartnerAmongOthers, TakesNoNameFromAnotherEvenIfThatAllowsIt) {
    constexpr guint32 kAllowReplacement = 1;
    g_variant_unref(
        CallDriver(connection, "RequestName",
                   g_variant_new("(su)", ClientName("ACK").c_str(), kAllowReplacement | 4U)));
    EXPECT_FALSE(partner.HoldClientName(HandshakeStage::Ack));
}

// ---- What it owes ----

TEST_F(PartnerAmongOthers, RepeatsARefusedAnnouncementEveryHalfSecond) {
    using std::chrono::steady_clock;
    std::mutex mutex;
    std::vector<steady_clock::time_point> refused;
    partner.OnEvent([&](const tevrol::PartnerEvent& event) {
        if (event.kind == tevrol::PartnerEvent::Kind::Refused) {
            const std::lock_guard<std::mutex> lock(mutex);
            refused.push_back(steady_clock::now());
        }
    });
    stranger.Acquire(ServiceName("ACK"));
    client.Pulse(ClientName("SYN_ACK"));
    EXPECT_TRUE(IterateUntil([&] {
        const std::lock_guard<std::mutex> lock(mutex);
        return refused.size() >= 3;
    }));
    const std::lock_guard<std::mutex> lock(mutex);
    const auto twice = refused.at(2) - refused.at(0);
    EXPECT_GE(twice, std::chrono::milliseconds(990));
    EXPECT_LT(twice, std::chrono::seconds(4)) << "or this machine is very slow";
}

TEST_F(PartnerAmongOthers, NeverRepeatsARefusedSyn) {
    stranger.Acquire(ServiceName("SYN"));
    partner.Open();
    AwaitTimeForARepetition();
    partner.Settle();
    EXPECT_EQ(partner.Count("refused SYN: org.ulmar.Tevrol.demo_SERVICE_SYN: File exists"), 1);
}

TEST_F(PartnerAmongOthers, IsNotReadyByARepeatedSynAckAlone) {
    stranger.Acquire(ServiceName("SYN_ACK"));
    client.Pulse(ClientName("SYN"));
    EXPECT_TRUE(IterateUntil([&] {
        return partner.Saw("refused SYN_ACK: org.ulmar.Tevrol.demo_SERVICE_SYN_ACK: File exists");
    }));
    stranger.Release(ServiceName("SYN_ACK"));
    EXPECT_TRUE(IterateUntil([&] { return partner.Saw("announced SYN_ACK"); }));
    AwaitEverything();
    EXPECT_FALSE(partner.IsReady());
    client.Pulse(ClientName("ACK"));
    EXPECT_TRUE(IterateUntil([&] { return partner.IsReady(); }));
}

TEST_F(PartnerAmongOthers, OwesNothingAnyMoreToAClientThatIsLost) {
    const std::string refused = "refused ACK: org.ulmar.Tevrol.demo_SERVICE_ACK: File exists";
    stranger.Acquire(ServiceName("ACK"));
    {
        Stranger lost(bus.Address());
        lost.Pulse(ClientName("SYN_ACK"));
        EXPECT_TRUE(IterateUntil([&] { return partner.Saw(refused); }));
    }
    EXPECT_TRUE(IterateUntil([&] { return partner.BoundTo().empty(); }));
    const int before = partner.Count(refused);
    AwaitTimeForARepetition();
    partner.Settle();
    EXPECT_EQ(partner.Count(refused), before);
    EXPECT_FALSE(partner.Saw("announced ACK"));
}

// ---- Whose messages it takes ----

TEST_F(PartnerAmongOthers, IgnoresNotificationsFromStrangers) {
    Connect(client);
    Notify(stranger, Payload("strange"));
    Notify(client, Payload("known"));
    AwaitEverything();
    EXPECT_THAT(partner.Notifications(), ElementsAre(ToBytes("known")));
    EXPECT_THAT(partner.Events(),
                Contains("notification from " + client.UniqueName() + ": 5 bytes \"known\""));
}

TEST_F(PartnerAmongOthers, IgnoresNotificationsFromAClientThatIsNotBound) {
    Notify(client, Payload("early"));
    AwaitEverything();
    EXPECT_THAT(partner.Notifications(), IsEmpty());
}

TEST_F(PartnerAmongOthers, TakesEverySignalOfTheInterfaceOnItsPathAndNoOther) {
    Connect(client);
    Notify(client, Payload("other member"), kPath, kInterface, "Other");
    Notify(client, Payload("other path"), "/org/ulmar/tevrol/CommunicationChannel/demo2");
    Notify(client, Payload("other interface"), kPath, "org.ulmar.Other");
    AwaitEverything();
    EXPECT_THAT(partner.Notifications(), ElementsAre(ToBytes("other member")));
}

TEST_F(PartnerAmongOthers, AnswersARequestOfAStranger) {
    Connect(client);
    EXPECT_EQ(Ask("Send", Payload("AB")), "([0x41, 0x42],)");
    EXPECT_TRUE(partner.Saw("request from " + OwnName() + ": 2 bytes \"AB\""));
}

TEST_F(PartnerAmongOthers, RefusesWhatIsNoRequest) {
    EXPECT_EQ(Ask("Send", g_variant_new("(s)", "text")), "org.freedesktop.DBus.Error.InvalidArgs");
    EXPECT_EQ(Ask("Other", Payload("x")), "org.freedesktop.DBus.Error.UnknownMethod");
    EXPECT_THAT(partner.Requests(), IsEmpty());
}

TEST_F(PartnerAmongOthers, ToldToReplyWithAWrongTypeStillRefusesWhatIsNoRequest) {
    PartnerFaults faults;
    faults.reply = PartnerFaults::Reply::WrongType;
    partner.SetFaults(faults);
    EXPECT_EQ(Ask("Other", Payload("x")), "org.freedesktop.DBus.Error.UnknownMethod");
    EXPECT_EQ(Ask("Send", Payload("x")), "('no byte array',)");
}

TEST_F(PartnerAmongOthers, AsksItsClientOnlyOnceItIsReady) {
    client.Pulse(ClientName("SYN"));
    EXPECT_TRUE(IterateUntil([&] { return !partner.BoundTo().empty(); }));
    EXPECT_EQ(partner.Request(ToBytes("x")).get().error, "not ready");
    EXPECT_TRUE(partner.Notify(ToBytes("x"))) << "a notification needs no readiness";
}

TEST_F(PartnerAmongOthers, NotifiesItsClientAlone) {
    Connect(client);
    const Arrivals arrivals(connection, partner.UniqueName());
    EXPECT_TRUE(partner.Notify(ToBytes("x")));
    partner.Settle();
    Receive();
    EXPECT_EQ(arrivals.Count(), 0);
    EXPECT_TRUE(partner.NotifyTo(OwnName(), tevrol::PayloadBody(ToBytes("x"))));
    partner.Settle();
    Receive();
    EXPECT_EQ(arrivals.Count(), 1);
}

}  // namespace
