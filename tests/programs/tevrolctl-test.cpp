// SPDX-License-Identifier: MIT
// tevrolctl: every subcommand as a process of its own, on a private bus, without a terminal.
#include <algorithm>
#include <array>
#include <csignal>
#include <filesystem>
#include <fstream>
#include <map>
#include <regex>
#include <set>
#include <sstream>
#include <string>

#include "devkit/payload.h"
#include "tests/programs/tool.h"

namespace {

using testing::ContainsRegex;
using testing::HasSubstr;
using testing::Not;

constexpr std::array<const char*, 7> kCommands = {"open",    "send",  "notify", "partner",
                                                  "monitor", "check", "verify"};

// Every "--option" that follows `before`, a regular expression, in a line of `text`.
std::set<std::string> OptionsBehind(const std::string& before, const std::string& text) {
    const std::regex option("^" + before + "(--[a-z-]+)", std::regex::multiline);
    std::set<std::string> options;
    for (auto found = std::sregex_iterator(text.begin(), text.end(), option);
         found != std::sregex_iterator(); ++found) {
        options.insert((*found)[1]);
    }
    return options;
}

// What stands in the manual page under the headings that `heading` matches, without markup.
std::string ManualUnder(const std::string& heading) {
    std::istringstream page(std::regex_replace(ReadFile(TEVROLCTL_PACKAGING "/man/tevrolctl.1"),
                                               std::regex("\\\\-"), "-"));
    std::string found;
    bool inside = false;
    for (std::string line; std::getline(page, line);) {
        if (line.rfind(".S", 0) == 0) {
            inside = std::regex_search(line, std::regex(heading));
        } else if (inside) {
            found += line + "\n";
        }
    }
    return found;
}

// What bash offers behind the command and a "-", a word on each line.
std::string CompletionOf(const std::string& command) {
    return Run({"bash", "-c",
                "source " TEVROLCTL_PACKAGING
                "/completion/tevrolctl; COMP_WORDS=(tevrolctl \"$0\" -); COMP_CWORD=2; _tevrolctl; "
                "printf '%s\\n' \"${COMPREPLY[@]}\"",
                command})
        .output;
}

// ---- Command line ----

TEST_F(TevrolctlTest, HelpOfEachSubcommandShowsExamplesAndExitStatuses) {
    for (const char* command : kCommands) {
        const Result result = Tool({command, "--help"});
        EXPECT_EQ(result.status, kOk) << command;
        EXPECT_THAT(result.output, HasSubstr("Examples:")) << command;
        EXPECT_THAT(result.output, HasSubstr("Exit status:")) << command;
    }
    EXPECT_THAT(Tool({"--help"}).output, HasSubstr("verify NAME"));
}

TEST_F(TevrolctlTest, EveryOptionInTheHelpIsInTheManualPageAndTheCompletionAndNoOther) {
    for (const std::string command : kCommands) {
        const auto options = OptionsBehind(" +(?:-., )?", Tool({command, "--help"}).output);
        EXPECT_THAT(options, testing::Contains("--help")) << command;
        const std::string manual = ManualUnder("OPTIONS OF ALL|^\\.SS .*\\b" + command + "\\b");
        EXPECT_EQ(OptionsBehind("\\.[BIR]+ (?:-. \", \" )?", manual), options) << command;
        EXPECT_EQ(OptionsBehind("", CompletionOf(command)), options) << command;
    }
}

TEST_F(TevrolctlTest, ALetterMeansTheSameInEveryCommand) {
    const std::regex option("^ +-(.), --([a-z-]+)", std::regex::multiline);
    std::map<std::string, std::string> meanings;
    for (const char* command : kCommands) {
        const std::string help = Tool({command, "--help"}).output;
        for (auto found = std::sregex_iterator(help.begin(), help.end(), option);
             found != std::sregex_iterator(); ++found) {
            const auto known = meanings.emplace((*found)[1], (*found)[2]).first;
            EXPECT_EQ(known->second, (*found)[2]) << "-" << known->first << " of " << command;
        }
    }
}

TEST_F(TevrolctlTest, ASignalEndsACommandWithItsNumberAndTheMonitorInOrder) {
    for (const int signal : {SIGINT, SIGTERM, SIGHUP}) {
        for (const auto& [command, sign] :
             {std::pair<Arguments, std::string>{{"open", "demo"}, "waiting as"},
              {{"send", "--verbose", "--wait=60", "demo", "x"}, "Releasing it"},
              {{"notify", "--verbose", "--wait=60", "demo", "x"}, "Releasing it"},
              {{"partner", "demo"}, "announced SYN"},
              {{"check", "--wait=60", "demo"}, "demo_CLIENT_SYN: granted"},
              {{"verify", "--wait=60", "demo"}, "TAP version"}}) {
            const auto process = StartTool(command, sign);
            process->Signal(signal);
            EXPECT_EQ(process->Wait(), 128 + signal) << command.front();
        }
        const auto monitor = StartTool({"monitor"}, "monitoring");
        monitor->Signal(signal);
        EXPECT_EQ(monitor->Wait(), kOk);
    }
}

// A command of the tool that catches signals, on a bus that does not answer. Not all of them have
// printed anything by then.
std::unique_ptr<tevrol::PartnerProcess> StartOnStoppedBus(const Arguments& command) {
    Arguments all = {"/bin/sh", "-c", "echo process $$; exec \"$@\" 2>&1", "sh", TEVROLCTL_PROGRAM};
    all.insert(all.end(), command.begin(), command.end());
    auto process = std::make_unique<tevrol::PartnerProcess>(all);
    EXPECT_TRUE(tevrol::IterateUntil([&] {
        const auto number = process->Find("process ");
        std::ifstream status("/proc/" + number.value_or("self") + "/status");
        for (std::string line; number && std::getline(status, line);) {
            if (line.rfind("SigCgt:", 0) == 0) {
                const auto caught = std::stoull(line.substr(line.find('\t')), nullptr, 16);
                return (caught >> (SIGTERM - 1) & 1) == 1;
            }
        }
        return false;
    }));
    return process;
}

TEST_F(TevrolctlTest, ASignalEndsEveryCommandThoughTheBusDoesNotAnswer) {
    tevrol::PrivateBus silent;
    silent.Stop();
    const std::string address = "--address=" + silent.Address();
    for (const Arguments& command :
         {Arguments{"open", address, "demo"}, Arguments{"send", address, "demo", "x"},
          Arguments{"notify", address, "demo", "x"}, Arguments{"partner", address, "demo"},
          Arguments{"check", address, "demo"}, Arguments{"verify", address, "demo"},
          Arguments{"monitor", address}}) {
        const auto process = StartOnStoppedBus(command);
        const auto start = std::chrono::steady_clock::now();
        process->Signal(SIGTERM);
        EXPECT_EQ(process->Wait(), 128 + SIGTERM) << command.front();
        EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds(1));
    }
}

TEST_F(TevrolctlTest, NoCommandWaitsForeverForABusThatDoesNotAnswer) {
    tevrol::PrivateBus silent;
    silent.Stop();
    const std::string address = "--address=" + silent.Address();
    std::vector<std::unique_ptr<tevrol::PartnerProcess>> processes;
    for (const Arguments& command :
         {Arguments{"open", address, "demo"}, Arguments{"send", address, "demo", "x"},
          Arguments{"notify", address, "demo", "x"}, Arguments{"check", address, "demo"},
          Arguments{"verify", address, "demo"}, Arguments{"monitor", address}}) {
        processes.push_back(StartOnStoppedBus(command));
    }
    for (const auto& process : processes) {
        EXPECT_EQ(process->Wait(), kNoBus);
        AwaitText(*process, "no bus: it does not answer within 5 s");
    }
}

TEST_F(TevrolctlTest, AHangupThatIsIgnoredFromTheStartStaysIgnored) {
    const auto open = std::make_unique<tevrol::PartnerProcess>(Arguments{
        "/bin/sh", "-c", "trap '' HUP; exec " TEVROLCTL_PROGRAM " open --stay demo 2>&1"});
    AwaitText(*open, "waiting as");
    open->Signal(SIGHUP);
    open->Command("bogus");  // which waits for a partner; the command goes on
    AwaitText(*open, "no partner yet");
    open->Signal(SIGTERM);
    EXPECT_EQ(open->Wait(), 128 + SIGTERM);
}

TEST_F(TevrolctlTest, APrivateBusGoesAtASignal) {
    const auto check =
        StartTool({"check", "--private-bus", "--wait=60", "demo"}, "demo_CLIENT_SYN: granted");
    const std::string line = check->Find("private bus: --address 'unix:path=").value_or("");
    const std::string socket = line.substr(0, line.find(','));
    EXPECT_TRUE(std::filesystem::exists(socket)) << socket;
    check->Signal(SIGHUP);
    EXPECT_EQ(check->Wait(), 128 + SIGHUP);
    EXPECT_FALSE(std::filesystem::exists(std::filesystem::path(socket).parent_path()));
    const auto lines = check->Lines();
    EXPECT_THAT(lines.back(), HasSubstr("demo_CLIENT_SYN: granted")) << "and nothing after it";
}

TEST_F(TevrolctlTest, AnyCharactersCanBeTypedWhateverTheLocale) {
    const auto partner = StartPartner();
    for (const char* locale : {"C", "C.UTF-8", "xx_YY"}) {
        EXPECT_EQ(Shell(std::string("export LC_ALL=") + locale +
                        "; $T partner --answer='gr\u00fc\xff' --private-bus demo <<END\nquit\nEND")
                      .status,
                  kOk)
            << locale;
        EXPECT_THAT(Shell(std::string("LC_ALL=") + locale + " $T open --help").output,
                    HasSubstr("open [OPTION\u2026] NAME"))
            << locale;
    }
}

TEST_F(TevrolctlTest, WrongCommandLinesAreUsageErrors) {
    for (const Arguments& wrong :
         {Arguments{}, Arguments{"bogus"}, Arguments{"send", "demo"}, Arguments{"send", "--bogus"},
          Arguments{"send", "demo", "hex:0"}, Arguments{"send", "--wait=-1", "demo", "x"},
          Arguments{"send", "demo", "file:/nonexistent"}, Arguments{"partner", "--fault=bogus"},
          Arguments{"open", "--answer=a", "--exec=b", "demo"},
          Arguments{"check", "--private-bus", "--address=unix:path=/x"}}) {
        const Result result = Tool(wrong);
        EXPECT_EQ(result.status, kUsage) << testing::PrintToString(wrong);
        EXPECT_NE(result.errors, "") << testing::PrintToString(wrong);
    }
}

TEST_F(TevrolctlTest, InputThatCannotBeReadIsAUsageError) {
    const Result result = Shell("$T send demo - < /");
    EXPECT_EQ(result.status, kUsage);
    EXPECT_THAT(result.errors, HasSubstr("cannot read standard input: Is a directory"));
}

TEST_F(TevrolctlTest, UnusableChannelNamesAreRefused) {
    for (const std::string& name :
         {std::string("a-b"), std::string("1a"), std::string(), std::string("a.b"),
          std::string("a/b"), std::string("a'b"), std::string(223, 'a')}) {
        EXPECT_EQ(Tool({"check", name}).status, kUsage) << name;
    }
    EXPECT_EQ(Tool({"check", "--wait=0", std::string(222, 'a')}).status, kNoPartner);
}

TEST_F(TevrolctlTest, AnUnusableChannelNameIsRefusedByEveryCommand) {
    for (const Arguments& command :
         {Arguments{"send", "a-b", "x"}, Arguments{"notify", "a-b", "x"}, Arguments{"open", "a-b"},
          Arguments{"partner", "a-b"}, Arguments{"monitor", "a-b"}, Arguments{"verify", "a-b"}}) {
        EXPECT_EQ(Tool(command).status, kUsage) << testing::PrintToString(command);
    }
}

TEST_F(TevrolctlTest, WithoutABusEveryCommandSaysSo) {
    const std::string nowhere = "--address=unix:path=/nonexistent";
    for (const Arguments& command :
         {Arguments{"send", nowhere, "demo", "x"}, Arguments{"notify", nowhere, "demo", "x"},
          Arguments{"open", nowhere, "demo"}, Arguments{"partner", nowhere, "demo"},
          Arguments{"monitor", nowhere}, Arguments{"check", nowhere, "demo"},
          Arguments{"verify", nowhere, "demo"}}) {
        EXPECT_EQ(Tool(command).status, kNoBus) << testing::PrintToString(command);
    }
}

TEST_F(TevrolctlTest, PrivateBusIsStartedAndClearedAway) {
    const Result result = Tool({"check", "--private-bus"});
    EXPECT_EQ(result.status, kOk) << result.output;
    EXPECT_THAT(result.errors, HasSubstr("private bus: --address 'unix:path="));
    const std::size_t begin = result.errors.find("path=") + 5;
    const std::string socket = result.errors.substr(begin, result.errors.find(',') - begin);
    EXPECT_FALSE(std::filesystem::exists(socket)) << socket;
}

TEST_F(TevrolctlTest, OutputThatCannotBeWrittenIsAnError) {
    const Result full = Shell("$T check > /dev/full");
    EXPECT_EQ(full.status, kFailed);
    EXPECT_THAT(full.errors, HasSubstr("No space left on device"));
    const Result closed = Shell("{ $T check; echo $? >&2; } | true");
    EXPECT_THAT(closed.errors, HasSubstr("Broken pipe\n1\n"));
    const Result recording = Tool({"monitor", "--write", "/nonexistent/file"});
    EXPECT_EQ(recording.status, kFailed);
    EXPECT_THAT(recording.errors, HasSubstr("cannot write /nonexistent/file"));
}

// ---- An end that shares nothing with the project ----

TEST_F(TevrolctlTest, TalksToAForeignEndAndPassesIt) {
#ifdef TEVROL_SANITIZED
    GTEST_SKIP() << "takes minutes under a sanitizer";
#endif
    const auto foreign = StartForeign();
    EXPECT_EQ(Tool({"check", "demo"}).status, kOk);
    EXPECT_EQ(Tool({"send", "demo", "hex:00ff00"}).output, std::string("\0\xff\0", 3));
    EXPECT_EQ(Tool({"notify", "demo", "hello"}).status, kOk);
    AwaitText(*foreign, "notification " + tevrol::ToHex(tevrol::ToBytes("hello")));
    const Result verified = Tool({"verify", "--echo", "--wait=30", "--reply-limit=30", "demo"});
    EXPECT_EQ(verified.status, kOk) << verified.output;
}

TEST_F(TevrolctlTest, PassesTheExampleInPython) {
#ifdef TEVROL_SANITIZED
    GTEST_SKIP() << "takes minutes under a sanitizer";
#endif
    const Result verified = Tool({"verify", "--wait=30", "--reply-limit=30", "--authenticating",
                                  "--run", TEVROL_EXAMPLES "/thermostat.py", "thermostat"});
    EXPECT_EQ(verified.status, kOk) << verified.output;
}

TEST_F(TevrolctlTest, ForeignClientAndForeignServiceUnderstandEachOther) {
    const auto service = StartForeign();
    const auto client = StartForeign("", "announced SYN", "demo", "client");
    AwaitText(*service, "ready ");
    AwaitText(*client, "ready ");
    client->Command("request hi");
    AwaitText(*client, "reply 6869");
    service->Command("notify ho");
    AwaitText(*client, "notification 686f");
}

TEST_F(TevrolctlTest, TheForeignEndRefusesAFaultThatItDoesNotKnow) {
    EXPECT_EQ(Shell("FOREIGN_FAULTS=bogus " TEVROLCTL_TESTS "/foreign-end.py demo").errors,
              "unknown faults: bogus\n");
}

// ---- send and notify ----

TEST_F(TevrolctlTest, SendWritesTheReplyAsItIs) {
    const auto partner = StartPartner();
    const tevrol::Bytes values = tevrol::AllByteValues();
    const std::string all(values.begin(), values.end());
    const Result result = Tool({"send", "demo", "-"}, all);
    EXPECT_EQ(result.status, kOk) << result.errors;
    EXPECT_EQ(result.output, all);
    EXPECT_EQ(Tool({"send", "demo", "hex:00ff"}).output, std::string("\0\xff", 2));
    EXPECT_EQ(Tool({"send", "demo", ""}).status, kOk) << "an empty reply is a reply";
}

TEST_F(TevrolctlTest, SendTellsNoPartnerFromNoReply) {
    const Result nobody = Tool({"send", "--wait=0.1", "demo", "x"});
    EXPECT_EQ(nobody.status, kNoPartner);
    EXPECT_THAT(nobody.errors, HasSubstr("no partner of \"demo\""));
    for (const char* fault : {"--fault=error", "--fault=wrong-type", "--leave=request"}) {
        const auto partner = StartPartner({fault});
        const Result result = Tool({"send", "demo", "x"});
        EXPECT_EQ(result.status, kNoReply) << fault;
        EXPECT_EQ(result.output, "") << fault;
        EXPECT_THAT(result.errors, HasSubstr("no reply: ")) << fault;
    }
}

TEST_F(TevrolctlTest, NotifyReachesThePartner) {
    const auto partner = StartPartner();
    EXPECT_EQ(Tool({"notify", "demo", "hello"}).status, kOk);
    AwaitText(*partner, "notification from :1.1: 5 bytes \"hello\"");
    EXPECT_EQ(Tool({"notify", "--wait=0.1", "nobody", "x"}).status, kNoPartner);
}

TEST_F(TevrolctlTest, NotifyTellsThatTheBusHasRefusedTheMessage) {
    const auto small_bus = StartBus("", "<limit name='max_message_size'>100000</limit>");
    const std::string address = "--address=unix:path=" + File("socket");
    const auto partner = StartTool({"partner", address, "demo"}, "announced SYN");
    const Result result = Tool({"notify", address, "demo", "-"}, std::string(100000, 'x'));
    EXPECT_EQ(result.status, kFailed);
    EXPECT_THAT(result.errors, HasSubstr("the bus did not take the notification"));
}

// ---- open ----

TEST_F(TevrolctlTest, OpenSendsThePipedLinesAndEndsAfterTheReplies) {
    const auto partner = StartPartner();
    const Result result = Tool({"open", "demo"}, "request hello\nnotify hex:00ff\n");
    EXPECT_EQ(result.status, kOk) << result.errors;
    EXPECT_THAT(result.output, ContainsRegex("-- ready :1\\.0"));
    EXPECT_THAT(result.output, ContainsRegex("-> request #1 5 bytes \"hello\""));
    EXPECT_THAT(result.output, ContainsRegex("<- reply #1 after .* 5 bytes \"hello\""));
    EXPECT_THAT(result.output, ContainsRegex("-> notification 2 bytes hex:00ff"));
    AwaitText(*partner, "notification from :1.1: 2 bytes hex:00ff");
    EXPECT_THAT(result.output, Not(HasSubstr("\033"))) << "colour without a terminal";
}

TEST_F(TevrolctlTest, OpenEndsWithTheStatusOfTheFirstFailure) {
    EXPECT_EQ(Tool({"open", "--wait=0.1", "demo"}, "request x\n").status, kNoPartner);
    const auto partner = StartPartner({"--fault=error"});
    EXPECT_EQ(Tool({"open", "demo"}, "request x\nbogus\n").status, kUsage);
    EXPECT_EQ(Tool({"open", "demo"}, "request x\n").status, kNoReply);
}

TEST_F(TevrolctlTest, OpenShowsWhatComesWhileARequestIsUnanswered) {
    const auto partner = StartPartner({"--fault=never"});
    const auto open = StartTool({"open", "demo"}, "ready");
    AwaitText(*partner, "ready");
    open->Command("request unanswered");
    AwaitText(*partner, "unanswered");
    partner->Command("notify meanwhile");
    AwaitText(*open, "<- notification 9 bytes \"meanwhile\"");
    open->Command("notify also meanwhile");
    AwaitText(*partner, "also meanwhile");
    partner->Kill();
    AwaitText(*open, "<- no reply #1");
    AwaitText(*open, "lost :1.0");
}

// Another process's ACK makes the end ready while its own SYN_ACK is refused; made up for later,
// that one takes the readiness back. The partner is stopped before it would bring it again.
TEST_F(TevrolctlTest, OpenTellsWhatWasNotSentWhenReadinessWasTakenBack) {
    const auto open = StartTool({"open", "--verbose", "demo"}, "waiting as");
    const auto partner = StartPartner({"--hold=syn-ack", "--stop=before-ack"});
    AwaitText(*open, "Cannot own name due to return code = 3");
    const auto stranger = StartPartner({"--wait"}, "joined");
    stranger->Command("announce ack");
    AwaitText(*open, "-- ready ");
    stranger->Kill();
    partner->Command("release syn-ack");
    AwaitText(*open, "Nothing left to resend");
    open->Command("notify early");
    AwaitText(*open, "tevrolctl: not sent: Connection not set.");
    open->Command("request early");
    AwaitText(*open, "<- no reply #1");
    AwaitText(*open, "no connection to the partner");
    for (const std::string& line : open->Lines()) {
        EXPECT_THAT(line, Not(HasSubstr("-> notification"))) << "nothing was sent";
    }
    partner->Signal(SIGCONT);
}

TEST_F(TevrolctlTest, OpenAnswersWithEchoTextOrACommand) {
    for (const auto& [options, expected] :
         {std::pair<Arguments, std::string>{{}, "5 bytes \"hello\""},
          {{"--answer=hex:00"}, "1 byte hex:00"},
          {{"--exec=tr a-z A-Z"}, "5 bytes \"HELLO\""}}) {
        const auto partner = StartPartner();
        Arguments command = {"open", "demo"};
        command.insert(command.end(), options.begin(), options.end());
        const auto open = StartTool(command, "ready");
        AwaitText(*partner, "ready");
        partner->Command("request hello");
        AwaitText(*partner, "reply: " + expected);
        AwaitText(*open, "<- request 5 bytes \"hello\"");
        AwaitText(*open, "-> answer " + expected);
    }
}

TEST_F(TevrolctlTest, OpenEndsWithTheBus) {
    tevrol::PrivateBus other;
    const auto open = StartTool({"open", "--address=" + other.Address(), "demo"}, "waiting as");
    other.Kill();
    AwaitText(*open, "the bus has closed the connection");
}

// ---- partner ----

TEST_F(TevrolctlTest, PartnerServesTheChannelWithItsFaults) {
    const auto partner = StartTool({"partner", "demo", "--answer=fixed"}, "announced SYN");
    EXPECT_EQ(Tool({"send", "demo", "x"}).output, "fixed");
    partner->Kill();
    const auto faulty = StartTool({"partner", "--fault=error", "demo"}, "announced SYN");
    EXPECT_EQ(Tool({"send", "demo", "x"}).status, kNoReply);
}

// ---- monitor ----

TEST_F(TevrolctlTest, MonitorTellsAConversationInTheChannelsTerms) {
    Record();
    const Result text = Tool({"monitor", "--read", File("recording")});
    EXPECT_EQ(text.status, kOk) << text.errors;
    for (const char* line :
         {":1\\.2 announces SERVICE_SYN \\(held", R"(:1\.3 announces CLIENT_SYN -> :1\.2 \(held)",
          ":1\\.2 bound -> :1\\.3", ":1\\.3 ready -> :1\\.2", ":1\\.3 request -> :1\\.2: 4 bytes",
          R"(:1\.2 reply -> :1\.3: 4 bytes "<&>"" \()",
          ":1\\.3 notification -> :1\\.2: 2 bytes hex:00ff", ":1\\.3 leaves :1\\.2"}) {
        EXPECT_THAT(text.output, ContainsRegex(line));
    }
    EXPECT_THAT(Tool({"monitor", "--hex", "--read", File("recording")}).output,
                HasSubstr("hex:3c263e22"));
    EXPECT_EQ(Tool({"monitor", "--read", File("recording"), "another"}).output, "");
}

TEST_F(TevrolctlTest, MonitorTellsThatAProcessLeavesTheBusWhereItHadNoPartner) {
    std::ofstream(File("recording"))
        << R"({"kind":"lost","time":1,"channel":"demo","from":":1.0"})" << '\n';
    EXPECT_THAT(Tool({"monitor", "--read", File("recording")}).output,
                HasSubstr("demo  :1.0 leaves the bus\n"));
}

TEST_F(TevrolctlTest, MonitorPrintsJsonThatReadsBackTheSame) {
    Record();
    const Result json = Tool({"monitor", "--json", "--read", File("recording")});
    EXPECT_EQ(json.status, kOk) << json.errors;
    EXPECT_EQ(json.output, ReadFile(File("recording")));
    EXPECT_THAT(json.output, HasSubstr("\"kind\":\"reply\""));
    EXPECT_THAT(json.output, HasSubstr("\"size\":4,\"hex\":\"3c263e22\""));
}

TEST_F(TevrolctlTest, MonitorDrawsWellFormedDiagrams) {
    Record();
    const std::string diagram = ReadFile(File("diagram.svg"));
    ExpectWellFormed(File("diagram.svg"));
    EXPECT_THAT(diagram, HasSubstr("request 4 bytes &quot;&lt;&amp;&gt;&quot;&quot;"));
    EXPECT_THAT(diagram, HasSubstr("service :1.2"));
    EXPECT_THAT(diagram, HasSubstr("client :1.3"));
    const Result again =
        Tool({"monitor", "--read", File("recording"), "--diagram", File("again.svg")});
    EXPECT_EQ(again.status, kOk);
    EXPECT_EQ(ReadFile(File("again.svg")), diagram);
}

TEST_F(TevrolctlTest, MonitorShowsRefusedAnnouncementsAndErrors) {
    const auto monitor = StartTool({"monitor"}, "monitoring");
    const auto partner = StartPartner({"--fault=error", "--hold=syn"});
    const auto open = StartTool({"open", "demo"}, "waiting as");
    AwaitText(*monitor, "is refused CLIENT_SYN: another process owns it (3)");
    partner->Command("announce syn");
    AwaitText(*open, "waiting as");
    partner->Command("release syn");
    AwaitText(*monitor, "announces CLIENT_SYN");
    AwaitText(*open, "ready");
    open->Command("request x");
    AwaitText(*monitor, "error -> ");
    partner->Command("notify-wrong-type text");
    AwaitText(*monitor, "notification of type \"s\"");
}

TEST_F(TevrolctlTest, MonitorTellsThatTheBusRefusesIt) {
    const auto strict_bus =
        StartBus("<deny send_interface='org.freedesktop.DBus.Monitoring'/>", "");
    const Result result = Tool({"monitor", "--address=unix:path=" + File("socket")});
    EXPECT_EQ(result.status, kNoBus);
    EXPECT_THAT(result.errors, HasSubstr("the bus does not let this user monitor it"));
}

TEST_F(TevrolctlTest, MonitorRefusesARecordingThatItCannotRead) {
    EXPECT_EQ(Tool({"monitor", "--read", "/nonexistent"}).status, kUsage);
}

TEST_F(TevrolctlTest, MonitorRefusesNestingThatWouldEndItsStack) {
    const std::string deep(100000, '[');
    for (const std::string& line :
         {deep, "{\"kind\":" + deep, "{/*\"*/\"kind\":" + deep, "{\"a\":\"\\\"\"," + deep}) {
        std::ofstream(File("recording")) << line << '\n';
        const Result result = Tool({"monitor", "--read", File("recording")});
        EXPECT_EQ(result.status, kFailed) << line.substr(0, 20);
        EXPECT_THAT(result.errors, HasSubstr("recording, line 1: no event: "));
    }
    std::ofstream(File("recording"))
        << R"({"kind":"lost","channel":"a","from":"b","text":"[[{\"{[","more":[{}]})" << '\n';
    EXPECT_EQ(Tool({"monitor", "--read", File("recording")}).status, kOk);
}

TEST_F(TevrolctlTest, MonitorRefusesTimesThatNoClockShows) {
    for (const char* number : {"\"time\":-1", "\"time\":9223372036854775807", "\"duration\":-1",
                               "\"time\":253402300800000000", "\"time\":99999999999999999999"}) {
        std::ofstream(File("recording"))
            << R"({"kind":"lost","channel":"a","from":"b",)" << number << "}\n";
        const Result result = Tool({"monitor", "--read", File("recording")});
        EXPECT_EQ(result.status, kFailed) << number;
        EXPECT_THAT(result.errors, HasSubstr("is out of range")) << number;
    }
}

TEST_F(TevrolctlTest, MonitorDoesNotWriteToAFileThatItReads) {
    const std::string line = R"({"kind":"lost","time":1,"channel":"demo","from":":1.0"})"
                             "\n";
    std::ofstream(File("recording")) << line;
    std::filesystem::create_symlink(File("recording"), File("link"));
    for (const Arguments& files :
         {Arguments{"--write", File("recording")}, Arguments{"--write", File("link")},
          Arguments{"--diagram", File("link")},
          Arguments{"--write", File("new"), "--diagram", File("new")}}) {
        Arguments command = {"monitor", "--read", File("recording")};
        command.insert(command.end(), files.begin(), files.end());
        const Result result = Tool(command);
        EXPECT_EQ(result.status, kUsage) << testing::PrintToString(files);
        EXPECT_THAT(result.errors, HasSubstr("need files of their own"));
        EXPECT_EQ(ReadFile(File("recording")), line);
    }
}

TEST_F(TevrolctlTest, MonitorLeavesAnEarlierDiagramWhereTheRecordingIsBroken) {
    std::ofstream(File("diagram.svg")) << "earlier";
    std::ofstream(File("recording")) << "garbage\n";
    const Arguments command = {"monitor", "--read", File("recording"), "--diagram",
                               File("diagram.svg")};
    EXPECT_EQ(Tool(command).status, kFailed);
    EXPECT_EQ(ReadFile(File("diagram.svg")), "earlier");
    std::ofstream(File("recording"))
        << R"({"kind":"lost","time":1,"channel":"demo","from":":1.0"})" << '\n';
    EXPECT_EQ(Tool(command).status, kOk);
    EXPECT_THAT(ReadFile(File("diagram.svg")), HasSubstr("</svg>"));
    EXPECT_FALSE(std::filesystem::exists(File("diagram.svg.new")));
}

TEST_F(TevrolctlTest, MonitorDrawsOnADeviceAndSaysAtOnceWhereItCannotDraw) {
    const std::string line = R"({"kind":"lost","time":1,"channel":"demo","from":":1.0"})";
    std::ofstream(File("recording")) << line << '\n';
    EXPECT_THAT(Shell("$T monitor --read '" + File("recording") + "' --diagram /dev/stderr").errors,
                HasSubstr("</svg>"));
    const Result result = Tool({"monitor", "--diagram", "/nonexistent/file"});
    EXPECT_EQ(result.status, kFailed);
    EXPECT_THAT(result.errors, HasSubstr("cannot write /nonexistent/file"));
}

TEST_F(TevrolctlTest, ColourAppearsOnATerminalOnlyAndNotAgainstNoColor) {
    std::ofstream(File("recording"))
        << R"({"kind":"lost","time":1,"channel":"demo","from":":1.0"})" << '\n';
    const std::string command =
        "script -qec '" TEVROLCTL_PROGRAM " monitor --read " + File("recording") + "' /dev/null";
    EXPECT_THAT(Shell("unset NO_COLOR; " + command).output, HasSubstr("\033["));
    EXPECT_THAT(Shell("export NO_COLOR=; " + command).output, HasSubstr("\033["));
    EXPECT_THAT(Shell("export NO_COLOR=1; " + command).output, Not(HasSubstr("\033[")));
    EXPECT_THAT(Tool({"monitor", "--read", File("recording")}).output, Not(HasSubstr("\033[")));
}

// ---- check ----

TEST_F(TevrolctlTest, CheckFindsAllWellWithAPartner) {
    const auto partner = StartPartner();
    const Result result = Tool({"check", "demo"});
    EXPECT_EQ(result.status, kOk) << result.output;
    EXPECT_THAT(result.output, HasSubstr("match rules: 512 per connection"));
    for (const char* stage : {"SYN", "SYN_ACK", "ACK"}) {
        EXPECT_THAT(result.output,
                    HasSubstr(std::string("right to own org.ulmar.Tevrol.demo_CLIENT_") + stage +
                              ": granted"));
    }
    EXPECT_THAT(result.output, HasSubstr("the bus delivers calls to the partner"));
    // The probe of the right to call has not reached the application.
    const auto lines = partner->Lines();
    EXPECT_TRUE(std::none_of(lines.begin(), lines.end(), [](const std::string& line) {
        return line.rfind("request", 0) == 0;
    }));
}

TEST_F(TevrolctlTest, CheckTellsTheFaultsApart) {
    const Result no_bus = Tool({"check", "--address=unix:path=/nonexistent", "demo"});
    EXPECT_EQ(no_bus.status, kNoBus);
    EXPECT_THAT(no_bus.output, HasSubstr("FAIL  connection: "));

    const Result no_partner = Tool({"check", "--wait=0.1", "demo"});
    EXPECT_EQ(no_partner.status, kNoPartner);
    EXPECT_THAT(no_partner.output, HasSubstr("FAIL  partner: none has answered SYN"));
    EXPECT_THAT(no_partner.output,
                HasSubstr("warn  right to own org.ulmar.Tevrol.demo_CLIENT_ACK"));

    const Result bad_name = Tool({"check", "a-b"});
    EXPECT_EQ(bad_name.status, kUsage);
    EXPECT_THAT(bad_name.output, HasSubstr("FAIL  name: \"a-b\": byte 2"));

    const auto squatter = StartPartner({"--hold=ack"});
    const Result squatted = Tool({"check", "demo"});
    EXPECT_EQ(squatted.status, kFailed);
    EXPECT_THAT(squatted.output,
                ContainsRegex("FAIL  owners: org\\.ulmar\\.Tevrol\\.demo_CLIENT_ACK is held by "
                              ":1\\.[0-9]+ \\(tevrol-partner, process [0-9]+\\)"));
}

TEST_F(TevrolctlTest, CheckNamesTheRuleThatThePolicyLacks) {
    const auto check_with = [this](const std::string& rule) {
        const auto other = StartBus(rule, "");
        return Tool({"check", "--address=unix:path=" + File("socket"), "--wait=0", "--announce-ack",
                     "demo"})
            .output;
    };
    for (const char* stage : {"SYN", "SYN_ACK", "ACK"}) {
        const std::string name = std::string("org.ulmar.Tevrol.demo_CLIENT_") + stage;
        const std::string output = check_with("<deny own='" + name + "'/>");
        EXPECT_THAT(output, HasSubstr("FAIL  right to own " + name + ": the bus policy refuses"));
        EXPECT_THAT(output, HasSubstr("add <allow own=\"" + name + "\"/>"));
    }
    EXPECT_THAT(
        check_with("<deny send_interface='org.ulmar.tevrol.DbusCommunication'/>"),
        HasSubstr("FAIL  right to call org.ulmar.tevrol.DbusCommunication: the bus policy"));
}

TEST_F(TevrolctlTest, CheckLeavesABoundPairAlone) {
    const auto partner = StartPartner();
    const auto open = StartTool({"open", "demo"}, "ready");
    AwaitText(*partner, "ready");
    const std::size_t before = partner->Lines().size();
    EXPECT_EQ(Tool({"check", "--wait=0.1", "demo"}).status, kNoPartner);
    open->Command("request x");
    AwaitText(*partner, "request from");
    EXPECT_FALSE(partner->Find("heard ACK", before).has_value());
    EXPECT_FALSE(partner->Find("ready", before).has_value());
    EXPECT_FALSE(partner->Find("lost", before).has_value());
}

// ---- verify ----

// For a correct partner on a busy machine.
constexpr std::array<const char*, 2> kMuchTime = {"--wait=30", "--reply-limit=30"};

TEST_F(TevrolctlTest, VerifyPassesACorrectPartnerStartedByItself) {
    const Result result = Tool({"verify", "--echo", kMuchTime[0], kMuchTime[1], "--run",
                                TEVROL_PARTNER_PROGRAM " demo", "--say=notify hi", "demo"});
    EXPECT_EQ(result.status, kOk) << result.output;
    EXPECT_EQ(result.output.rfind("TAP version 13\n1..29\n", 0), 0U);
    EXPECT_THAT(result.output, Not(HasSubstr("not ok")));
    EXPECT_THAT(result.output, Not(HasSubstr("SKIP")));
    EXPECT_THAT(result.output, HasSubstr("\nok 29 - "));
}

TEST_F(TevrolctlTest, VerifyPassesARunningPartnerAndSkipsItsStart) {
    const auto partner = StartPartner();
    const Result result = Tool({"verify", kMuchTime[0], kMuchTime[1], "demo"});
    EXPECT_EQ(result.status, kOk) << result.output;
    EXPECT_THAT(result.output, HasSubstr("\nok 22 - dies and returns in sequence B # SKIP"));
}

TEST_F(TevrolctlTest, VerifySaysWhenTooFewDescriptorsAreFree) {
    for (const char* limit : {"6", "8", "9", "10", "11"}) {
        const Result result =
            Shell(std::string("ulimit -n ") + limit +
                  "; exec $T verify --run '" TEVROL_PARTNER_PROGRAM " demo' demo");
        EXPECT_EQ(result.status, kFailed) << limit;
        EXPECT_THAT(result.errors, HasSubstr("needs 16 free file descriptors")) << limit;
    }
}

}  // namespace
