// SPDX-License-Identifier: MIT
// tevrolctl verify: each fault of a partner is told by the line that is about it, and by no other.
#include <algorithm>
#include <array>
#include <filesystem>
#include <fstream>
#include <map>
#include <set>
#include <sstream>

#include "tests/programs/odd-service.h"
#include "tests/programs/tool.h"

namespace {

using testing::HasSubstr;
using testing::IsEmpty;
using testing::Not;
using Incoming = OddService::Incoming;
using Reply = OddService::Reply;
using Lines = std::set<int>;
using Variant = std::unique_ptr<GVariant, tevrol::GVariantUnref>;

constexpr int kTests = 29;
// For a correct partner on a busy machine.
constexpr std::array<const char*, 2> kMuchTime = {"--wait=30", "--reply-limit=30"};
constexpr std::size_t kLarge = std::size_t{1} << 20;

struct Report {
    Lines failed;
    Lines skipped;
    std::map<int, std::string> reasons;  // of those that failed
    int last = 0;
};

Report Read(const Result& result) {
    Report report;
    std::istringstream output(result.output);
    for (std::string line; std::getline(output, line);) {
        const bool failed = line.rfind("not ok ", 0) == 0;
        if (failed || line.rfind("ok ", 0) == 0) {
            const int number = std::stoi(line.substr(failed ? 7 : 3));
            EXPECT_EQ(number, report.last + 1) << result.output;
            report.last = number;
            if (failed) {
                report.failed.insert(number);
            } else if (line.find("# SKIP needs --run") != std::string::npos) {
                report.skipped.insert(number);
            }
        } else if (line.rfind("  # ", 0) == 0) {
            report.reasons[report.last] = line.substr(4);
        }
    }
    return report;
}

// For a partner that does all that is waited for: no wait lasts so long, but on a machine with much
// else to do one may take more than a second.
constexpr const char* kPatience = "20";

Result Verify(Arguments options = {}, const std::string& patience = "1") {
    options.insert(options.begin(), {"verify", "--wait=" + patience, "--reply-limit=" + patience});
    options.emplace_back("demo");
    return Tool(options);
}

// ---- Partners that this program starts ----

struct StartedFault {
    std::string option;
    Lines failed;
};

class VerifyOfAStartedPartner : public TevrolctlTest,
                                public testing::WithParamInterface<StartedFault> {};

TEST_P(VerifyOfAStartedPartner, FailsTheLinesAboutItsFault) {
    Arguments options = {"--run", TEVROL_PARTNER_PROGRAM " demo " + GetParam().option};
    if (GetParam().option == "--answer=fixed") {
        options.emplace_back("--echo");
    }
    // Where nearly all fails, nearly all is waited for in vain.
    const bool in_vain = GetParam().failed.size() > 10;
    const Result result = Verify(options, in_vain ? "0.4" : "1");
    Report report = Read(result);
    if (in_vain) {
        // Which then need luck: this partner repeats an announcement after half a second.
        report.failed.erase(24);
        report.failed.erase(25);
    }
    EXPECT_EQ(report.failed, GetParam().failed) << result.output;
    EXPECT_THAT(report.skipped, IsEmpty());
    const bool bailed_out = report.failed.count(1) != 0;
    EXPECT_EQ(report.last, bailed_out ? 1 : kTests) << result.output;
    EXPECT_EQ(result.output.find(GetParam().option == "--hold=syn"
                                     ? "Bail out! this end cannot announce itself"
                                     : "Bail out! no partner to test") != std::string::npos,
              bailed_out);
    EXPECT_EQ(result.status, bailed_out ? kNoPartner : kFailed);
}

Lines AllBut(const Lines& passed) {
    Lines failed;
    for (int number = 1; number <= kTests; ++number) {
        if (passed.count(number) == 0) {
            failed.insert(number);
        }
    }
    return failed;
}

const Lines kNoPartnerAtAll = {1};
// Without a reply, or any answer: the SYN's answer, that to the client after one that died, the
// interface, and the names. The two that need luck are left out everywhere.
const Lines kWithoutAnswers = {1, 10, 24, 25, 27, 29};
const Lines kWithoutReplies = {1, 4, 8, 10, 24, 25, 27, 29};

INSTANTIATE_TEST_SUITE_P(
    With, VerifyOfAStartedPartner,
    testing::Values(StartedFault{"--wait", {21, 22}},
                    StartedFault{"--fault=never", AllBut(kWithoutAnswers)},
                    StartedFault{"--fault=late", AllBut({1, 10, 13, 24, 25, 27, 29})},
                    StartedFault{"--fault=error", AllBut(kWithoutReplies)},
                    StartedFault{"--fault=wrong-type", AllBut(kWithoutReplies)},
                    StartedFault{"--answer=fixed", AllBut(kWithoutReplies)},
                    StartedFault{"--leave=before-syn", kNoPartnerAtAll},
                    StartedFault{"--leave=during-syn", kNoPartnerAtAll},
                    StartedFault{"--leave=after-syn", kNoPartnerAtAll},
                    StartedFault{"--leave=before-syn-ack", kNoPartnerAtAll},
                    StartedFault{"--leave=during-syn-ack", AllBut({1, 3, 8, 10, 21, 24, 25, 29})},
                    StartedFault{"--leave=after-syn-ack", AllBut({1, 3, 8, 10, 21, 24, 25, 29})},
                    StartedFault{"--leave=before-ack", {3, 21, 22, 25}},
                    StartedFault{"--leave=during-ack", {3, 21, 22}},
                    StartedFault{"--leave=after-ack", {3, 21, 22}},
                    StartedFault{"--leave=ready", AllBut({1, 8, 10, 24, 25, 29})},
                    StartedFault{"--leave=request", AllBut({1, 8, 10, 24, 25, 27, 29})},
                    StartedFault{"--hold=syn", kNoPartnerAtAll},
                    StartedFault{"--hold=syn-ack", {3, 6, 18, 21, 22, 25, 26}},
                    StartedFault{"--hold=ack", AllBut({1, 3, 10, 21, 24, 25, 29})}),
    [](const auto& tested) {
        std::string name = tested.param.option.substr(2);
        for (char& character : name) {
            character = character == '-' || character == '=' ? '_' : character;
        }
        return name;
    });

class VerifyWithRun : public TevrolctlTest {
protected:
    // A command that starts a correct partner, but one with `option` at its start number `odd`.
    std::string CommandOddAt(int odd, const std::string& option) const {
        std::filesystem::remove(File("starts"));
        std::ofstream script(File("start"));
        script << "#!/bin/sh\n"
               << "echo start >>" << File("starts") << "\n"
               << "[ $(wc -l <" << File("starts") << ") = " << odd << " ] && set -- " << option
               << "\nexec " TEVROL_PARTNER_PROGRAM " demo \"$@\"\n";
        script.close();
        std::filesystem::permissions(File("start"), std::filesystem::perms(0700));
        return File("start");
    }
};

TEST_F(VerifyWithRun, NamesAPartnerThatDoesNotOpenAtItsStart) {
    const Report report = Read(Verify({"--run", CommandOddAt(2, "--wait")}));
    EXPECT_EQ(report.failed, Lines{21});
    EXPECT_THAT(report.reasons.at(21), HasSubstr("no SYN within"));
}

TEST_F(VerifyWithRun, NamesAPartnerThatDoesNotOpenAtItsReturn) {
    const Report report = Read(Verify({"--run", CommandOddAt(3, "--wait")}));
    EXPECT_EQ(report.failed, Lines{22});
    EXPECT_THAT(report.reasons.at(22), HasSubstr("no SYN within"));
}

TEST_F(VerifyWithRun, NamesAPartnerThatOpensAndNeverCompletes) {
    const Report both = Read(Verify({"--run", CommandOddAt(2, "--leave=before-ack")}));
    EXPECT_EQ(both.failed, Lines{21}) << "it is started again for the next line";
    EXPECT_THAT(both.reasons.at(21), HasSubstr("no ACK within"));
    const Report report = Read(Verify({"--run", CommandOddAt(3, "--leave=before-ack")}));
    EXPECT_EQ(report.failed, Lines{22});
    EXPECT_THAT(report.reasons.at(22), HasSubstr("no ACK within"));
}

TEST_F(VerifyWithRun, NamesAPartnerThatOpensAndDoesNotReply) {
    EXPECT_EQ(Read(Verify({"--run", CommandOddAt(2, "--fault=error")})).failed,
              (Lines{21, 22, 23, 26, 28}));
    EXPECT_EQ(Read(Verify({"--run", CommandOddAt(3, "--fault=error")})).failed,
              (Lines{22, 23, 26, 28}));
}

TEST_F(VerifyWithRun, StartsThePartnerThreeTimesAndEndsItEachTime) {
    const Result result = Verify({"--run", CommandOddAt(0, "")}, kPatience);
    EXPECT_EQ(result.status, kOk) << result.output;
    EXPECT_EQ(ReadFile(File("starts")), "start\nstart\nstart\n");
    const Result next = Tool({"check", "--wait=0", "demo"});
    EXPECT_EQ(next.status, kNoPartner) << "the last one is gone too: " << next.output;
}

// ---- A partner that lives in this test: correct but for one habit ----

class VerifyOf : public TevrolctlTest {
protected:
    // Verifies the service with its habits; `expected` lines fail and no others. The report.
    Report Expect(const Lines& expected, Arguments options = {}) {
        const Result result = Verify(std::move(options), expected.empty() ? kPatience : "1");
        const Report report = Read(result);
        EXPECT_EQ(report.failed, expected) << result.output;
        EXPECT_EQ(report.skipped, (Lines{21, 22}));
        EXPECT_EQ(report.last, kTests);
        EXPECT_EQ(result.status, expected.empty() ? kOk : kFailed);
        return report;
    }

    // Refuses the next request after `condition` has held once.
    void SulkAfter(const std::function<bool(const Incoming&)>& condition) {
        service.on_notification = [this, condition](const Incoming& notification) {
            m_sulks = m_sulks || condition(notification);
        };
        service.on_request = [this](const Incoming&) -> std::optional<Reply> {
            if (!m_sulks) {
                return std::nullopt;
            }
            m_sulks = false;
            return Reply::Error;
        };
    }

    OddService service;

private:
    bool m_sulks = false;
};

TEST_F(VerifyOf, ACorrectPartnerPasses) {
    Expect({});
    Expect({}, {"--echo"});
}

TEST_F(VerifyOf, APartnerThatAnswersSynWithAckIsNamed) {
    service.on_announced = [this](const std::string& stage, const std::string&) {
        if (stage == "SYN") {
            service.Announce("ACK");
        }
        return true;
    };
    const Result result = Verify();
    EXPECT_EQ(result.status, kFailed);
    EXPECT_EQ(Read(result).last, 1) << result.output;
    EXPECT_THAT(result.output, HasSubstr("not ok 1 - answers SYN with SYN_ACK\n"
                                         "  # no SYN_ACK within 1.00 s\n"
                                         "Bail out! the partner answers SYN with ACK\n"));
}

TEST_F(VerifyOf, AnotherChannelsAnswersAreNone) {
    service.on_announced = [this](const std::string&, const std::string&) {
        for (const char* name :
             {"org.ulmar.Tevrol.demo2_SERVICE_SYN_ACK", "org.ulmar.Tevrol.de_SERVICE_SYN_ACK",
              "org.ulmar.Tevrol.demo_CLIENT_SYN_ACK", "org.ulmar.demo"}) {
            service.Pulse(name);
        }
        return true;
    };
    EXPECT_EQ(Verify().status, kNoPartner);
}

TEST_F(VerifyOf, APartnerThatDoesNotReleaseItsAnswerIsNamed) {
    service.on_announced = [this](const std::string&, const std::string&) {
        service.Acquire("org.ulmar.Tevrol.demo_SERVICE_SYN_ACK");
        return true;
    };
    const Result result = Verify();
    EXPECT_EQ(result.status, kFailed);
    EXPECT_THAT(result.output, HasSubstr("Bail out! the partner does not release SYN_ACK\n"));
}

TEST_F(VerifyOf, APartnerThatRefusesTheFirstRequest) {
    bool refused = false;
    service.on_request = [&](const Incoming&) -> std::optional<Reply> {
        return std::exchange(refused, true) ? std::nullopt : std::optional(Reply::Error);
    };
    EXPECT_THAT(Expect({2}).reasons.at(2), HasSubstr("no reply: refused"));
}

TEST_F(VerifyOf, APartnerThatDoesNotAnswerSynAck) {
    service.on_announced = [this](const std::string& stage, const std::string&) {
        return stage == "SYN_ACK" && service.Bound().empty();
    };
    EXPECT_THAT(Expect({3, 25}).reasons.at(3), HasSubstr("no ACK within"));
}

TEST_F(VerifyOf, APartnerThatIsNotReadyAfterSequenceB) {
    std::string by_syn_ack;
    service.on_announced = [&](const std::string& stage, const std::string& client) {
        by_syn_ack = stage == "SYN_ACK" && service.Bound().empty() ? client : by_syn_ack;
        return false;
    };
    service.on_request = [&](const Incoming& request) {
        return request.sender == by_syn_ack ? std::optional(Reply::None) : std::nullopt;
    };
    EXPECT_THAT(Expect({3}).reasons.at(3), HasSubstr("no reply: "));
}

TEST_F(VerifyOf, APartnerThatHearsTheAcquisition) {
    service.on_announced = [](const std::string& stage, const std::string&) {
        return stage == "SYN";
    };
    service.on_acquired = [this](const std::string& stage, const std::string& client) {
        if (stage == "SYN" && service.Bound().empty()) {
            service.Bind(client);
            service.Announce("SYN_ACK");
        }
    };
    EXPECT_THAT(Expect({4, 24}).reasons.at(4), HasSubstr("it has announced SYN_ACK"));
}

TEST_F(VerifyOf, APartnerThatHealsPasses) {
    service.on_announced = [&](const std::string& stage, const std::string& client) {
        if (client == service.Bound() && stage != "ACK") {
            service.Announce(stage == "SYN" ? "SYN_ACK" : "ACK");
        }
        return false;
    };
    Expect({});
}

TEST_F(VerifyOf, APartnerThatAnswersARepeatedSynTwice) {
    service.on_announced = [this](const std::string& stage, const std::string& client) {
        if (stage == "SYN" && client == service.Bound()) {
            service.Announce("SYN_ACK");
            service.Announce("SYN_ACK");
        }
        return false;
    };
    EXPECT_THAT(Expect({5}).reasons.at(5), HasSubstr("it has announced SYN_ACK"));
}

TEST_F(VerifyOf, APartnerThatAnswersARepeatedSynAckWithSyn) {
    service.on_announced = [this](const std::string& stage, const std::string& client) {
        if (stage == "SYN_ACK" && client == service.Bound()) {
            service.Announce("SYN");
        }
        return false;
    };
    EXPECT_THAT(Expect({6}).reasons.at(6), HasSubstr("it has announced SYN"));
}

// ---- A partner that shares nothing with this project ----

struct ForeignFault {
    std::string name;
    std::string faults;
    std::string only;  // this test, or all
    std::string reason;
    Arguments options;
};

class VerifyOfAForeignEnd : public TevrolctlTest, public testing::WithParamInterface<ForeignFault> {
protected:
    static Result Foreign(const std::string& faults, Arguments options) {
        options.insert(options.end(), {"--run", "FOREIGN_FAULTS=" + faults +
                                                    " '" TEVROLCTL_TESTS "/foreign-end.py' demo"});
        return Verify(options, "2");
    }
};

TEST_P(VerifyOfAForeignEnd, NamesItsFault) {
    Arguments options = GetParam().options;
    options.insert(options.end(), "--only=" + GetParam().only);
    const Result result = Foreign(GetParam().faults, options);
    const Report report = Read(result);
    EXPECT_EQ(result.status, kFailed) << result.output;
    EXPECT_EQ(report.failed, Lines{1});
    EXPECT_THAT(report.reasons.at(1), HasSubstr(GetParam().reason));
}

INSTANTIATE_TEST_SUITE_P(
    That, VerifyOfAForeignEnd,
    testing::Values(
        ForeignFault{"AcknowledgesTwice", "ack-twice", "3", "it has announced ACK", {}},
        ForeignFault{
            "AnswersANotificationWithSyn", "syn-on-notification", "16", "announced SYN", {}},
        ForeignFault{"AnswersWithAnotherError", "wrong-error", "14", "Error.Failed", {}},
        ForeignFault{"UnbindsAtAMalformedNotification",
                     "unbinds-on-malformed",
                     "17",
                     "it is not bound any more: it has announced SYN_ACK",
                     {}},
        ForeignFault{"StripsZeros", "strips-zeros", "23", "without the zero bytes at its end", {}},
        ForeignFault{"NeverRepeatsSynAck", "never-repeats", "24", "no SYN_ACK within", {}},
        ForeignFault{"NeverRepeatsAck", "never-repeats", "25", "no ACK within", {}},
        ForeignFault{"Queues", "queues", "24", "it queues for its name", {}},
        ForeignFault{"HasNoIntrospection", "no-introspection", "27", "no introspection", {}},
        ForeignFault{"HasAnotherMethod", "other-method", "27", "no method Send", {}},
        ForeignFault{"Broadcasts", "broadcasts", "28", "to everybody", {"--say=notify hi"}},
        ForeignFault{"SendsNothingWhenTold", "", "28", "it has sent nothing", {"--say=quiet"}},
        ForeignFault{"HoldsItsNames",
                     "holds-a-second",
                     "29",
                     "it has owned SYN for 1.0",
                     {"--reply-limit=0.5"}},
        ForeignFault{"AnswersStrangers", "", "19", "it was answered", {"--authenticating"}},
        ForeignFault{
            "RefusesStrangers", "refuses-strangers", "19", "no reply: not the partner", {}}),
    [](const auto& tested) { return tested.param.name; });

TEST_F(VerifyOfAForeignEnd, PassesACorrectOne) {
    for (const std::string faults : {"", "repeats-syn,syn-after-loss"}) {
        const Result result = Foreign(faults, {"--echo", "--say=request hi"});
        EXPECT_EQ(result.status, kOk) << faults << result.output;
        EXPECT_EQ(Read(result).last, kTests);
        EXPECT_THAT(result.output, Not(HasSubstr("SKIP")));
    }
}

TEST_F(VerifyOfAForeignEnd, PassesOneThatRefusesStrangersWhenTold) {
    const Result result = Foreign("refuses-strangers", {"--authenticating"});
    EXPECT_EQ(result.status, kOk) << result.output;
}

TEST_F(VerifyOfAForeignEnd, SaysWhenItAnswersTooLate) {
    const Result result = Foreign("slow-answer", {"--wait=0.7"});
    EXPECT_EQ(result.status, kFailed);
    EXPECT_THAT(result.output, HasSubstr("Bail out! the partner answers too late; see --wait\n"));
}

TEST_F(VerifyOfAForeignEnd, SaysWhenItIsBoundElsewhere) {
    const auto foreign = StartForeign();
    Peer client;
    client.Pulse("org.ulmar.Tevrol.demo_CLIENT_SYN");
    AwaitText(*foreign, "bound " + client.UniqueName());
    const Result result = Verify({}, "0.3");
    EXPECT_EQ(result.status, kNoPartner);
    EXPECT_THAT(result.output, HasSubstr(" exports the channel's object and has not answered: it "
                                         "is bound to another process, stopped, or no service"));
}

TEST_F(VerifyOfAForeignEnd, ForgesNoLineOfTheReport) {
    setenv("FOREIGN_TEXT", "odd\nok 2 - forged\nBail out! \033[2J\u202e\u009b", 1);
    const Result result = Foreign("hostile-error", {"--only=2"});
    EXPECT_EQ(result.status, kFailed);
    EXPECT_THAT(result.output, HasSubstr("  # no reply: odd\\nok 2 - forged\\nBail out! "
                                         "\\x1b[2J\\u202e\\u009b\n"));
    EXPECT_EQ(Read(result).last, 1);
    EXPECT_THAT(result.output, Not(HasSubstr("\nBail out!")));
}

TEST_F(VerifyOfAForeignEnd, IsStartedAgainWhenItHasEnded) {
    const Result result =
        Foreign("exits-on-syn", {"--only=answers SYN", "--only=22", "--wait=0.5"});
    EXPECT_THAT(result.output, HasSubstr("; the partner has ended\n"));
}

// ---- What runs ----

TEST_F(VerifyOf, OnlyTheTestsThatAreChosen) {
    const Result result = Verify({"--only=3", "--only=1 MiB", "--repeat=2"});
    EXPECT_EQ(result.output,
              "TAP version 13\n1..6\n"
              "ok 1 - sequence B: answers SYN_ACK with ACK, once\n"
              "ok 2 - answers a request of 1 MiB\n"
              "ok 3 - takes notifications: empty, all byte values, 1 MiB\n"
              "ok 4 - sequence B: answers SYN_ACK with ACK, once\n"
              "ok 5 - answers a request of 1 MiB\n"
              "ok 6 - takes notifications: empty, all byte values, 1 MiB\n");
}

TEST_F(VerifyOf, AnyTestByItself) {
    for (int number = 1; number <= kTests; ++number) {
        const Result result = Verify({"--only=" + std::to_string(number)});
        EXPECT_EQ(result.status, kOk) << result.output;
        EXPECT_EQ(Read(result).last, 1);
    }
}

TEST_F(VerifyOf, APartnerThatRefusesAllButOneRequest) {
    service.on_request = [](const Incoming& request) {
        return request.payload == tevrol::ToBytes("please") ? std::nullopt
                                                            : std::optional(Reply::Error);
    };
    Expect({}, {"--request=please"});
    EXPECT_EQ(Verify({"--only=2"}).status, kFailed);
}

TEST_F(TevrolctlTest, VerifyListsItsTests) {
    const Result result = Tool({"verify", "--list"});
    EXPECT_EQ(result.status, kOk);
    EXPECT_EQ(result.output.rfind("1 - answers SYN with SYN_ACK\n2 - ", 0), 0U);
    EXPECT_THAT(result.output, HasSubstr("\n29 - "));
    EXPECT_EQ(std::count(result.output.begin(), result.output.end(), '\n'), kTests);
}

TEST_F(TevrolctlTest, VerifyRefusesOptionsThatMakeNoSense) {
    for (const auto& [option, reason] : std::map<std::string, std::string>{
             {"--only=30", "no such test: 30; see --list"},
             {"--only=nonsense", "no such test: nonsense; see --list"},
             {"--repeat=0", "--repeat needs a number from 1 on"},
             {"--say=x", "--say needs --run"},
             {"--request=hex:0", "no even number"}}) {
        const Result result = Tool({"verify", option, "demo"});
        EXPECT_EQ(result.status, kUsage) << option;
        EXPECT_THAT(result.errors, HasSubstr(reason));
    }
}

TEST_F(VerifyWithRun, PassesTheCommandToTheShellAsItIs) {
    const Result result =
        Verify({"--only=1", "--run",
                "WORDS='demo --answer=x'; A=b " TEVROL_PARTNER_PROGRAM " $WORDS; true"});
    EXPECT_EQ(result.status, kOk) << result.output << result.errors;
    const Result next = Tool({"check", "--wait=0", "demo"});
    EXPECT_EQ(next.status, kNoPartner) << "all that the shell started is gone: " << next.output;
}

TEST_F(TevrolctlTest, VerifyPassesAnEndOfTevrolChannel) {
    const Result result =
        Tool({"verify", kMuchTime[0], kMuchTime[1], "--authenticating", "--request=temperature",
              "--run", TEVROL_PRODUCT_SERVICE, "thermostat"});
    EXPECT_EQ(result.status, kOk) << result.output;
}

TEST_F(VerifyOf, APartnerThatAnswersARepeatedAck) {
    std::string ready;
    service.on_announced = [&](const std::string& stage, const std::string& client) {
        if (stage == "ACK" && !service.Bound().empty()) {
            if (ready == client) {
                service.Announce("ACK");
            }
            ready = client;
        }
        return false;
    };
    EXPECT_THAT(Expect({7}).reasons.at(7), HasSubstr("it has announced ACK"));
}

TEST_F(VerifyOf, APartnerThatBindsOnAnAckAlone) {
    service.on_announced = [this](const std::string& stage, const std::string& client) {
        if (stage == "ACK" && service.Bound().empty()) {
            service.Bind(client);
        }
        return false;
    };
    EXPECT_THAT(Expect({8}).reasons.at(8), HasSubstr("no SYN_ACK within"));
}

TEST_F(VerifyOf, APartnerThatAnswersAnAckWhenNotBound) {
    service.on_announced = [this](const std::string& stage, const std::string&) {
        if (stage == "ACK" && service.Bound().empty()) {
            service.Announce("ACK");
        }
        return false;
    };
    EXPECT_THAT(Expect({8}).reasons.at(8), HasSubstr("it has announced ACK"));
}

// The loss that it overlooks is made up for at the next one of a client.
class VerifyOfAnInattentivePartner : public VerifyOf {
protected:
    void Overlook(int number) {
        service.on_left = [this, number](const std::string& process) {
            if (process == service.Bound() && ++m_lost == number) {
                return true;
            }
            if (m_lost == number) {
                service.Bind("");
            }
            return false;
        };
    }

    // Whether a process is there and has asked the bus for signals.
    bool Listens(const std::string& process) const {
        const Variant stats(g_dbus_connection_call_sync(
            service.Get(), "org.freedesktop.DBus", "/org/freedesktop/DBus",
            "org.freedesktop.DBus.Debug.Stats", "GetConnectionStats",
            g_variant_new("(s)", process.c_str()), nullptr, G_DBUS_CALL_FLAGS_NONE, G_MAXINT,
            nullptr, nullptr));
        if (stats == nullptr) {
            return false;
        }
        const Variant values(g_variant_get_child_value(stats.get(), 0));
        guint32 rules = 0;
        return g_variant_lookup(values.get(), "MatchRules", "u", &rules) != FALSE && rules > 0;
    }

private:
    int m_lost = 0;
};

// The process that joins the bus after `process`.
std::string NextOf(const std::string& process) {
    const std::size_t number = process.rfind('.') + 1;
    return process.substr(0, number) + std::to_string(std::stoi(process.substr(number)) + 1);
}

// The clients, in order: one in each line, but two in the fourth, ninth and tenth.
TEST_F(VerifyOfAnInattentivePartner, ThatOverlooksTheLossOfAReadyClient) {
    Overlook(10);
    EXPECT_THAT(Expect({9}).reasons.at(9), HasSubstr("no SYN_ACK within"));
}

TEST_F(VerifyOfAnInattentivePartner, ThatOverlooksTheDeathInTheAnnouncement) {
    Overlook(12);
    EXPECT_THAT(Expect({10}).reasons.at(10), HasSubstr("no SYN_ACK to the next client"));
}

TEST_F(VerifyOfAnInattentivePartner, ThatAnswersTheDeadWhenTheNextIsThere) {
    Overlook(12);
    service.on_announced = [this](const std::string&, const std::string& client) {
        while (service.Bound().empty() && !Listens(client) && !Listens(NextOf(client))) {
        }
        return false;
    };
    EXPECT_THAT(Expect({10}).reasons.at(10), HasSubstr("no SYN_ACK to the next client"));
}

TEST_F(VerifyOf, APartnerThatRefusesAnEmptyRequest) {
    service.on_request = [](const Incoming& request) {
        return request.type == "ay" && request.payload.empty() ? std::optional(Reply::Error)
                                                               : std::nullopt;
    };
    Expect({11});
}

TEST_F(VerifyOf, APartnerThatLosesSomeByteValues) {
    service.on_request = [](const Incoming& request) {
        return request.payload == tevrol::AllByteValues() ? std::optional(Reply::OtherBytes)
                                                          : std::nullopt;
    };
    EXPECT_THAT(Expect({12}, {"--echo"}).reasons.at(12),
                HasSubstr("the reply differs from the request"));
    Expect({});  // any reply of the right type will do without --echo
}

TEST_F(VerifyOf, APartnerThatRefusesALargeRequest) {
    service.on_request = [](const Incoming& request) {
        return request.payload.size() >= kLarge ? std::optional(Reply::Error) : std::nullopt;
    };
    Expect({13, 16});
}

TEST_F(VerifyOf, APartnerThatRepliesWithAnotherType) {
    service.on_request = [](const Incoming& request) {
        return request.type == "ay" && request.payload.empty() ? std::optional(Reply::Text)
                                                               : std::nullopt;
    };
    EXPECT_THAT(Expect({11}).reasons.at(11), HasSubstr("the reply is of type (s)"));
}

TEST_F(VerifyOf, APartnerThatAnswersARequestOfAnotherType) {
    service.on_request = [](const Incoming& request) {
        return request.type == "s" ? std::optional(Reply::Correct) : std::nullopt;
    };
    EXPECT_THAT(Expect({14}).reasons.at(14), HasSubstr("it was answered"));
}

TEST_F(VerifyOf, APartnerThatLeavesARequestOfAnotherTypeUnanswered) {
    service.on_request = [](const Incoming& request) {
        return request.type == "s" ? std::optional(Reply::None) : std::nullopt;
    };
    EXPECT_THAT(Expect({14}).reasons.at(14), HasSubstr("no error came back"));
}

TEST_F(VerifyOf, APartnerThatAnswersAnUnknownMethod) {
    service.on_request = [](const Incoming& request) {
        return request.member != "Send" ? std::optional(Reply::Correct) : std::nullopt;
    };
    EXPECT_THAT(Expect({15}).reasons.at(15), HasSubstr("it was answered"));
}

TEST_F(VerifyOf, APartnerThatLeavesAnUnknownMethodUnanswered) {
    service.on_request = [](const Incoming& request) {
        return request.member != "Send" ? std::optional(Reply::None) : std::nullopt;
    };
    EXPECT_THAT(Expect({15}).reasons.at(15), HasSubstr("no error came back"));
}

TEST_F(VerifyOf, APartnerThatStumblesOverAnEmptyNotification) {
    SulkAfter([](const Incoming& notification) {
        return notification.type == "ay" && notification.payload.empty();
    });
    Expect({16});
}

TEST_F(VerifyOf, APartnerThatStumblesOverANotificationOfAllByteValues) {
    SulkAfter([](const Incoming& notification) {
        return notification.payload == tevrol::AllByteValues();
    });
    Expect({16});
}

TEST_F(VerifyOf, APartnerThatStumblesOverALargeNotification) {
    SulkAfter([](const Incoming& notification) { return notification.payload.size() == kLarge; });
    Expect({16});
}

TEST_F(VerifyOf, APartnerThatStumblesOverANotificationOfAnotherType) {
    SulkAfter([](const Incoming& notification) { return notification.type == "s"; });
    Expect({17});
}

TEST_F(VerifyOf, APartnerThatAnswersAStrangersSyn) {
    service.on_announced = [this](const std::string& stage, const std::string& client) {
        if (stage == "SYN" && !service.Bound().empty() && client != service.Bound()) {
            service.Announce("SYN_ACK");
        }
        return false;
    };
    EXPECT_THAT(Expect({5, 6, 7, 17, 18, 20, 26}).reasons.at(18),
                HasSubstr("it has announced SYN_ACK"));
}

TEST_F(VerifyOf, APartnerThatAnswersAStrangersSynAck) {
    service.on_announced = [this](const std::string& stage, const std::string& client) {
        if (stage == "SYN_ACK" && !service.Bound().empty() && client != service.Bound()) {
            service.Announce("ACK");
        }
        return false;
    };
    EXPECT_THAT(Expect({18}).reasons.at(18), HasSubstr("it has announced ACK"));
}

TEST_F(VerifyOf, APartnerThatRefusesAStrangersRequest) {
    service.on_request = [this](const Incoming& request) {
        const bool stranger = !service.Bound().empty() && request.sender != service.Bound();
        return stranger ? std::optional(Reply::Error) : std::nullopt;
    };
    Expect({19});
}

TEST_F(VerifyOf, APartnerThatTakesAStrangersNotificationForTheClients) {
    service.on_notification = [this](const Incoming& notification) {
        if (notification.sender != service.Bound()) {
            service.Bind("");
        }
    };
    EXPECT_THAT(Expect({20}).reasons.at(20), HasSubstr("it has announced SYN_ACK"));
}

TEST_F(VerifyOf, APartnerThatTakesAStrangersLossForTheClients) {
    std::string stranger;
    service.on_notification = [&](const Incoming& notification) { stranger = notification.sender; };
    service.on_left = [&](const std::string& process) {
        if (process == stranger && process != service.Bound()) {
            service.Bind("");
        }
        return false;
    };
    Expect({20});
}

TEST_F(VerifyOf, APartnerWhoseNamesSomebodyHolds) {
    service.Acquire("org.ulmar.Tevrol.demo_CLIENT_SYN");
    const Result result = Verify();
    EXPECT_EQ(result.status, kNoPartner);
    EXPECT_THAT(result.output,
                HasSubstr("# this end cannot own its SYN name: see tevrolctl check"));
}

TEST_F(VerifyOf, OtherChannelsMeanwhileAreOfNoConcern) {
    const auto make_noise = [this](const Incoming&) -> std::optional<Reply> {
        for (const char* name :
             {"org.ulmar.Tevrol.demo2_SERVICE_SYN", "org.ulmar.Tevrol.demo2_SERVICE_SYN_ACK",
              "org.ulmar.Tevrol.demo_CLIENT_FIN", "org.ulmar.Other.demo_SERVICE_ACK"}) {
            service.Pulse(name);
        }
        return std::nullopt;
    };
    service.on_request = make_noise;
    Expect({});
}

TEST_F(VerifyOf, ARequestHasAMillisecondMoreForEachHalfKibibyte) {
    // A large request's limit is two seconds longer, as some ends convert byte by byte.
    service.on_request = [](const Incoming& request) -> std::optional<Reply> {
        const bool large = request.payload.size() == kLarge;
        const auto until = g_get_monotonic_time() + (large ? G_USEC_PER_SEC : 0);
        while (g_get_monotonic_time() < until) {
            g_usleep(1000);
        }
        return std::nullopt;
    };
    Expect({}, {"--reply-limit=0.5"});
}

TEST_F(VerifyOf, TheReportIsTheTestAnythingProtocol) {
    const Result result = Verify();
    EXPECT_EQ(result.output.rfind("TAP version 13\n1..29\nok 1 - answers SYN with SYN_ACK\n", 0),
              0U);
    EXPECT_THAT(result.output,
                HasSubstr("\nok 21 - opens with SYN when it is started # SKIP needs --run\n"
                          "ok 22 - dies and returns in sequence B # SKIP needs --run\n"));
    EXPECT_THAT(result.output, Not(HasSubstr("\033[")));
}

}  // namespace
