// SPDX-License-Identifier: MIT
// The partner as a program: its options, its commands and how it ends.
#include <algorithm>
#include <csignal>
#include <cstdlib>
#include <regex>

#include "devkit/partner-process.h"
#include "tests/support/channel-test.h"
#include "tests/support/program.h"

namespace {

using testing::Contains;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::Not;
using testing::StartsWith;
using tevrol::PartnerProcess;

constexpr const char* kProgram = TEVROL_PARTNER_PROGRAM;

using Arguments = std::vector<std::string>;

class PartnerProgram : public ChannelTest {
protected:
    void Start(const std::vector<std::string>& options = {}) {
        partner = std::make_unique<PartnerProcess>(kProgram, "demo", options);
    }

    void StartAndConnect(const std::vector<std::string>& options = {}) {
        Start(options);
        ASSERT_TRUE(IterateUntil([&] { return channel.IsConnectionReady() && Printed("ready "); }));
    }

    bool Printed(const std::string& beginning) const {
        return partner->Find(beginning).has_value();
    }

    // Gives a command and waits for the line that tells its outcome; whether that came.
    bool Command(const std::string& command, const std::string& outcome) {
        const std::size_t before = partner->Lines().size();
        partner->Command(command);
        return IterateUntil([&] { return partner->Find(outcome, before).has_value(); });
    }

    Bytes Send(const std::string& text) {
        Bytes data = ToBytes(text);
        return channel.SendMessage(data);
    }

    // Runs the program by itself to its end.
    static ProgramResult Run(const Arguments& arguments, const std::string& input = "") {
        return RunProgram(Joined({kProgram}, arguments), input);
    }

    // Runs both programs that are the partner to their end, and expects the same of both.
    static void ExpectFailure(const Arguments& arguments, int status,
                              const std::string& complaint) {
        for (const auto& [program, name] :
             {std::pair<Arguments, std::string>{{kProgram}, "tevrol-partner: "},
              {{TEVROLCTL_PROGRAM, "partner"}, "tevrolctl: "}}) {
            SCOPED_TRACE(name + testing::PrintToString(arguments));
            const ProgramResult result = RunProgram(Joined(program, arguments));
            EXPECT_EQ(result.status, status);
            EXPECT_THAT(result.errors, StartsWith(name + complaint));
            EXPECT_THAT(result.output, IsEmpty());
        }
    }

    static Arguments Joined(Arguments first, const Arguments& rest) {
        first.insert(first.end(), rest.begin(), rest.end());
        return first;
    }

    TestChannel channel;
    std::unique_ptr<PartnerProcess> partner;
};

// ---- Options ----

TEST_F(PartnerProgram, AnnouncesItselfAndPrintsEachEventAsALine) {
    StartAndConnect();
    EXPECT_EQ(Send("hello"), ToBytes("hello"));
    const std::string own = OwnName();
    ASSERT_TRUE(IterateUntil([&] { return Printed("request from"); }));
    EXPECT_THAT(partner->Lines(),
                ElementsAre(StartsWith("joined :1."), "announced SYN", "heard SYN_ACK from " + own,
                            "bound " + own, "announced ACK", "ready " + own,
                            "request from " + own + ": 5 bytes \"hello\""));
}

TEST_F(PartnerProgram, ToldToWaitAnnouncesNothingAndAnswersASyn) {
    Start({"--wait"});
    ASSERT_TRUE(IterateUntil([&] { return Printed("joined "); }));
    TestChannel late;
    ASSERT_TRUE(IterateUntil([&] { return late.IsConnectionReady() && Printed("ready "); }));
    EXPECT_THAT(partner->Lines(), Not(Contains("announced SYN")));
    EXPECT_THAT(partner->Lines(), Contains("announced SYN_ACK"));
}

TEST_F(PartnerProgram, AnswersWithTheGivenPayload) {
    StartAndConnect({"--answer=hex:00ff"});
    EXPECT_EQ(Send("anything"), (Bytes{'\x00', '\xff'}));
}

TEST_F(PartnerProgram, ToldToAnswerNeverDoesNot) {
    StartAndConnect({"--fault=never"});
    auto waiting = std::async(std::launch::async, [&] { return Send("x"); });
    ASSERT_TRUE(IterateUntil([&] { return Printed("request from"); }));
    // A later command is carried out, and still there is no reply.
    EXPECT_TRUE(Command("notify x", "notified"));
    EXPECT_EQ(waiting.wait_for(std::chrono::seconds(0)), std::future_status::timeout);
    partner->Kill();
    EXPECT_THAT(waiting.get(), IsEmpty());
}

TEST_F(PartnerProgram, ToldToAnswerLateDoesAfterThatTime) {
    StartAndConnect({"--fault=late", "--lateness=100"});
    const auto start = std::chrono::steady_clock::now();
    EXPECT_EQ(Send("late"), ToBytes("late"));
    EXPECT_GE(std::chrono::steady_clock::now() - start, std::chrono::milliseconds(100));
}

TEST_F(PartnerProgram, ToldToAnswerWithAnErrorOrAWrongTypeDoes) {
    StartAndConnect({"--fault=error"});
    EXPECT_THAT(Send("x"), IsEmpty());
    EXPECT_THAT(Errors().back().message, HasSubstr("refused on purpose"));
    partner->Kill();
    ASSERT_TRUE(IterateUntil([&] { return !channel.IsConnectionReady(); }));
    StartAndConnect({"-f", "wrong-type"});
    EXPECT_THAT(Send("x"), IsEmpty());
    EXPECT_THAT(Errors().back().message, HasSubstr("type (s) instead"));
}

TEST_F(PartnerProgram, LeavesOnARequestInsteadOfTheReply) {
    StartAndConnect({"--leave=request"});
    EXPECT_THAT(Send("x"), IsEmpty());
    EXPECT_TRUE(IterateUntil([&] { return Printed("left"); }));
}

TEST_F(PartnerProgram, HoldsAClientNameFromTheStartUntilItIsToldToReleaseIt) {
    Start({"--hold=syn-ack"});
    ASSERT_TRUE(IterateUntil([] { return !Errors().empty(); }));
    EXPECT_THAT(Errors().front(),
                Error("BroadcastName", "Cannot own name due to return code = 3\n\n"));
    EXPECT_TRUE(Command("release syn-ack", "released"));
    EXPECT_TRUE(IterateUntil([&] { return channel.IsConnectionReady() && Printed("ready "); }));
}

TEST_F(PartnerProgram, ShowsItsHelpWhenAsked) {
    const ProgramResult result = Run({"--help"});
    EXPECT_EQ(result.status, 0);
    EXPECT_THAT(result.output, HasSubstr("notify-wrong-type TEXT"));
    EXPECT_THAT(result.output, HasSubstr("  tevrol-partner --fault=late"));
}

TEST_F(PartnerProgram, IsTheSameAsTheSubcommandOfTevrolctl) {
    const std::string own = Run({"--help"}).output;
    const std::string other = RunProgram({TEVROLCTL_PROGRAM, "partner", "--help"}).output;
    EXPECT_EQ(std::regex_replace(own, std::regex("tevrol-partner"), "tevrolctl partner"), other);
}

TEST_F(PartnerProgram, UsesTheBusAtAnAddressOrAPrivateOne) {
    const std::string address = "--address=" + bus.Address();
    setenv("DBUS_SYSTEM_BUS_ADDRESS", "unix:path=/nonexistent", 1);
    EXPECT_EQ(Run({"demo", address}, "quit\n").status, 0);
    const ProgramResult result = Run({"demo", "--private-bus"}, "quit\n");
    EXPECT_EQ(result.status, 0) << result.errors;
    EXPECT_THAT(result.errors, StartsWith("private bus: --address '"));
    ExpectFailure({"demo", "--private-bus", address}, 2,
                  "--address and --private-bus exclude each other\n");
}

TEST_F(PartnerProgram, RefusesOptionsThatItDoesNotKnow) {
    EXPECT_EQ(Run({}).errors, "tevrol-partner: too few arguments; see tevrol-partner --help\n");
    ExpectFailure({}, 2, "too few arguments; see tevrol");
    ExpectFailure({"demo", "other"}, 2, "too many arguments; see tevrol");
    ExpectFailure({"demo", "--nonsense"}, 2, "Unknown option --nonsense; see tevrol");
    ExpectFailure({"demo", "--answer=hex:0"}, 2, "no even number of hexadecimal digits: hex:0\n");
    ExpectFailure({"demo", "--fault=slow"}, 2, "unknown fault: slow\n");
    ExpectFailure({"demo", "--leave=never"}, 2, "unknown moment: never\n");
    ExpectFailure({"demo", "--stop=never"}, 2, "unknown moment: never\n");
    ExpectFailure({"demo", "--hold=fin"}, 2, "unknown stage: fin\n");
    for (const std::string number : {"", "x", "1x", "1 "}) {
        ExpectFailure({"demo", "--lateness=" + number}, 2, "Cannot parse integer value");
    }
    ExpectFailure({"demo", "--lateness=99999999999"}, 2, "Integer value");
    ExpectFailure({"demo", "--lateness=-1"}, 2, "a lateness must not be negative\n");
}

TEST_F(PartnerProgram, FailsOnAChannelNameThatCannotBeUsed) {
    ExpectFailure({"a-b"}, 2,
                  "channel name \"a-b\" refused: byte 2 is not a letter, digit or underscore\n");
}

TEST_F(PartnerProgram, FailsWithoutABus) {
    bus.Kill();
    ExpectFailure({"demo"}, 3, "cannot reach the system bus: ");
}

// ---- Commands ----

TEST_F(PartnerProgram, ToldToRequestPrintsTheReply) {
    StartAndConnect();
    channel.answer = [](const Bytes& request) { return Bytes(request.rbegin(), request.rend()); };
    EXPECT_TRUE(Command("request two words", "reply: 9 bytes \"sdrow owt\""));
    EXPECT_TRUE(Command("request hex:0001", "reply: 2 bytes hex:0100"));
    EXPECT_TRUE(Command("request", "reply: 0 bytes"));
    EXPECT_THAT(channel.Requests(),
                ElementsAre(ToBytes("two words"), Bytes{'\0', '\x01'}, Bytes()));
}

TEST_F(PartnerProgram, ToldToRequestWithoutAPartnerPrintsWhyThereIsNoReply) {
    Start({"--wait", "--give-up=0.05"});
    EXPECT_TRUE(Command("request x", "no reply: not ready"));
    EXPECT_TRUE(Command("notify x", "not notified: no partner"));
    EXPECT_TRUE(Command("notify-wrong-type x", "not notified: no partner"));
}

TEST_F(PartnerProgram, ToldToNotifySendsTheNotification) {
    StartAndConnect();
    EXPECT_TRUE(Command("notify two words", "notified"));
    EXPECT_TRUE(IterateUntil([&] { return channel.Notifications().size() == 1; }));
    EXPECT_THAT(channel.Notifications(), ElementsAre(ToBytes("two words")));
    EXPECT_TRUE(Command("notify-wrong-type text", "notified"));
    EXPECT_TRUE(IterateUntil([] { return !Errors().empty(); }));
    EXPECT_THAT(Errors().back().message, HasSubstr("type (s) instead"));
}

TEST_F(PartnerProgram, ToldToLeaveAndJoinDoesAndIsReadyAgain) {
    StartAndConnect();
    EXPECT_TRUE(Command("leave", "left"));
    ASSERT_TRUE(IterateUntil([&] { return !channel.IsConnectionReady(); }));
    EXPECT_TRUE(Command("join", "ready "));
    EXPECT_TRUE(IterateUntil([&] { return channel.IsConnectionReady(); }));
}

TEST_F(PartnerProgram, ToldToAnnounceAStageDoes) {
    Start({"--wait"});
    // Backwards, so that the other end's answer makes the partner announce nothing by itself. Which
    // of them that end heard, its log knows.
    for (const auto& [stage, callback] : {std::pair("ack", "cb_AckNameOwnerChanged"),
                                          std::pair("syn-ack", "cb_SynAckNameOwnerChanged"),
                                          std::pair("syn", "cb_SynNameOwnerChanged")}) {
        EXPECT_THAT(LogOf(callback), IsEmpty());
        EXPECT_TRUE(Command(std::string("announce ") + stage, "announced "));
        EXPECT_TRUE(IterateUntil([&, name = callback] { return !LogOf(name).empty(); }));
    }
}

TEST_F(PartnerProgram, ToldToHoldAndReleaseAClientNameDoesAndSaysIfItCannot) {
    Start({"--wait"});
    const std::string name = "org.ulmar.Tevrol.demo_CLIENT_ACK";
    EXPECT_TRUE(Command("hold ack", "held"));
    EXPECT_TRUE(NameHasOwner(name));
    EXPECT_TRUE(Command("release ack", "released"));
    EXPECT_FALSE(NameHasOwner(name));
    EXPECT_TRUE(Command("release ack", "not released"));
    EXPECT_TRUE(Command("leave", "left"));
    EXPECT_TRUE(Command("hold ack", "not held"));
}

TEST_F(PartnerProgram, SaysWhatItDoesNotUnderstandAndGoesOn) {
    const std::vector<std::string> nonsense = {
        "nonsense", "request hex:0", "notify hex:zz", "announce", "announce fin", "hold", "Quit",
    };
    std::string input;
    std::string complaints;
    for (const std::string& line : nonsense) {
        input += line + "\n\n";  // empty lines are passed over
        const bool payload = line.rfind("request ", 0) == 0 || line.rfind("notify ", 0) == 0;
        complaints +=
            "tevrol-partner: " +
            (payload ? "no even number of hexadecimal digits: " + line.substr(line.find(' ') + 1)
                     : "not understood: " + line) +
            "\n";
    }
    const ProgramResult result = Run({"demo", "--wait"}, input + "quit\n");
    EXPECT_EQ(result.status, 2);
    EXPECT_EQ(result.errors, complaints);
}

// ---- Order and end ----

TEST_F(PartnerProgram, CommandsWaitForTheOtherEndInOrder) {
    Start({"--wait"});
    ASSERT_TRUE(IterateUntil([&] { return Printed("joined "); }));
    for (const char* line : {"notify one", "request two", "notify file:/dev/null",
                             "notify text:hex:0", "announce syn", "quit"}) {
        partner->Command(line);
    }
    ASSERT_TRUE(IterateUntil([&] { return Printed("waits for the other end"); }));
    // Its SYN is answered. Both channels of this process hear that, the older one first.
    const TestChannel late;
    EXPECT_TRUE(IterateUntil([&] { return channel.Notifications().size() == 3; }))
        << testing::PrintToString(partner->Lines());
    EXPECT_THAT(channel.Notifications(), ElementsAre(ToBytes("one"), Bytes(), ToBytes("hex:0")));
    EXPECT_TRUE(IterateUntil([&] { return Printed("reply: 3 bytes \"two\""); }));
    EXPECT_EQ(partner->Wait(), 0);
    EXPECT_THAT(partner->Lines(), Not(Contains(StartsWith("not notified"))));
}

TEST_F(PartnerProgram, EndsWithItsInputAndTheStatusOfTheFirstFailure) {
    EXPECT_EQ(Run({"demo"}, "\n").status, 0);
    EXPECT_EQ(Run({"demo", "--give-up=0.01"}, "notify x\nbogus\n").status, 4);
    EXPECT_EQ(Run({"demo", "--give-up=0.01"}, "bogus\nnotify x\n").status, 2);
    EXPECT_EQ(Run({"demo"}, "leave\nnotify x\n").status, 4) << "at once, as it has left";
}

TEST_F(PartnerProgram, StaysAfterItsInputWhenToldToOrWhereThereNeverWasAny) {
    for (const char* line : {"--stay demo <input", "demo </dev/null"}) {
        PartnerProcess process({"/bin/sh", "-c",
                                "cd \"$(mktemp -d)\" && echo 'announce ack' >input && exec " +
                                    std::string(kProgram) + " " + line});
        ASSERT_TRUE(IterateUntil([&] { return process.Find("announced SYN").has_value(); }));
        process.Signal(SIGTERM);
        EXPECT_EQ(process.Wait(), 128 + SIGTERM) << line;
    }
}

TEST_F(PartnerProgram, EndsWithTheBus) {
    tevrol::PrivateBus other;
    PartnerProcess process({kProgram, "demo", "--stay", "--address=" + other.Address()});
    ASSERT_TRUE(IterateUntil([&] { return process.Find("announced SYN").has_value(); }));
    other.Kill();
    EXPECT_EQ(process.Wait(), 3);
}

TEST_F(PartnerProgram, GoesOnWithoutCommandsUntilASignalEndsIt) {
    StartAndConnect();
    partner->Signal(SIGTERM);
    EXPECT_EQ(partner->Wait(), 128 + SIGTERM);
    EXPECT_TRUE(IterateUntil([&] { return !channel.IsConnectionReady(); }));
}

// ---- Leaving ----

struct Leaving {
    std::string moment;
    std::string last_event;
    bool waits = false;  // and answers a SYN
};

class PartnerProgramLeaving : public PartnerProgram, public testing::WithParamInterface<Leaving> {};

TEST_P(PartnerProgramLeaving, LeavesAtTheMomentNamed) {
    const Leaving& leaving = GetParam();
    Start({leaving.waits ? "--wait" : "--lateness=0", "--leave=" + leaving.moment});
    std::unique_ptr<TestChannel> late;
    if (leaving.waits) {
        ASSERT_TRUE(IterateUntil([&] { return Printed("joined "); }));
        late = std::make_unique<TestChannel>();
    }
    ASSERT_TRUE(IterateUntil([&] { return Printed("left"); }));
    const auto lines = partner->Lines();
    EXPECT_EQ(lines.back(), "left");
    EXPECT_THAT(lines.at(lines.size() - 2), StartsWith(leaving.last_event));
}

INSTANTIATE_TEST_SUITE_P(
    At, PartnerProgramLeaving,
    testing::Values(Leaving{"before-syn", "joined "}, Leaving{"during-syn", "joined "},
                    Leaving{"after-syn", "announced SYN"},
                    Leaving{"before-syn-ack", "bound ", true},
                    Leaving{"during-syn-ack", "bound ", true},
                    Leaving{"after-syn-ack", "announced SYN_ACK", true},
                    Leaving{"before-ack", "bound "}, Leaving{"during-ack", "bound "},
                    Leaving{"after-ack", "announced ACK"}, Leaving{"ready", "ready "}),
    [](const auto& tested) {
        std::string name = tested.param.moment;
        std::replace(name.begin(), name.end(), '-', '_');
        return name;
    });

}  // namespace
