// SPDX-License-Identifier: MIT
// tevrolctl open, send and notify: what they send, show and wait for, and how they end.
#include <sys/stat.h>

#include <algorithm>
#include <fstream>
#include <memory>
#include <sstream>

#include "tests/programs/odd-service.h"
#include "tests/programs/tool.h"

namespace {

using testing::ContainsRegex;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::Not;
using testing::StartsWith;
using tevrol::Bytes;
using tevrol::IterateUntil;
using tevrol::ToBytes;
using Incoming = OddService::Incoming;

// The lines of "HH:MM:SS.mmm DIRECTION WHAT", without the time and what else differs.
std::vector<std::string> Shown(const std::string& output) {
    std::vector<std::string> lines;
    std::istringstream text(output);
    for (std::string line; std::getline(text, line);) {
        lines.push_back(line.substr(std::string("12:34:56.789 ").size()));
    }
    return lines;
}

class Terminal : public TevrolctlTest {
protected:
    Terminal() {
        service.on_request = [this](const Incoming& request) {
            requests.push_back(request.payload);
            return std::nullopt;
        };
        service.on_notification = [this](const Incoming& notification) {
            notifications.push_back(notification.payload);
        };
    }

    OddService service;
    std::vector<Bytes> requests;
    std::vector<Bytes> notifications;
};

TEST_F(Terminal, ShowsAConversationLineByLine) {
    const Result result =
        Tool({"open", "demo"}, "request hello\nnotify hex:00ff\n\nrequest\nnotify  two words\n");
    EXPECT_EQ(result.status, kOk);
    EXPECT_EQ(result.errors, "");
    auto lines = Shown(result.output);
    ASSERT_GE(lines.size(), 2U);
    EXPECT_THAT(lines.at(0), StartsWith("-- waiting as :1."));
    const auto waited =
        std::find(lines.begin(), lines.end(), "-- no partner yet: what is typed waits for it");
    if (waited != lines.end()) {
        lines.erase(waited);
    }
    lines.erase(lines.begin());
    EXPECT_THAT(lines, testing::UnorderedElementsAre(
                           "-- ready " + service.UniqueName(), "-> request #1 5 bytes \"hello\"",
                           "-> notification 2 bytes hex:00ff", "-> request #2 0 bytes",
                           "-> notification 10 bytes \" two words\"",
                           ContainsRegex("^<- reply #1 after [0-9.]+ ms 5 bytes \"hello\"$"),
                           ContainsRegex("^<- reply #2 after [0-9.]+ ms 0 bytes$")));
    EXPECT_THAT(result.output, ContainsRegex("^[0-9][0-9]:[0-9][0-9]:[0-9][0-9]\\.[0-9]{3} -- "));
    EXPECT_TRUE(IterateUntil([&] { return notifications.size() == 2; }));
    EXPECT_THAT(requests, ElementsAre(ToBytes("hello"), Bytes()));
    EXPECT_THAT(notifications, ElementsAre(Bytes{'\0', '\xff'}, ToBytes(" two words")));
}

TEST_F(Terminal, ShowsEverythingInHexWhenAsked) {
    const Result result = Tool({"open", "--hex", "demo"}, "request AB\n");
    EXPECT_THAT(result.output, HasSubstr("-> request #1 2 bytes hex:4142"));
    EXPECT_THAT(result.output, HasSubstr(" ms 2 bytes hex:4142"));
}

TEST_F(Terminal, QuitEndsItAtOnceWhateverElseIsTyped) {
    const Result result = Tool({"open", "--stay", "demo"}, "quit\nrequest x\n");
    EXPECT_EQ(result.status, kOk);
    EXPECT_THAT(result.output, Not(HasSubstr("request")));
}

TEST_F(Terminal, QuitComesAfterTheLinesBeforeIt) {
    const Result result =
        Tool({"open", "--stay", "demo"}, "request one\nnotify two\nquit\nrequest never\n");
    EXPECT_EQ(result.status, kOk) << result.errors;
    EXPECT_THAT(result.output, HasSubstr("<- reply #1"));
    EXPECT_THAT(result.output, Not(HasSubstr("never")));
    EXPECT_TRUE(IterateUntil([&] { return notifications.size() == 1; }));
    EXPECT_THAT(requests, ElementsAre(ToBytes("one")));
}

TEST_F(Terminal, QuitGivesUpOnLinesThatNobodyTakes) {
    service.on_announced = [](const std::string&, const std::string&) { return true; };
    const Result result = Tool({"open", "--wait=0.05", "demo"}, "notify x\nquit\n");
    EXPECT_EQ(result.status, kNoPartner);
    EXPECT_THAT(result.errors, HasSubstr("no partner: 1 lines not sent"));
}

TEST_F(Terminal, HelpShowsTheLinesAtOnce) {
    service.on_announced = [](const std::string&, const std::string&) { return true; };
    EXPECT_THAT(Tool({"open", "demo"}, "help\n").output, HasSubstr("  notify PAYLOAD "));
}

TEST_F(Terminal, ARequestThatTakesTooLongIsGivenUpAndTheNextIsSent) {
    service.on_request = [this](const Incoming& request) -> std::optional<OddService::Reply> {
        requests.push_back(request.payload);
        return request.payload == ToBytes("silent")
                   ? std::optional<OddService::Reply>(OddService::Reply::None)
                   : std::nullopt;
    };
    const Result result =
        Tool({"open", "--timeout=0.2", "demo"}, "request silent\nrequest heard\n");
    EXPECT_EQ(result.status, kNoReply);
    EXPECT_THAT(result.output,
                ContainsRegex("<- no reply #1 after [0-9.]+ ms: none came in time\n"));
    EXPECT_THAT(result.output, ContainsRegex("<- reply #2 after [0-9.]+ ms 5 bytes \"heard\""));
    EXPECT_EQ(Tool({"send", "--timeout=0.1", "demo", "silent"}).status, kNoReply);
}

TEST_F(Terminal, ErrorsOfThePartnerCannotForgeLines) {
    const auto foreign = [this] {
        g_dbus_connection_close_sync(service.Get(), nullptr, nullptr);
        setenv("FOREIGN_TEXT", "a\n12:00:00.000 <- reply #2 \033[31m", 1);
        return StartForeign("hostile-error");
    }();
    const Result result = Tool({"open", "demo"}, "request x\n");
    EXPECT_THAT(Shown(result.output).back(),
                testing::EndsWith("a\\n12:00:00.000 <- reply #2 \\x1b[31m"));
    EXPECT_THAT(Tool({"send", "--verbose", "demo", "x"}).errors, Not(HasSubstr("\033")));
}

TEST_F(Terminal, SaysOnceThatLinesWaitForAPartner) {
    service.on_announced = [](const std::string&, const std::string&) { return true; };
    const auto open = StartTool({"open", "demo"}, "waiting as");
    open->Command("request one");
    open->Command("request two");
    open->Command("notify three");
    AwaitText(*open, "no partner yet: what is typed waits for it");
    service.on_announced = nullptr;
    service.Announce("SYN");
    EXPECT_TRUE(IterateUntil([&] { return notifications.size() == 1 && requests.size() == 2; }));
    EXPECT_THAT(requests, ElementsAre(ToBytes("one"), ToBytes("two")));
    AwaitText(*open, "<- reply #2");
    int told = 0;
    for (const std::string& line : open->Lines()) {
        told += line.find("no partner yet") == std::string::npos ? 0 : 1;
    }
    EXPECT_EQ(told, 1);
    open->Command("quit");
    EXPECT_EQ(open->Wait(), kOk);
}

TEST_F(Terminal, KeepsLinesForTheNextPartnerAfterALoss) {
    const auto open = StartTool({"open", "demo"}, "-- ready");
    g_dbus_connection_close_sync(service.Get(), nullptr, nullptr);
    AwaitText(*open, "-- lost");
    open->Command("request later");
    AwaitText(*open, "no partner yet: what is typed waits for it");
    const auto next = StartPartner();
    AwaitText(*next, "5 bytes \"later\"");
}

TEST_F(Terminal, CountsTheLinesThatWereNotSent) {
    service.on_announced = [](const std::string&, const std::string&) { return true; };
    const Result result = Tool({"open", "--wait=0.05", "demo"}, "request x\nnotify y\n");
    EXPECT_EQ(result.status, kNoPartner);
    EXPECT_THAT(result.errors, HasSubstr("tevrolctl: no partner: 2 lines not sent"));
}

TEST_F(Terminal, EndsAtOnceWhereNothingIsTyped) {
    service.on_announced = [](const std::string&, const std::string&) { return true; };
    EXPECT_EQ(Tool({"open", "demo"}).status, kOk);
}

TEST_F(Terminal, StaysAfterTheEndOfItsInputWhenAsked) {
    ASSERT_EQ(mkfifo(File("input").c_str(), 0600), 0);
    const tevrol::PartnerProcess open(
        {"/bin/sh", "-c", "exec " TEVROLCTL_PROGRAM " open --stay demo <" + File("input")});
    auto input = std::make_unique<std::ofstream>(File("input"));
    AwaitText(open, "-- ready");
    input.reset();
    // The second comes when it has gone through its loop since then.
    for (const char* text : {"first", "second"}) {
        service.Emit(service.Bound(), BodyOf(ToBytes(text)));
        AwaitText(open, std::string("\"") + text + "\"");
    }
}

TEST_F(Terminal, LeavesItsOutputToItsOwnLines) {
    // What the library prints goes where its errors go.
    const Result result = Shell("$T open --stay demo </dev/null >" + File("output") + " 2>" +
                                File("errors") + " &\nuntil grep -q waiting " + File("output") +
                                "; do :; done\nreadlink /proc/$!/fd/1\nkill $!");
    EXPECT_EQ(result.output, File("errors") + "\n");
}

TEST_F(Terminal, WaitsForTheReplyAfterTheEndOfItsInput) {
    // It is typed, and the input ends, once the tool is ready; only the reply takes longer than its
    // patience with the partner.
    ASSERT_EQ(mkfifo(File("input").c_str(), 0600), 0);
    service.on_announced = [this](const std::string& stage, const std::string&) {
        if (stage == "ACK") {
            std::ofstream(File("input")) << "request slow\n";
        }
        return false;
    };
    service.on_request = [](const Incoming&) {
        const gint64 until = g_get_monotonic_time() + 100000;
        while (g_get_monotonic_time() < until) {
            g_usleep(1000);
        }
        return std::nullopt;
    };
    const Result result = Shell("cat " + File("input") + " | $T open --wait=0.01 demo");
    EXPECT_EQ(result.status, kOk) << result.errors;
    EXPECT_THAT(result.output,
                ContainsRegex("<- reply #1 after ([0-9]{3}\\.[0-9]+ ms|[0-9.]+ s) "));
}

TEST_F(Terminal, GoesOnBehindALineThatItDoesNotUnderstand) {
    const Result result = Tool({"open", "demo"}, "bogus x\nRequest x\nrequest hex:0\nnotify ok\n");
    EXPECT_EQ(result.status, kUsage);
    EXPECT_THAT(result.errors,
                HasSubstr("tevrolctl: not understood (request, notify, help or quit): bogus x\n"));
    EXPECT_THAT(result.errors, HasSubstr("help or quit): Request x\n"));
    EXPECT_THAT(result.errors, HasSubstr("no even number of hexadecimal digits: hex:0\n"));
    EXPECT_TRUE(IterateUntil([&] { return notifications.size() == 1; }));
    EXPECT_THAT(requests, IsEmpty());
}

TEST_F(Terminal, SendsWhatAFileHolds) {
    std::ofstream(File("payload")) << std::string("a\0b", 3);
    EXPECT_EQ(Tool({"open", "demo"}, "request file:" + File("payload") + "\n").status, kOk);
    EXPECT_THAT(requests, ElementsAre(Bytes{'a', '\0', 'b'}));
}

TEST_F(Terminal, SendSendsExactlyWhatItIsGiven) {
    std::ofstream(File("payload")) << "from a file\n";
    EXPECT_EQ(Tool({"send", "demo", "file:" + File("payload")}).output, "from a file\n");
    EXPECT_EQ(Tool({"send", "demo", "-"}, "typed\n").output, "typed\n");
    EXPECT_EQ(Tool({"send", "--", "demo", "--dashes"}).output, "--dashes");
    EXPECT_EQ(Tool({"send", "demo", "--", "-x"}).output, "-x");
    EXPECT_EQ(Tool({"send", "--", "demo", "--"}).output, "--");
    for (const std::string text : {"hex:00", "file:x", "text:", "-", ""}) {
        EXPECT_EQ(Tool({"send", "demo", "text:" + text}).output, text);
    }
    EXPECT_EQ(requests.size(), 10U);
}

TEST_F(Terminal, APayloadThatNoBusCarriesIsRefusedBeforeItIsConverted) {
    for (const Arguments& command : {Arguments{"send", "demo", "file:/dev/zero"},
                                     Arguments{"notify", "demo", "file:/dev/zero"},
                                     Arguments{"open", "--answer=file:/dev/zero", "demo"}}) {
        const Result result = Tool(command);
        EXPECT_EQ(result.status, kUsage) << command.front();
        EXPECT_THAT(result.errors,
                    HasSubstr("no bus carries a payload of more than 67108864 bytes (64 MiB)"));
    }
    EXPECT_THAT(Shell("$T send demo - </dev/zero").errors, HasSubstr("no bus carries"));
    EXPECT_THAT(requests, IsEmpty());
}

TEST_F(Terminal, SendShowsTheLibrarysLogWhenAskedAndKeepsItOffTheReply) {
    const Result result = Tool({"send", "--verbose", "demo", "x"});
    EXPECT_EQ(result.output, "x");
    EXPECT_THAT(result.errors, ContainsRegex("D [a-z-]+\\.cpp: SendMessage\\("));
    EXPECT_EQ(Tool({"send", "demo", "x"}).errors, "");
}

TEST_F(Terminal, SendWaitsAsLongAsItIsTold) {
    service.on_announced = [](const std::string&, const std::string&) { return true; };
    const gint64 start = g_get_monotonic_time();
    const Result result = Tool({"send", "--wait=0.25", "demo", "x"});
    EXPECT_GE(g_get_monotonic_time() - start, 250000);
    EXPECT_EQ(result.status, kNoPartner);
    EXPECT_THAT(result.errors, HasSubstr("no partner of \"demo\" within 250.00 ms "));
}

TEST_F(Terminal, NotifyEndsOnceTheBusHasTheNotification) {
    EXPECT_EQ(Tool({"notify", "demo", "hex:00ff"}).status, kOk);
    service.CallDriver("GetId", nullptr);
    while (g_main_context_iteration(nullptr, FALSE) != FALSE) {
    }
    EXPECT_THAT(notifications, ElementsAre(Bytes{'\0', '\xff'}));
}

TEST_F(TevrolctlTest, SendEndsWithoutAReplyWhenTheBusGoes) {
    tevrol::PrivateBus other;
    const std::string address = "--address=" + other.Address();
    const auto partner = StartTool({"partner", address, "--fault=never", "demo"}, "announced SYN");
    const auto send =
        StartTool({"send", address, "--verbose", "demo", "x"}, "Sending sync message");
    AwaitText(*partner, "request from");
    other.Kill();
    EXPECT_EQ(send->Wait(), kNoReply);
}

TEST_F(TevrolctlTest, AClosedPipeIsAnErrorFromTheFirstLineOn) {
    // The tool starts as programs do, not with the signal ignored, as in the shell that waits for
    // the pipe to close.
    const Result result = Shell(
        "trap '' PIPE\n{ while echo; do :; done 2>/dev/null\n"
        "env --default-signal=PIPE $T --help; echo $? >&2; } | true");
    EXPECT_THAT(result.errors, HasSubstr("Broken pipe\n1\n"));
}

// ---- Answers by a command ----

// What a partner hears of an end that answers by `command`, and how that end ends.
class Answering : public TevrolctlTest {
protected:
    std::vector<std::string> Replies(const std::string& command, const Arguments& options,
                                     const Arguments& requests) {
        const auto foreign = StartForeign();
        Arguments arguments = {"open", "--exec", command, "demo"};
        arguments.insert(arguments.end(), options.begin(), options.end());
        const auto open = StartTool(arguments, "-- ready");
        AwaitText(*foreign, "ready");
        std::size_t replies = 0;
        for (const std::string& request : requests) {
            foreign->Command("request " + request);
            ++replies;
            EXPECT_TRUE(IterateUntil([&] { return AllReplies(*foreign).size() == replies; }));
        }
        open->Command("quit");
        status = open->Wait();
        output = open->Lines();
        return AllReplies(*foreign);
    }

    static std::vector<std::string> AllReplies(const tevrol::PartnerProcess& foreign) {
        std::vector<std::string> found;
        for (const std::string& line : foreign.Lines()) {
            if (line.rfind("reply", 0) == 0 || line.rfind("no reply", 0) == 0) {
                found.push_back(line);
            }
        }
        return found;
    }

    int status = -1;
    std::vector<std::string> output;
};

TEST_F(Answering, WithACommandThatReadsNothingLosesNoAnswer) {
    const Arguments requests(50, "x");
    EXPECT_THAT(Replies("echo hi", {}, requests), testing::Each("reply 68690a"));
    EXPECT_EQ(status, kOk);
}

TEST_F(Answering, WithACommandThatClosesItsInputLosesNoAnswer) {
    EXPECT_THAT(Replies("exec <&-; printf hi", {}, {std::string(300000, 'x')}),
                ElementsAre("reply 6869"));
    EXPECT_EQ(status, kOk);
}

TEST_F(Answering, HandsLargeAnswersThrough) {
    const auto replies = Replies("cat; cat /dev/zero | head -c 200000", {}, {"x"});
    ASSERT_EQ(replies.size(), 1U);
    EXPECT_EQ(replies.front(), "reply 78" + std::string(400000, '0'));
}

TEST_F(Answering, WithACommandThatFailsIsToldAndCounted) {
    for (const auto& [command, problem] :
         {std::pair<std::string, std::string>{"printf part; exit 3", "has ended with status 3"},
          {"no-such-command-at-all", "has ended with status 127"},
          {"kill -9 $$", "was ended by signal 9"}}) {
        Replies(command, {}, {"x"});
        EXPECT_EQ(status, kFailed) << command;
        EXPECT_THAT(output, testing::Contains("tevrolctl: --exec: the command " + problem));
    }
    EXPECT_THAT(Replies("printf part; exit 3", {}, {"x"}), ElementsAre("reply 70617274"));
}

TEST_F(Answering, AsAChannelAnswersWithAnErrorWhereTheCommandFails) {
    const auto replies = Replies("exit 3", {"--as=client"}, {"x"});
    ASSERT_EQ(replies.size(), 1U);
    EXPECT_THAT(replies.front(), testing::AllOf(StartsWith("no reply "),
                                                HasSubstr("the command has ended with status 3")));
    EXPECT_EQ(status, kFailed);
    EXPECT_THAT(output, testing::Contains(HasSubstr("-> error the command has ended with")));
}

TEST_F(Answering, ASignalEndsTheToolWhileTheCommandRuns) {
    const auto foreign = StartForeign();
    const auto open =
        StartTool({"open", "--exec", "echo running >&2; exec sleep 600", "demo"}, "-- ready");
    AwaitText(*foreign, "ready");
    foreign->Command("request x");
    AwaitText(*open, "running");
    open->Signal(SIGTERM);
    EXPECT_EQ(open->Wait(), 128 + SIGTERM);
}

// ---- Many at once ----

TEST_F(TevrolctlTest, ManySendsAtTheSameMomentAllGetTheirReply) {
    const auto foreign = StartForeign();
    const Result result = Shell(
        "i=0; while [ $i -lt 12 ]; do { reply=$($T send --wait 30 demo $i || echo failed); "
        "echo \"$reply\"; } & i=$((i + 1)); done; wait");
    std::vector<std::string> replies;
    std::istringstream lines(result.output);
    for (std::string line; std::getline(lines, line);) {
        replies.push_back(line);
    }
    std::vector<std::string> expected;
    for (int i = 0; i < 12; ++i) {
        expected.push_back(std::to_string(i));
    }
    EXPECT_THAT(replies, testing::UnorderedElementsAreArray(expected)) << result.errors;
}

TEST_F(TevrolctlTest, ASendWhoseAnnouncementIsRefusedTriesAgain) {
    const auto foreign = StartForeign();
    foreign->Command("acquire org.ulmar.Tevrol.demo_CLIENT_SYN");
    AwaitText(*foreign, "acquired org.ulmar.Tevrol.demo_CLIENT_SYN");
    const auto send =
        StartTool({"send", "--verbose", "--wait=30", "demo", "hi"}, "due to return code = 3");
    foreign->Command("release org.ulmar.Tevrol.demo_CLIENT_SYN");
    EXPECT_EQ(send->Wait(), kOk);
    AwaitText(*foreign, "request 6869");
}

// ---- Either end, as tevrol::Channel ----

TEST_F(TevrolctlTest, AsServiceAndAsClientFindEachOtherAndLinkDirectly) {
    const auto service = StartTool({"open", "--as=service", "--exec=tr a-z A-Z", "demo"},
                                   "-- waiting as service of demo");
    const auto client = StartTool({"open", "--as=client", "demo"}, "-- waiting as client of demo");
    AwaitText(*service, "-- ready ");
    AwaitText(*client, "-- direct link with ");
    AwaitText(*service, "-- direct link with ");
    client->Command("request hello");
    AwaitText(*client, "5 bytes \"HELLO\"");
    service->Command("notify hex:00");
    AwaitText(*client, "<- notification 1 byte hex:00");
    service->Command("request back");
    AwaitText(*client, "<- request 4 bytes \"back\"");
    AwaitText(*service, "4 bytes \"back\"");
    client->Command("quit");
    EXPECT_EQ(client->Wait(), kOk);
    AwaitText(*service, "-- lost ");
}

TEST_F(TevrolctlTest, AsServiceASecondOneStandsByAndTakesOver) {
    const auto first = StartTool({"open", "--as=service", "demo"}, "-- waiting");
    const auto client = StartTool({"open", "--as=client", "demo"}, "-- ready");
    const auto second = StartTool({"open", "--as=service", "--answer=second", "demo"},
                                  "-- standing by: tevrolctl, process ");
    first->Kill();
    AwaitText(*second, "-- ready ");
    client->Command("request x");
    AwaitText(*client, "6 bytes \"second\"");
}

TEST_F(TevrolctlTest, AsEitherEndSendAndNotifyReachAnyPartner) {
    {
        const auto service = StartForeign();
        EXPECT_EQ(Tool({"send", "--as=client", "demo", "x"}).output, "x");
        EXPECT_EQ(Tool({"notify", "--as=client", "demo", "y"}).status, kOk);
        AwaitText(*service, "notification 79");
    }
    const auto client = StartForeign("syn-after-loss", "announced SYN", "demo", "client");
    EXPECT_EQ(Tool({"send", "--as=service", "demo", "z"}).output, "z");
    const Result nobody = Tool({"send", "--as=service", "--wait=0.1", "nobody", "x"});
    EXPECT_EQ(nobody.status, kNoPartner);
    EXPECT_EQ(Tool({"send", "--as=partner", "demo", "x"}).status, kUsage);
}

TEST_F(TevrolctlTest, AsAChannelALargeNotificationArrivesBeforeTheProcessEnds) {
    const auto service = StartTool({"open", "--as=service", "demo"}, "-- waiting");
    std::ofstream(File("large")) << std::string(20000000, 'x');
    EXPECT_EQ(Tool({"notify", "--as=client", "demo", "file:" + File("large")}).status, kOk);
    AwaitText(*service, "<- notification 20000000 bytes");
    const Result too_large = Shell("head -c 40000000 /dev/zero | $T notify --as client demo -");
    EXPECT_EQ(too_large.status, kFailed);
    EXPECT_THAT(too_large.errors, HasSubstr("not sent: "));
}

TEST_F(TevrolctlTest, AsAChannelOpenLivesOnWithoutItsBus) {
    const auto other = StartBus("", "");
    const std::string address = "--address=unix:path=" + File("socket");
    const auto open = StartTool({"open", address, "--as=client", "demo"}, "-- waiting");
    auto partner = StartTool({"partner", address, "demo"}, "announced SYN");
    AwaitText(*open, "-- ready ");
    other->Kill();
    AwaitText(*open, "-- lost ");
    const auto again = StartBus("", "");
    partner = StartTool({"partner", address, "demo"}, "ready ");
    open->Command("request still there");
    AwaitText(*open, "11 bytes \"still there\"");
}

// ---- Command line ----

TEST_F(TevrolctlTest, TimesAreFromZeroToADay) {
    for (const char* wait : {"-0.001", "86400.5", "nan", "inf", "1e99"}) {
        const Result result = Tool({"check", std::string("--wait=") + wait});
        EXPECT_EQ(result.status, kUsage) << wait;
        EXPECT_THAT(result.errors, HasSubstr("a time must be from 0 to 86400 seconds")) << wait;
    }
    EXPECT_EQ(Tool({"check", "--wait=86400"}).status, kOk);
    EXPECT_EQ(Tool({"check", "--wait=0"}).status, kOk);
}

TEST_F(TevrolctlTest, TooManyAndTooFewArgumentsAreToldApart) {
    for (const auto& [arguments, problem] :
         {std::pair<Arguments, std::string>{{"send", "demo", "x", "y"}, "too many arguments"},
          {{"send", "demo"}, "too few arguments"},
          {{"open"}, "too few arguments"},
          {{"open", "a", "b"}, "too many arguments"},
          {{"check", "a", "b"}, "too many arguments"},
          {{"verify"}, "too few arguments"},
          {{"verify", "a", "b"}, "too many arguments"}}) {
        const Result result = Tool(arguments);
        EXPECT_EQ(result.status, kUsage);
        EXPECT_EQ(result.errors,
                  "tevrolctl: " + problem + "; see tevrolctl " + arguments.front() + " --help\n");
    }
}

TEST_F(TevrolctlTest, AnUnknownCommandAndNoneShowTheUsage) {
    const std::string usage = Tool({"--help"}).output;
    EXPECT_THAT(usage, StartsWith("Usage: tevrolctl COMMAND"));
    for (const auto& [arguments, problem] :
         {std::pair<Arguments, std::string>{{"bogus"}, "tevrolctl: unknown command: bogus\n"},
          {{}, "tevrolctl: no command\n"}}) {
        const Result wrong = Tool(arguments);
        EXPECT_EQ(wrong.status, kUsage);
        EXPECT_THAT(wrong.errors, StartsWith(problem + usage));
        EXPECT_EQ(wrong.output, "");
    }
    const Result asked = Tool({"-h"});
    EXPECT_EQ(asked.status, kOk);
    EXPECT_EQ(asked.output, usage);
    EXPECT_EQ(asked.errors, "");
}

TEST_F(TevrolctlTest, AnAddressIsUsedInsteadOfTheEnvironments) {
    const auto other = StartBus("", "");
    const std::string address = "unix:path=" + File("socket");
    EXPECT_THAT(Tool({"check", "--address=" + address}).output,
                HasSubstr("ok    bus address: " + address + ", from"));
    EXPECT_EQ(Tool({"check", "--address=" + address, "--private-bus"}).status, kUsage);
}

}  // namespace
