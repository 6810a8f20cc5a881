// SPDX-License-Identifier: MIT
// tevrolctl monitor: what it concludes from the bus's messages, and how it shows, records and
// draws.
#include <algorithm>
#include <csignal>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <map>
#include <regex>
#include <sstream>

#include "tests/programs/odd-service.h"
#include "tests/programs/tool.h"

namespace {

using testing::Contains;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::Not;
using tevrol::IterateUntil;
using tevrol::PartnerProcess;
using Lines = std::vector<std::string>;

constexpr const char* kConversation = TEVROLCTL_TESTS "/monitor/conversation.jsonl";

// ---- What is seen on the bus ----

// A member of the JSON object `line`, as it stands there.
std::string Value(const std::string& line, const std::string& name) {
    std::smatch found;
    std::regex_search(line, found, std::regex("\"" + name + "\":(\"[^\"]*\"|[0-9-]+)"));
    return found[1];
}

gint64 Number(const std::string& line, const std::string& name) {
    return std::stoll(Value(line, name));
}

class MonitorOfTheBus : public TevrolctlTest {
protected:
    void Start(const Arguments& channels = {}) {
        Arguments command = {"monitor", "--json"};
        command.insert(command.end(), channels.begin(), channels.end());
        m_monitor = StartTool(command, "monitoring");
    }

    // The same, and these are called C and S.
    void Start(const Peer& client, const Peer& service) {
        Start();
        Name(client.UniqueName(), "C");
        Name(service.UniqueName(), "S");
    }

    // In a line, `process` is called by this letter.
    void Name(const std::string& process, const std::string& letter) {
        m_letters[process] = letter;
    }

    // What it has printed: without "monitoring", the times, and the braces; processes by letters.
    Lines Seen() const {
        Lines seen = m_monitor->Lines();
        seen.erase(seen.begin());
        for (std::string& line : seen) {
            line = std::regex_replace(
                line,
                std::regex("^\\{\"time\":[0-9]+,\"duration\":[0-9]+,|(,\"serial\":[0-9]+)?\\}$|\""),
                "");
            for (const auto& [process, letter] : m_letters) {
                line = std::regex_replace(line, std::regex("(from|to):" + process + "(,|$)"),
                                          "$1:" + letter + "$2");
            }
        }
        return seen;
    }
    // All that has happened so far, as soon as it was seen: a last sign comes through behind it.
    Lines AllSeen() {
        const std::string sign = "last" + std::to_string(++m_signs);
        {
            Peer last;
            last.Pulse("org.ulmar.Tevrol." + sign + "_SERVICE_ACK");
        }
        AwaitText(*m_monitor, "\"kind\":\"lost\",\"channel\":\"" + sign + "\"");
        Lines seen = Seen();
        seen.erase(std::remove_if(seen.begin(), seen.end(),
                                  [](const std::string& line) {
                                      return line.find("channel:last") != std::string::npos;
                                  }),
                   seen.end());
        return seen;
    }
    // The same without what is about names: bound, ready, lost and messages are left.
    Lines AllConcluded() {
        Lines concluded;
        for (const std::string& line : AllSeen()) {
            if (line.rfind("kind:owned", 0) != 0 && line.rfind("kind:released", 0) != 0) {
                concluded.push_back(line);
            }
        }
        return concluded;
    }
    // The first raw line of that kind.
    std::string Raw(const std::string& kind) const {
        AwaitText(*m_monitor, "\"kind\":\"" + kind + "\"");
        for (const std::string& line : m_monitor->Lines()) {
            if (line.find("\"kind\":\"" + kind + "\"") != std::string::npos) {
                return line;
            }
        }
        return {};
    }

    void PulseClient(Peer& peer, const std::string& stage) {
        peer.Pulse("org.ulmar.Tevrol.demo_CLIENT_" + stage);
    }
    void PulseService(Peer& peer, const std::string& stage) {
        peer.Pulse("org.ulmar.Tevrol.demo_SERVICE_" + stage);
    }
    // A pair that is bound to each other by the service's SYN.
    void Bind(Peer& client, Peer& service) {
        PulseService(service, "SYN");
        PulseClient(client, "SYN_ACK");
        PulseService(service, "ACK");
    }

    std::unique_ptr<PartnerProcess> m_monitor;

private:
    std::map<std::string, std::string> m_letters;
    int m_signs = 0;
};

TEST_F(MonitorOfTheBus, TellsAHandshakeThatTheServiceOpens) {
    Peer client;
    Peer service;
    Start(client, service);
    Bind(client, service);
    EXPECT_THAT(AllSeen(),
                ElementsAre("kind:owned,channel:demo,from:S,role:SERVICE,stage:SYN",
                            "kind:released,channel:demo,from:S,role:SERVICE,stage:SYN",
                            "kind:owned,channel:demo,from:C,role:CLIENT,stage:SYN_ACK",
                            "kind:released,channel:demo,from:C,to:S,role:CLIENT,stage:SYN_ACK",
                            "kind:bound,channel:demo,from:C,to:S,role:CLIENT,stage:SYN_ACK",
                            "kind:owned,channel:demo,from:S,role:SERVICE,stage:ACK",
                            "kind:released,channel:demo,from:S,to:C,role:SERVICE,stage:ACK",
                            "kind:bound,channel:demo,from:S,to:C,role:SERVICE,stage:ACK",
                            "kind:ready,channel:demo,from:S,to:C,role:SERVICE,stage:ACK"));
}

TEST_F(MonitorOfTheBus, TellsAHandshakeThatTheClientOpens) {
    Peer client;
    Peer service;
    Start(client, service);
    PulseClient(client, "SYN");
    PulseService(service, "SYN_ACK");
    PulseClient(client, "ACK");
    EXPECT_THAT(AllConcluded(),
                ElementsAre("kind:bound,channel:demo,from:S,to:C,role:SERVICE,stage:SYN_ACK",
                            "kind:bound,channel:demo,from:C,to:S,role:CLIENT,stage:ACK",
                            "kind:ready,channel:demo,from:C,to:S,role:CLIENT,stage:ACK"));
}

TEST_F(MonitorOfTheBus, BindsTheLastThatHasAnnouncedItself) {
    Start();
    Peer first;
    Peer last;
    Peer service;
    Name(last.UniqueName(), "L");
    Name(service.UniqueName(), "S");
    PulseClient(first, "SYN");
    PulseClient(last, "SYN");
    PulseService(service, "SYN_ACK");
    EXPECT_THAT(AllConcluded(),
                ElementsAre("kind:bound,channel:demo,from:S,to:L,role:SERVICE,stage:SYN_ACK"));
}

TEST_F(MonitorOfTheBus, BindsNobodyThatItHasNotHeard) {
    Start();
    Peer service;
    PulseService(service, "SYN_ACK");
    PulseService(service, "ACK");
    EXPECT_THAT(AllConcluded(), IsEmpty());
}

TEST_F(MonitorOfTheBus, BindsNobodyThatHasLeft) {
    Start();
    auto client = std::make_unique<Peer>();
    Peer service;
    PulseClient(*client, "SYN");
    client.reset();
    const std::size_t before = AllConcluded().size();
    PulseService(service, "SYN_ACK");
    EXPECT_EQ(AllConcluded().size(), before);
}

TEST_F(MonitorOfTheBus, BindsNobodyOfTheSameRoleOrOfAnotherChannel) {
    Start();
    Peer service;
    Peer other;
    PulseService(other, "SYN");
    other.Pulse("org.ulmar.Tevrol.demo2_CLIENT_SYN");
    PulseService(service, "SYN_ACK");
    EXPECT_THAT(AllConcluded(), IsEmpty());
}

TEST_F(MonitorOfTheBus, LeavesAPairBoundWhenAStrangerAnnounces) {
    Start();
    Peer client;
    Peer service;
    Peer stranger;
    Bind(client, service);
    const std::size_t before = AllConcluded().size();
    PulseClient(stranger, "SYN");
    PulseService(service, "SYN_ACK");
    PulseService(service, "ACK");
    EXPECT_EQ(AllConcluded().size(), before);
}

TEST_F(MonitorOfTheBus, IsReadyOnceAndOnlyWithTheAckOfABoundPair) {
    Start();
    Peer client;
    Peer service;
    PulseClient(client, "SYN");
    PulseClient(client, "ACK");
    PulseService(service, "SYN_ACK");
    const auto is_ready = [](const std::string& line) { return line.rfind("kind:ready", 0) == 0; };
    const auto count_ready = [&] {
        const Lines seen = AllConcluded();
        return std::count_if(seen.begin(), seen.end(), is_ready);
    };
    EXPECT_EQ(count_ready(), 0);
    PulseClient(client, "ACK");
    PulseClient(client, "ACK");
    EXPECT_EQ(count_ready(), 1);
}

TEST_F(MonitorOfTheBus, IsNotReadyByTheSynAcksOfTwoThatHaveCrossed) {
    Peer client;
    Peer service;
    Start(client, service);
    PulseClient(client, "SYN");
    PulseService(service, "SYN");
    PulseClient(client, "SYN_ACK");
    PulseService(service, "SYN_ACK");
    EXPECT_THAT(AllConcluded(),
                ElementsAre("kind:bound,channel:demo,from:C,to:S,role:CLIENT,stage:SYN_ACK",
                            "kind:bound,channel:demo,from:S,to:C,role:SERVICE,stage:SYN_ACK"));
    PulseService(service, "ACK");
    EXPECT_EQ(AllConcluded().back(), "kind:ready,channel:demo,from:S,to:C,role:SERVICE,stage:ACK");
}

TEST_F(MonitorOfTheBus, IsNotReadyWhileOneOfTwoIsBoundAlone) {
    Peer client;
    Peer service;
    Start(client, service);
    PulseClient(client, "SYN");
    PulseService(service, "SYN_ACK");
    PulseService(service, "ACK");
    EXPECT_THAT(AllConcluded(),
                ElementsAre("kind:bound,channel:demo,from:S,to:C,role:SERVICE,stage:SYN_ACK"));
}

TEST_F(MonitorOfTheBus, MeasuresNoHandshakeWithoutASyn) {
    Start();
    Peer client;
    Peer service;
    PulseClient(client, "SYN_ACK");
    PulseService(service, "ACK");
    PulseService(service, "SYN_ACK");
    PulseClient(client, "ACK");
    EXPECT_EQ(Value(Raw("ready"), "duration"), "0");
}

TEST_F(MonitorOfTheBus, MeasuresHowLongANameWasHeldAndAHandshakeTook) {
    constexpr gint64 kHeld = 30000;
    Start();
    Peer client;
    Peer service;
    const gint64 start = g_get_real_time();
    service.Acquire("org.ulmar.Tevrol.demo_SERVICE_SYN");
    Raw("owned");
    const gint64 until = g_get_monotonic_time() + kHeld;
    while (g_get_monotonic_time() < until) {
        g_usleep(1000);
    }
    service.Release("org.ulmar.Tevrol.demo_SERVICE_SYN");
    const std::string released = Raw("released");
    PulseClient(client, "SYN_ACK");
    PulseService(service, "ACK");
    const std::string ready = Raw("ready");
    const gint64 took = g_get_real_time() - start;
    EXPECT_GE(Number(released, "duration"), kHeld);
    EXPECT_LE(Number(released, "duration"), took);
    EXPECT_GE(Number(released, "time"), start + kHeld);
    EXPECT_LE(Number(ready, "time"), start + took);
    EXPECT_EQ(Number(ready, "duration"), Number(ready, "time") - Number(released, "time"));
    EXPECT_EQ(Value(Raw("owned"), "duration"), "0");
    EXPECT_EQ(Value(Raw("bound"), "duration"), "0");
}

TEST_F(MonitorOfTheBus, MeasuresAHandshakeFromTheLaterSyn) {
    Start();
    Peer client;
    Peer service;
    PulseClient(client, "SYN");
    Raw("released");
    PulseService(service, "SYN");
    PulseClient(client, "SYN_ACK");
    PulseService(service, "ACK");
    const std::string ready = Raw("ready");
    std::string service_syn;
    for (const std::string& line : m_monitor->Lines()) {
        if (line.find("\"released\"") != std::string::npos &&
            line.find("\"SERVICE\",\"stage\":\"SYN\"") != std::string::npos) {
            service_syn = line;
        }
    }
    EXPECT_EQ(Number(ready, "duration"), Number(ready, "time") - Number(service_syn, "time"));
}

TEST_F(MonitorOfTheBus, TellsALossWithWhomItLeaves) {
    auto client = std::make_unique<Peer>();
    Peer service;
    Start(*client, service);
    Bind(*client, service);
    const std::size_t before = AllConcluded().size();
    client.reset();
    const Lines seen = AllConcluded();
    ASSERT_EQ(seen.size(), before + 1);
    EXPECT_EQ(seen.back(), "kind:lost,channel:demo,from:C,to:S,role:CLIENT");
}

TEST_F(MonitorOfTheBus, TellsTheLossOfOneThatAnotherHasBound) {
    auto client = std::make_unique<Peer>();
    Peer service;
    Start(*client, service);
    PulseClient(*client, "SYN");
    PulseService(service, "SYN_ACK");
    client.reset();
    EXPECT_EQ(AllConcluded().back(), "kind:lost,channel:demo,from:C,to:S,role:CLIENT");
}

TEST_F(MonitorOfTheBus, TellsTheLossOfOneThatHasBoundAnother) {
    Peer client;
    auto service = std::make_unique<Peer>();
    Start(client, *service);
    PulseClient(client, "SYN");
    PulseService(*service, "SYN_ACK");
    service.reset();
    EXPECT_EQ(AllConcluded().back(), "kind:lost,channel:demo,from:S,to:C,role:SERVICE");
}

TEST_F(MonitorOfTheBus, TellsNoLossOfAProcessThatHasNoChannel) {
    Start();
    { const Peer passer_by; }
    auto other = std::make_unique<Peer>();
    other->Pulse("org.ulmar.Other");
    other.reset();
    EXPECT_THAT(AllSeen(), IsEmpty());
}

TEST_F(MonitorOfTheBus, TellsTheNextPairAfterALoss) {
    Start();
    auto first = std::make_unique<Peer>();
    Peer service;
    Bind(*first, service);
    first.reset();
    Peer next;
    Name(next.UniqueName(), "N");
    Name(service.UniqueName(), "S");
    PulseClient(next, "SYN");
    PulseService(service, "SYN_ACK");
    PulseClient(next, "ACK");
    const Lines seen = AllConcluded();
    ASSERT_GE(seen.size(), 3U);
    EXPECT_THAT(Lines(seen.end() - 3, seen.end()),
                ElementsAre("kind:bound,channel:demo,from:S,to:N,role:SERVICE,stage:SYN_ACK",
                            "kind:bound,channel:demo,from:N,to:S,role:CLIENT,stage:ACK",
                            "kind:ready,channel:demo,from:N,to:S,role:CLIENT,stage:ACK"));
}

TEST_F(MonitorOfTheBus, TellsALossInEachOfAProcesssChannels) {
    Start();
    auto peer = std::make_unique<Peer>();
    Name(peer->UniqueName(), "P");
    peer->Pulse("org.ulmar.Tevrol.a_CLIENT_SYN");
    peer->Pulse("org.ulmar.Tevrol.b_SERVICE_SYN");
    peer.reset();
    EXPECT_THAT(AllConcluded(), ElementsAre("kind:lost,channel:a,from:P,role:CLIENT",
                                            "kind:lost,channel:b,from:P,role:SERVICE"));
}

TEST_F(MonitorOfTheBus, TakesNamesApart) {
    Start();
    Peer peer;
    Name(peer.UniqueName(), "P");
    for (const char* name :
         {"org.ulmar.Tevrol.a_CLIENT_SYN_ACK", "org.ulmar.Tevrol.b_SYN_SERVICE_ACK",
          "org.ulmar.Tevrol.c_CLIENT_SYN_SERVICE_SYN", "org.ulmar.Tevrol._CLIENT_SYN",
          "org.ulmar.Tevrol.d_CLIENT_FIN", "org.ulmar.Tevrol.e",
          "org.ulmar.Tevrox.foreign_CLIENT_SYN", "org.ulmar.Tevrol.g_client_SYN"}) {
        peer.Acquire(name);
    }
    EXPECT_THAT(AllSeen(),
                ElementsAre("kind:owned,channel:a,from:P,role:CLIENT,stage:SYN_ACK",
                            "kind:owned,channel:b_SYN,from:P,role:SERVICE,stage:ACK",
                            "kind:owned,channel:c_CLIENT_SYN,from:P,role:SERVICE,stage:SYN"));
}

TEST_F(MonitorOfTheBus, TellsARefusalByAnotherOwner) {
    Start();
    Peer owner;
    Peer refused;
    Name(refused.UniqueName(), "R");
    owner.Acquire("org.ulmar.Tevrol.demo_CLIENT_SYN");
    EXPECT_EQ(refused.Acquire("org.ulmar.Tevrol.demo_CLIENT_SYN"), 3U);
    EXPECT_EQ(refused.Acquire("org.ulmar.Tevrol.demo_CLIENT_SYN", 0), 2U);
    EXPECT_THAT(AllConcluded(),
                ElementsAre("kind:refused,channel:demo,from:R,role:CLIENT,stage:SYN,"
                            "text:another process owns it (3)",
                            "kind:refused,channel:demo,from:R,role:CLIENT,stage:SYN,"
                            "text:another process owns it (2)"));
}

TEST_F(MonitorOfTheBus, TellsNoRefusalOfARelease) {
    Start();
    Peer peer;
    peer.Release("org.ulmar.Tevrol.demo_CLIENT_SYN");  // which it does not own
    EXPECT_THAT(AllSeen(), IsEmpty());
}

TEST_F(MonitorOfTheBus, TellsARequestAndItsReply) {
    Peer client;
    OddService service;
    Start(client, service);
    PulseClient(client, "SYN");
    EXPECT_TRUE(IterateUntil([&] { return !service.Bound().empty(); }));
    client.Call(service.UniqueName(), BodyOf({'\0', '\xff'}));
    bool asked = false;
    service.on_request = [&](const OddService::Incoming&) {
        asked = true;
        return std::nullopt;
    };
    EXPECT_TRUE(IterateUntil([&] { return asked; }));
    service.CallDriver("GetId", nullptr);
    const Lines seen = AllConcluded();
    EXPECT_THAT(Lines(seen.end() - 2, seen.end()),
                ElementsAre("kind:request,channel:demo,from:C,to:S,role:CLIENT,size:2,hex:00ff",
                            "kind:reply,channel:demo,from:S,to:C,role:SERVICE,size:2,hex:00ff"));
    const std::string request = Raw("request");
    const std::string reply = Raw("reply");
    EXPECT_EQ(Value(request, "duration"), "0");
    EXPECT_EQ(Number(reply, "duration"), Number(reply, "time") - Number(request, "time"));
}

TEST_F(MonitorOfTheBus, TellsAnErrorInsteadOfTheReplyAndAReplyOfAnotherType) {
    Peer client;
    OddService service;
    Start(client, service);
    int asked = 0;
    service.on_request = [&](const OddService::Incoming&) {
        ++asked;
        return asked == 1 ? OddService::Reply::Error : OddService::Reply::Text;
    };
    client.Call(service.UniqueName(), BodyOf({'x'}));
    client.Call(service.UniqueName(), BodyOf({}));
    EXPECT_TRUE(IterateUntil([&] { return asked == 2; }));
    service.CallDriver("GetId", nullptr);
    EXPECT_THAT(AllConcluded(), ElementsAre("kind:request,channel:demo,from:C,to:S,size:1,hex:78",
                                            "kind:request,channel:demo,from:C,to:S,size:0,hex:",
                                            "kind:error,channel:demo,from:S,to:C,"
                                            "text:org.ulmar.tevrol.Error.Odd: refused",
                                            "kind:malformed,channel:demo,from:S,to:C,"
                                            "text:reply of type \\s\\"));
}

TEST_F(MonitorOfTheBus, GivesEachOfTwoCallersItsReplyThoughTheirSerialsAreTheSame) {
    Start();
    Peer first;
    Peer second;
    OddService service;
    Name(first.UniqueName(), "1");
    Name(second.UniqueName(), "2");
    Name(service.UniqueName(), "S");
    int asked = 0;
    service.on_request = [&](const OddService::Incoming&) {
        ++asked;
        return std::nullopt;
    };
    first.Call(service.UniqueName(), BodyOf({'1'}));
    second.Call(service.UniqueName(), BodyOf({'2'}));
    EXPECT_TRUE(IterateUntil([&] { return asked == 2; }));
    service.CallDriver("GetId", nullptr);
    EXPECT_THAT(AllConcluded(), ElementsAre("kind:request,channel:demo,from:1,to:S,size:1,hex:31",
                                            "kind:request,channel:demo,from:2,to:S,size:1,hex:32",
                                            "kind:reply,channel:demo,from:S,to:1,size:1,hex:31",
                                            "kind:reply,channel:demo,from:S,to:2,size:1,hex:32"));
}

TEST_F(MonitorOfTheBus, TellsNotificationsAndSuchOfAnotherType) {
    Start();
    Peer service;
    Peer client;
    Name(client.UniqueName(), "C");
    Name(service.UniqueName(), "S");
    PulseService(service, "SYN");
    service.Emit(client.UniqueName(), BodyOf({'x'}));
    service.Emit(client.UniqueName(), BodyOf({}));
    client.Emit(service.UniqueName(), g_variant_new("(s)", "text"));
    EXPECT_THAT(AllConcluded(),
                ElementsAre("kind:notification,channel:demo,from:S,to:C,role:SERVICE,size:1,hex:78",
                            "kind:notification,channel:demo,from:S,to:C,role:SERVICE,size:0,hex:",
                            "kind:malformed,channel:demo,from:C,to:S,"
                            "text:notification of type \\s\\"));
}

TEST_F(MonitorOfTheBus, TellsARequestOfAnotherType) {
    Start();
    OddService service;
    service.on_request = [](const OddService::Incoming&) { return OddService::Reply::None; };
    Peer client;
    Name(client.UniqueName(), "C");
    Name(service.UniqueName(), "S");
    client.Call(service.UniqueName(), g_variant_new("(u)", 7U));
    EXPECT_THAT(AllConcluded(), ElementsAre("kind:malformed,channel:demo,from:C,to:S,"
                                            "text:request of type \\u\\"));
}

TEST_F(MonitorOfTheBus, PassesOverMessagesThatAreNoChannels) {
    Start();
    Peer peer;
    Peer other;
    const std::string to = other.UniqueName();
    const std::string demo = "/org/ulmar/tevrol/CommunicationChannel/demo";
    const char* interface = "org.ulmar.tevrol.DbusCommunication";
    peer.Emit(to, BodyOf({}), "/org/ulmar/tevrol/Other/demo", interface);
    peer.Call(to, BodyOf({}), "/org/ulmar/tevrol/Other/demo", interface);
    peer.Emit(to, BodyOf({}), demo, "org.ulmar.Other");
    peer.Call(to, BodyOf({}), demo, "org.ulmar.Other");
    EXPECT_THAT(AllSeen(), IsEmpty());
}

TEST_F(MonitorOfTheBus, BelievesNoOwnerChangeThatIsNotTheDrivers) {
    Start();
    Peer forger;
    GDBusMessage* forged = g_dbus_message_new_signal("/org/freedesktop/DBus",
                                                     "org.freedesktop.DBus", "NameOwnerChanged");
    g_dbus_message_set_body(
        forged, g_variant_new("(sss)", "org.ulmar.Tevrol.demo_SERVICE_SYN", "", ":1.7"));
    g_dbus_connection_send_message(forger.Get(), forged, G_DBUS_SEND_MESSAGE_FLAGS_NONE, nullptr,
                                   nullptr);
    g_object_unref(forged);
    forger.CallDriver("GetId", nullptr);
    EXPECT_THAT(AllSeen(), IsEmpty());
}

TEST_F(MonitorOfTheBus, ShowsOnlyTheChannelsThatAreNamed) {
    Start({"demo", "last1"});
    Peer peer;
    peer.Pulse("org.ulmar.Tevrol.demo2_SERVICE_SYN");
    PulseService(peer, "SYN");
    const Lines seen = AllSeen();
    ASSERT_EQ(seen.size(), 2U);
    EXPECT_THAT(seen.front(), HasSubstr("channel:demo,"));
}

TEST_F(MonitorOfTheBus, AnswersNothingForThoseWhomItWatches) {
    Start();
    Peer client;
    OddService service;
    service.on_request = [](const OddService::Incoming&) { return OddService::Reply::None; };
    client.Call(service.UniqueName(), BodyOf({'x'}));
    Raw("request");
    EXPECT_THAT(AllConcluded(), Not(Contains(HasSubstr("kind:error"))));
    EXPECT_THAT(AllConcluded(), Not(Contains(HasSubstr("kind:reply"))));
}

TEST_F(MonitorOfTheBus, BindsNobodyToItself) {
    Start();
    Peer both;
    PulseService(both, "SYN");
    PulseClient(both, "SYN_ACK");
    PulseService(both, "ACK");
    EXPECT_THAT(AllConcluded(), IsEmpty());
}

TEST_F(MonitorOfTheBus, AscribesTheErrorsOfTheBusToTheBus) {
    Start();
    Peer client;
    Name(client.UniqueName(), "C");
    client.Call(":1.9999", BodyOf({'x'}));
    EXPECT_THAT(AllConcluded(),
                ElementsAre("kind:request,channel:demo,from:C,to::1.9999,size:1,hex:78",
                            HasSubstr("kind:error,channel:demo,from:org.freedesktop.DBus,to:C,"
                                      "text:org.freedesktop.DBus.Error.ServiceUnknown: ")));
}

TEST_F(MonitorOfTheBus, TakesOtherMembersForNoMessagesOfTheChannel) {
    Start();
    Peer client;
    OddService service;
    Name(client.UniqueName(), "C");
    Name(service.UniqueName(), "S");
    const std::string path = "/org/ulmar/tevrol/CommunicationChannel/demo";
    const char* interface = "org.ulmar.tevrol.DbusCommunication";
    service.on_request = [](const OddService::Incoming&) { return OddService::Reply::None; };
    client.Call(service.UniqueName(), BodyOf({'x'}), path, interface, "Other");
    client.Emit(service.UniqueName(), BodyOf({'x'}), path, interface, "Another");
    EXPECT_THAT(AllConcluded(), ElementsAre("kind:malformed,channel:demo,from:C,to:S,"
                                            "text:request called \\Other\\",
                                            "kind:malformed,channel:demo,from:C,to:S,"
                                            "text:notification called \\Another\\"));
}

TEST_F(MonitorOfTheBus, TellsANotificationToEverybody) {
    Start();
    Peer service;
    Name(service.UniqueName(), "S");
    service.Emit("", BodyOf({'x'}));
    EXPECT_THAT(AllConcluded(), ElementsAre("kind:notification,channel:demo,from:S,"
                                            "text:sent to everybody,size:1,hex:78"));
}

TEST_F(MonitorOfTheBus, BeginsWithWhoIsThere) {
    Peer first;
    Peer second;
    first.Acquire("org.ulmar.Tevrol.other_CLIENT", 0);
    second.Acquire("org.ulmar.Tevrol.other_CLIENT", 0);
    second.Acquire("org.ulmar.Tevrol.other_CLIENT_ACK");
    const auto foreign = StartForeign();
    const auto joined = foreign->Find("joined ");
    Start();
    Name(*joined, "S");
    Name(first.UniqueName(), "1");
    Name(second.UniqueName(), "2");
    const auto named = [](const std::string& line) {
        return std::regex_replace(line, std::regex("text:[^,]*, process [0-9]+"), "PROCESS");
    };
    Lines seen;
    for (const std::string& line : AllSeen()) {
        seen.push_back(named(line));
    }
    EXPECT_THAT(seen, testing::UnorderedElementsAre(
                          "kind:active,channel:other,from:1,role:CLIENT,PROCESS",
                          "kind:standby,channel:other,from:2,role:CLIENT,PROCESS",
                          "kind:owned,channel:other,from:2,role:CLIENT,stage:ACK,PROCESS",
                          "kind:present,channel:demo,from:S,PROCESS"));
    EXPECT_THAT(Raw("present"), HasSubstr("\"text\":\"foreign-end.py, process "));
    foreign->Kill();
    EXPECT_EQ(AllSeen().back(), "kind:lost,channel:demo,from:S");
}

TEST_F(MonitorOfTheBus, KnowsFromMessagesWhoIsBoundToOneThatWasThere) {
    const auto foreign = StartForeign();
    const auto client = StartForeign("", "ready ", "demo", "client");
    Start();
    Name(*foreign->Find("joined "), "S");
    Name(*client->Find("joined "), "C");
    client->Command("notify hi");
    Raw("notification");
    foreign->Kill();
    EXPECT_EQ(AllSeen().back(), "kind:lost,channel:demo,from:S,to:C");
}

TEST_F(MonitorOfTheBus, CountsRepeatedSyns) {
    Start();
    Peer client;
    Peer service;
    Name(client.UniqueName(), "C");
    Name(service.UniqueName(), "S");
    PulseClient(client, "SYN");
    PulseClient(client, "SYN");
    PulseClient(client, "SYN");
    EXPECT_EQ(AllSeen().back(),
              "kind:released,channel:demo,from:C,role:CLIENT,stage:SYN,"
              "text:number 3 in a row");
    PulseService(service, "SYN_ACK");
    PulseClient(client, "ACK");
    PulseClient(client, "SYN");
    EXPECT_EQ(AllSeen().back(), "kind:released,channel:demo,from:C,to:S,role:CLIENT,stage:SYN");
}

TEST_F(MonitorOfTheBus, TellsTheActiveEndAndItsStandby) {
    Start();
    auto first = std::make_unique<Peer>();
    Peer second;
    const std::string name_of_first = first->UniqueName();
    Name(name_of_first, "1");
    Name(second.UniqueName(), "2");
    first->Acquire("org.ulmar.Tevrol.demo_SERVICE", 0);
    second.Acquire("org.ulmar.Tevrol.demo_SERVICE", 0);
    EXPECT_THAT(AllSeen(), ElementsAre("kind:active,channel:demo,from:1,role:SERVICE",
                                       "kind:standby,channel:demo,from:2,role:SERVICE"));
    first.reset();
    EXPECT_THAT(AllSeen(), Contains("kind:active,channel:demo,from:2,role:SERVICE,"
                                    "text:takes over from " +
                                    name_of_first));
}

TEST_F(MonitorOfTheBus, TellsWhatBecomesOfTheDirectLink) {
    auto client = std::make_unique<Peer>();
    OddService service;
    Start(*client, service);
    PulseClient(*client, "SYN");
    PulseService(service, "SYN");
    const std::string path = "/org/ulmar/tevrol/CommunicationChannel/demo";
    const auto open = [&](OddService::Reply reply) {
        bool asked = false;
        service.on_request = [&](const OddService::Incoming&) {
            asked = true;
            return reply;
        };
        client->Call(service.UniqueName(), BodyOf({}), path, "org.ulmar.tevrol.DirectLink", "Open");
        EXPECT_TRUE(IterateUntil([&] { return asked; }));
        service.CallDriver("GetId", nullptr);
    };
    open(OddService::Reply::Error);
    EXPECT_THAT(AllConcluded().back(),
                HasSubstr("kind:direct,channel:demo,from:C,to:S,text:refused: "
                          "org.freedesktop.DBus.Error.InvalidArgs: "));
    open(OddService::Reply::Correct);
    EXPECT_EQ(AllConcluded().back(), "kind:direct,channel:demo,from:C,to:S,text:begins");
    client.reset();
    EXPECT_EQ(AllConcluded().back(),
              "kind:lost,channel:demo,from:C,to:S,role:CLIENT,text:the direct link ends");
}

TEST_F(MonitorOfTheBus, WarnsOfAPairThatStaysBoundAndNotReady) {
    Peer client;
    Peer service;
    Start(client, service);
    PulseClient(client, "SYN");
    PulseService(service, "SYN");
    PulseClient(client, "SYN_ACK");
    PulseService(service, "SYN_ACK");
    AwaitText(*m_monitor, "waiting");
    const Lines seen = AllConcluded();
    EXPECT_THAT(Lines(seen.begin() + 2, seen.end()),
                testing::UnorderedElementsAre("kind:waiting,channel:demo,from:C,to:S,role:CLIENT,"
                                              "text:each waits for the other's ACK",
                                              "kind:waiting,channel:demo,from:S,to:C,role:SERVICE,"
                                              "text:each waits for the other's ACK"));
}

TEST_F(MonitorOfTheBus, TakesOnlyTheKindsAndPeersThatAreNamed) {
    Peer one;
    Peer other;
    Start({"--kind=released", "--kind=lost", "--peer=" + one.UniqueName()});
    PulseService(one, "SYN");
    PulseService(other, "SYN");
    PulseService(one, "ACK");
    AwaitText(*m_monitor, "\"ACK\"");
    Name(one.UniqueName(), "1");
    EXPECT_THAT(Seen(), ElementsAre("kind:released,channel:demo,from:1,role:SERVICE,stage:SYN",
                                    "kind:released,channel:demo,from:1,role:SERVICE,stage:ACK"));
}

// ---- What it keeps ----

// Requests of 1 MiB from as many callers as the bus's limits ask for.
void SendLargeRequests(int count, const std::string& to) {
    constexpr int kOfOneCaller = 60;
    std::unique_ptr<Peer> caller;
    for (int i = 0; i < count; ++i) {
        if (i % kOfOneCaller == 0) {
            caller = std::make_unique<Peer>();
        }
        caller->Call(to, BodyOf(tevrol::Bytes(std::size_t{1} << 20, 'x')));
        while (g_main_context_iteration(nullptr, FALSE) != FALSE) {
        }
    }
}

TEST_F(MonitorOfTheBus, KeepsNoPayloads) {
#ifdef TEVROL_SANITIZED
    GTEST_SKIP() << "sanitizers need address space themselves";
#endif
    const PartnerProcess monitor(
        std::vector<std::string>{"/bin/sh", "-c",
                                 "ulimit -v 250000; MALLOC_ARENA_MAX=1 exec " TEVROLCTL_PROGRAM
                                 " monitor --kind request --kind lost --diagram " +
                                     File("diagram.svg") + " 2>&1"});
    AwaitText(monitor, "monitoring");
    OddService service;
    service.on_request = [](const OddService::Incoming&) { return OddService::Reply::None; };
    SendLargeRequests(300, service.UniqueName());
    {
        Peer last;
        last.Pulse("org.ulmar.Tevrol.end_SERVICE_ACK");
    }
    AwaitText(monitor, "end  :1.");
}

TEST_F(MonitorOfTheBus, SaysWhatItDropsBehindAStalledPipe) {
#ifdef TEVROL_SANITIZED
    GTEST_SKIP() << "under a sanitizer the monitor is slower than the bus";
#endif
    EXPECT_EQ(::Run({"mkfifo", File("pipe")}).status, 0);
    const PartnerProcess monitor(std::vector<std::string>{
        "/bin/sh", "-c",
        "exec 3<>" + File("pipe") + "; exec " TEVROLCTL_PROGRAM " monitor --json 2>&1 >" +
            File("pipe")});
    AwaitText(monitor, "monitoring");
    OddService service;
    SendLargeRequests(100, service.UniqueName());
    const PartnerProcess reader(
        std::vector<std::string>{"/bin/sh", "-c", "exec cat " + File("pipe") + " >/dev/null"});
    AwaitText(monitor, " messages were dropped: the output is taken too slowly");
}

// Parsed as the format says: a header, then each message with its time and size.
TEST_F(MonitorOfTheBus, CapturesMessagesForWireshark) {
    Peer client;
    OddService service;
    Start({"--pcap=" + File("capture")});
    Peer stranger;
    stranger.Pulse("org.ulmar.Other");
    client.Call(service.UniqueName(), BodyOf({'x'}));
    PulseService(service, "SYN");
    AwaitText(*m_monitor, "released");
    const std::string capture = ReadFile(File("capture"));
    const auto number = [&](std::size_t at) {
        guint32 value = 0;
        capture.copy(reinterpret_cast<char*>(&value), sizeof value, at);
        return value;
    };
    EXPECT_EQ(number(0), 0xa1b2c3d4U);
    EXPECT_EQ(capture.substr(4, 4),
              std::string(G_BYTE_ORDER == G_LITTLE_ENDIAN ? "\2\0\4\0" : "\0\2\0\4", 4));
    EXPECT_EQ(number(20), 231U) << "D-Bus";
    Lines members;
    for (std::size_t at = 24; at < capture.size();) {
        const guint32 size = number(at + 8);
        EXPECT_EQ(number(at + 12), size);
        EXPECT_LE(std::abs(static_cast<gint64>(number(at)) - g_get_real_time() / G_USEC_PER_SEC),
                  60);
        EXPECT_LT(number(at + 4), 1000000U);
        std::string bytes = capture.substr(at + 16, size);
        GDBusMessage* message =
            g_dbus_message_new_from_blob(reinterpret_cast<guchar*>(bytes.data()), bytes.size(),
                                         G_DBUS_CAPABILITY_FLAGS_UNIX_FD_PASSING, nullptr);
        ASSERT_NE(message, nullptr);
        const gchar* member = g_dbus_message_get_member(message);
        members.emplace_back(member == nullptr ? "reply" : member);
        g_object_unref(message);
        at += 16 + size;
    }
    EXPECT_THAT(members, Contains("Send"));
    EXPECT_THAT(members, Contains("RequestName"));
    EXPECT_THAT(members, Contains("NameOwnerChanged"));
    EXPECT_EQ(std::count(members.begin(), members.end(), "RequestName"), 1)
        << "the channel's alone";
}

TEST_F(TevrolctlTest, MonitorTellsARefusalByThePolicy) {
    const auto strict_bus = StartBus("<deny own='org.ulmar.Tevrol.demo_SERVICE_SYN'/>", "");
    const std::string address = "--address=unix:path=" + File("socket");
    const auto monitor = StartTool({"monitor", address}, "monitoring");
    const auto partner = StartTool({"partner", address, "demo"}, "refused SYN");
    AwaitText(*monitor,
              "is refused SERVICE_SYN: org.freedesktop.DBus.Error.AccessDenied: Connection");
}

TEST_F(TevrolctlTest, MonitorEndsWithTheBusAndStillDraws) {
    tevrol::PrivateBus other;
    const auto monitor =
        StartTool({"monitor", "--address=" + other.Address(), "--diagram", File("diagram.svg")},
                  "monitoring");
    other.Kill();
    EXPECT_EQ(monitor->Wait(), kNoBus);
    AwaitText(*monitor, "tevrolctl: the bus has closed the connection");
    EXPECT_THAT(ReadFile(File("diagram.svg")), HasSubstr("</svg>"));
}

TEST_F(TevrolctlTest, MonitorRecordsEachEventAtOnce) {
    const auto monitor =
        StartTool({"monitor", "--json", "--write", File("recording"), "demo"}, "monitoring");
    Peer peer;
    peer.Pulse("org.ulmar.Tevrol.other_SERVICE_SYN");
    peer.Pulse("org.ulmar.Tevrol.demo_SERVICE_SYN");
    AwaitText(*monitor, "released");
    std::string printed;
    const auto lines = monitor->Lines();
    for (std::size_t i = 1; i < lines.size(); ++i) {
        printed += lines[i] + "\n";
    }
    EXPECT_EQ(ReadFile(File("recording")), printed);
    EXPECT_THAT(printed, Not(HasSubstr("other")));
}

TEST_F(TevrolctlTest, MonitorEndsWhenItCannotRecordAnyMore) {
    const auto monitor = StartTool({"monitor", "--write", "/dev/full"}, "monitoring");
    Peer peer;
    peer.Pulse("org.ulmar.Tevrol.demo_SERVICE_SYN");
    EXPECT_EQ(monitor->Wait(), kFailed);
    AwaitText(*monitor, "tevrolctl: cannot write /dev/full: No space left on device");
}

TEST_F(TevrolctlTest, MonitorTellsAtTheStartThatItCannotDraw) {
    const Result result = Tool({"monitor", "--diagram", "/nonexistent/file"});
    EXPECT_EQ(result.status, kFailed);
    EXPECT_THAT(result.errors, HasSubstr("cannot write /nonexistent/file: No such file"));
}

// ---- How it is shown ----

class MonitorOfARecording : public TevrolctlTest {
protected:
    MonitorOfARecording() {
        setenv("TZ", "UTC", 1);
    }

    static Result Read(const std::string& recording, Arguments options = {}) {
        options.insert(options.begin(), {"monitor", "--read", recording});
        return Tool(options);
    }
    // The one line that a recording of this one event is shown as, without its time.
    std::string Shown(const std::string& event) const {
        std::ofstream(File("recording")) << event << '\n';
        const Result result = Read(File("recording"));
        EXPECT_EQ(result.status, kOk) << result.errors;
        return result.output.substr(std::string("22:13:20.000  ").size());
    }
    // Its diagram, which Expat has to take.
    std::string Drawn(const std::string& recording, Arguments options = {}) const {
        options.insert(options.end(), {"--diagram", File("drawn.svg")});
        const Result result = Read(recording, options);
        EXPECT_EQ(result.status, kOk) << result.errors;
        ExpectWellFormed(File("drawn.svg"));
        return ReadFile(File("drawn.svg"));
    }
};

TEST_F(MonitorOfARecording, ShowsEachKindOfEventAsALine) {
    const Result result = Read(kConversation);
    EXPECT_EQ(result.status, kOk);
    EXPECT_EQ(result.errors, "");
    EXPECT_EQ(result.output, ReadFile(TEVROLCTL_TESTS "/monitor/conversation.txt"));
}

TEST_F(MonitorOfARecording, PrintsAndRecordsTheSameAsItReads) {
    const std::string recorded = ReadFile(kConversation);
    EXPECT_EQ(Read(kConversation, {"--json", "--write", File("copy")}).output, recorded);
    EXPECT_EQ(ReadFile(File("copy")), recorded);
}

TEST_F(MonitorOfARecording, DrawsEachKindOfEvent) {
    EXPECT_EQ(Drawn(kConversation), ReadFile(TEVROLCTL_TESTS "/monitor/conversation.svg"));
}

TEST_F(MonitorOfARecording, DrawsOneChannelWithoutItsName) {
    const std::string drawn = Drawn(kConversation, {"demo"});
    EXPECT_THAT(drawn, HasSubstr(">request 4 bytes"));
    EXPECT_THAT(drawn, Not(HasSubstr("demo:")));
    EXPECT_THAT(drawn, Not(HasSubstr(":1.3")));
}

TEST_F(MonitorOfARecording, DrawsARoleThatIsLearntLater) {
    std::ofstream(File("recording"))
        << R"({"kind":"notification","channel":"demo","from":"a","to":"b"})" << '\n'
        << R"({"kind":"notification","channel":"demo","from":"b","to":"a","role":"SERVICE"})"
        << '\n';
    const std::string drawn = Drawn(File("recording"));
    EXPECT_THAT(drawn, HasSubstr(">a</text>"));
    EXPECT_THAT(drawn, HasSubstr(">service b</text>"));
}

TEST_F(MonitorOfARecording, DrawsNothingOfAnEmptyRecording) {
    std::ofstream(File("recording")).close();
    const std::string drawn = Drawn(File("recording"));
    EXPECT_THAT(drawn, HasSubstr("width=\"600\" height=\"100\""));
    EXPECT_THAT(drawn, Not(HasSubstr("<line")));
}

TEST_F(MonitorOfARecording, DrawsTextsOfAnyBytes) {
    // Bytes that are no text, characters that XML has no place for, and a cut within a character.
    std::ofstream(File("recording"))
        << R"({"kind":"error","channel":"demo","from":"a\u0001","to":"b\ufffe","text":")"
        << R"(\u0008\u000b\u001f\u007f\uffff\u2028<]]>&"})" << '\n'
        << R"({"kind":"refused","channel":"demo","from":"a","role":"CLIENT","stage":"SYN","text":")"
        << std::string(12, 'x')
        << "\u00e4\u00e4\u00e4\u00e4\u00e4\u00e4\u00e4\u00e4\u00e4\u00e4\u00e4"
        << "\"}\n";
    EXPECT_THAT(Drawn(File("recording")), HasSubstr("&lt;]]&gt;&amp;"));
}

TEST_F(MonitorOfARecording, EscapesTextsFromOthers) {
    const std::string event =
        R"({"kind":"error","channel":"c\u001b","from":"a\n","to":"\u202e","text":"\u009b31m\n0:00"})";
    EXPECT_EQ(Shown(event), "c\\x1b  a\\n error -> \\u202e: \\u009b31m\\n0:00\n");
    const std::string json = Read(File("recording"), {"--json"}).output;
    EXPECT_THAT(json, HasSubstr(R"("text":"\u009b31m\n0:00")"));
    EXPECT_THAT(json, Not(HasSubstr("\u009b")));
    EXPECT_THAT(json, Not(HasSubstr("\u202e")));
}

TEST_F(MonitorOfARecording, IsReadFromStandardInputToo) {
    EXPECT_EQ(Tool({"monitor", "--read", "-"}, ReadFile(kConversation)).output,
              ReadFile(TEVROLCTL_TESTS "/monitor/conversation.txt"));
}

TEST_F(MonitorOfARecording, IsSummedUpWhenAsked) {
    EXPECT_THAT(
        Read(kConversation, {"--summary", "demo"}).errors,
        HasSubstr("demo: 2 bound, 1 error, 1 lost, 1 malformed, 2 notification, 2 owned, "
                  "1 ready, 1 refused, 3 released, 1 reply, 2 request, 42 bytes of payload; "
                  "replies within 1.00 ms to 1.00 ms, the median 1.00 ms\n"));
}

TEST_F(MonitorOfARecording, IsDrawnUpToTheLineThatIsBroken) {
    std::ofstream(File("recording")) << ReadFile(kConversation) << R"({"kind":"req)";
    const Result result = Read(File("recording"), {"--diagram", File("drawn.svg")});
    EXPECT_EQ(result.status, kFailed);
    EXPECT_THAT(result.errors, HasSubstr("recording, line 21: no event: "));
    EXPECT_EQ(ReadFile(File("drawn.svg")), ReadFile(TEVROLCTL_TESTS "/monitor/conversation.svg"));
}

TEST_F(MonitorOfARecording, IsDrawnToAFileOfThisFolder) {
    const Result result =
        Shell("cd " + File("") + " && $T monitor --read " + kConversation + " --diagram here.svg");
    EXPECT_EQ(result.status, kOk) << result.errors;
    EXPECT_THAT(ReadFile(File("here.svg")), HasSubstr("</svg>"));
}

// Writes a recording of so many events: a client asks, and a service answers. The service leaves
// after each tenth event, and another one comes.
class DrawingOfALongRecording : public MonitorOfARecording {
protected:
    std::string Draw(int count, const Arguments& options = {}) const {
        std::ofstream recording(File("recording"));
        for (int i = 0; i < count; ++i) {
            const std::string service = ":2." + std::to_string(i / 10);
            recording << R"({"time":)" << (i + 1) * 1000000 << R"(,"kind":")"
                      << (i % 10 == 9 ? "lost" : "request") << R"(","channel":"demo","from":")"
                      << (i % 10 == 9 ? service : ":1.1") << R"(","to":")"
                      << (i % 10 == 9 ? ":1.1" : service) << "\",\"hex\":\"" << (i + 1000)
                      << "\"}\n";
        }
        recording.close();
        return Drawn(File("recording"), options);
    }
    static std::size_t Count(const std::string& text, const std::string& part) {
        std::size_t count = 0;
        for (auto at = text.find(part); at != std::string::npos; at = text.find(part, at + 1)) {
            ++count;
        }
        return count;
    }
};

TEST_F(DrawingOfALongRecording, UsesALaneAgain) {
    const std::string drawn = Draw(100);
    EXPECT_THAT(drawn, HasSubstr("width=\"940\""));
    EXPECT_EQ(Count(drawn, "font-weight=\"bold\""), 11U) << "a head for each process";
    EXPECT_EQ(Count(drawn, "stroke-dasharray=\"5 4\""), 11U) << "and a line, which ends with it";
    EXPECT_EQ(Count(drawn, ">left the bus<"), 10U);
    EXPECT_FALSE(std::filesystem::exists(File("drawn-2.svg")));
}

TEST_F(DrawingOfALongRecording, GoesOnOnFurtherPages) {
    const std::string first = Draw(450);
    ExpectWellFormed(File("drawn-2.svg"));
    ExpectWellFormed(File("drawn-3.svg"));
    const std::string last = ReadFile(File("drawn-3.svg"));
    EXPECT_THAT(first, HasSubstr(">page 1 of 3. <"));
    EXPECT_THAT(last, HasSubstr(">page 3 of 3. <"));
    EXPECT_EQ(Count(first, " s</text>"), 200U);
    EXPECT_EQ(Count(last, " s</text>"), 50U);
    EXPECT_THAT(last, HasSubstr(">:1.1</text>"));
    EXPECT_THAT(last, HasSubstr(">:2.44</text>"));
    EXPECT_THAT(last, Not(HasSubstr(">:2.0</text>")));
    EXPECT_FALSE(std::filesystem::exists(File("drawn-4.svg")));
}

TEST_F(DrawingOfALongRecording, ShowsTheLastEventsOrThoseOfATime) {
    const std::string last = Draw(30, {"--most=5"});
    EXPECT_THAT(last, HasSubstr(">25 earlier events are left out.<"));
    EXPECT_EQ(Count(last, " s</text>"), 5U);
    EXPECT_THAT(last, HasSubstr("hex:1028"));
    const std::string some = Draw(30, {"--from=4", "--until=6"});
    EXPECT_EQ(Count(some, " s</text>"), 3U);
    EXPECT_THAT(some, HasSubstr("hex:1004"));
    EXPECT_THAT(some, HasSubstr("hex:1006"));
}

TEST_F(MonitorOfARecording, WrapsCaptionsBetweenTheirLanes) {
    std::ofstream(File("recording"))
        << R"({"kind":"error","channel":"demo","from":"a","to":"b","duration":1500,"text":")"
        << R"(the \u65e5\u672c\u8a9e text is too long for one line, but not for two"})" << '\n'
        << R"({"kind":"error","channel":"demo","from":"a","to":"b","duration":1500,"text":")"
        << std::string(500, 'x') << "\"}\n";
    const std::string drawn = Drawn(File("recording"));
    EXPECT_THAT(drawn, HasSubstr(">error after 1.50 ms: the \u65e5\u672c\u8a9e text<"));
    EXPECT_THAT(drawn, HasSubstr(">is too long for one line, but not for<"));
    EXPECT_THAT(drawn, HasSubstr("x\u2026<"));
}

TEST_F(TevrolctlTest, MonitorRefusesOptionsThatMakeNoSense) {
    for (const auto& [option, reason] : std::map<std::string, std::string>{
             {"--kind=bogus", "no kind of event: bogus"},
             {"--most=0", "--most needs a number from 1 on"},
             {"--from=-1", "a time must be from 0"},
             {"--pcap=" + File("c"), "a recording holds no messages for --pcap"}}) {
        const Result result = Tool({"monitor", "--read", kConversation, option});
        EXPECT_EQ(result.status, kUsage) << option;
        EXPECT_THAT(result.errors, HasSubstr(reason));
    }
}

TEST_F(MonitorOfARecording, ShowsPayloadsInHexWhenAsked) {
    EXPECT_THAT(Read(kConversation, {"--hex"}).output,
                HasSubstr("notification -> :1.1: 17 bytes hex:74686520646f6f72206973206f70656e21"));
}

TEST_F(MonitorOfARecording, ShowsALongPayloadByItsBeginning) {
    const std::string text = Shown(R"({"kind":"request","channel":"c","from":"a","hex":")" +
                                   tevrol::ToHex(tevrol::Bytes(70, 'x')) + "\"}");
    EXPECT_EQ(text, "c  a request: 70 bytes \"" + std::string(64, 'x') + "\" (+6 more)\n");
}

TEST_F(MonitorOfARecording, ShowsDurationsFromASecondOnInSeconds) {
    const std::string event = R"({"kind":"ready","channel":"c","from":"a","to":"b","duration":)";
    EXPECT_EQ(Shown(event + "999994}"), "c  a ready -> b (999.99 ms)\n");
    EXPECT_EQ(Shown(event + "1000000}"), "c  a ready -> b (1.00 s)\n");
    EXPECT_EQ(Shown(event + "0}"), "c  a ready -> b\n");
}

TEST_F(MonitorOfARecording, ColoursEachKindOnATerminal) {
    const Result result =
        Shell("unset NO_COLOR; script -qec '" TEVROLCTL_PROGRAM " monitor --read " TEVROLCTL_TESTS
              "/monitor/conversation.jsonl' /dev/null");
    for (const char* coloured :
         {"\033[2m22:13:20.000\033[0m  \033[2mdemo  :1.1 owns SERVICE_SYN\033[0m",
          "\033[0mdemo  :1.1 announces SERVICE_SYN (held 0.42 ms)\033[0m",
          "\033[31mdemo  :1.2 is refused", "\033[0mdemo  :1.2 bound", "\033[32mdemo  :1.1 ready",
          "\033[36mdemo  :1.2 request", "\033[36mdemo  :1.1 reply", "\033[31mdemo  :1.2 error",
          "\033[36mdemo  :1.2 notification", "\033[31mdemo  :1.2 malformed",
          "\033[31mdemo  :1.2 leaves"}) {
        EXPECT_THAT(result.output, HasSubstr(coloured));
    }
}

// ---- What is refused ----

struct Malformed {
    std::string name;
    std::string line;
    std::string reason;
};

class MonitorOfAMalformedRecording : public MonitorOfARecording,
                                     public testing::WithParamInterface<Malformed> {};

TEST_P(MonitorOfAMalformedRecording, NamesTheLineAndTheReason) {
    const std::string good = R"({"kind":"lost","channel":"a","from":"b"})";
    std::ofstream(File("recording")) << good << "\n" << GetParam().line << "\n" << good << "\n";
    const Result result = Read(File("recording"), {"--json"});
    EXPECT_EQ(result.status, kFailed);
    EXPECT_THAT(result.errors, HasSubstr("recording, line 2: no event: " + GetParam().reason));
    EXPECT_EQ(std::count(result.output.begin(), result.output.end(), '\n'), 1);
}

constexpr const char* kNoKind = R"("kind" is missing or unknown)";
constexpr const char* kNoPlace = R"("channel" or "from" is missing)";

INSTANTIATE_TEST_SUITE_P(
    By, MonitorOfAMalformedRecording,
    testing::Values(
        Malformed{"NoJson", "garbage", ""}, Malformed{"AnEmptyLine", "", ""},
        Malformed{"NoObject", "[]", "a line is no JSON object"},
        Malformed{"AText", "\"lost\"", "a line is no JSON object"},
        Malformed{"NoMembers", "{}", kNoKind},
        Malformed{"AnUnknownKind", R"({"kind":"bogus","channel":"a","from":"b"})", kNoKind},
        Malformed{"NoKind", R"({"channel":"a","from":"b"})", kNoKind},
        Malformed{"NoChannel", R"({"kind":"lost","from":"b"})", kNoPlace},
        Malformed{"NoProcess", R"({"kind":"lost","channel":"a"})", kNoPlace},
        Malformed{"AKindThatIsNoText", R"({"kind":1,"channel":"a","from":"b"})",
                  R"("kind" is of another type)"},
        Malformed{"ATextThatIsAnArray", R"({"kind":"lost","channel":"a","from":"b","to":[]})",
                  R"("to" is of another type)"},
        Malformed{"ATimeThatIsNoNumber", R"({"kind":"lost","channel":"a","from":"b","time":"1"})",
                  R"("time" is of another type)"},
        Malformed{"ADurationThatIsNoInteger",
                  R"({"kind":"lost","channel":"a","from":"b","duration":1.5})",
                  R"("duration" is of another type)"},
        Malformed{"HalfAByte", R"({"kind":"request","channel":"a","from":"b","hex":"0"})",
                  R"("hex" holds no hexadecimal digits)"},
        Malformed{"NoDigits", R"({"kind":"request","channel":"a","from":"b","hex":"0g"})",
                  R"("hex" holds no hexadecimal digits)"}),
    [](const auto& tested) { return tested.param.name; });

}  // namespace
