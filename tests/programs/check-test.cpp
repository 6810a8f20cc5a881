// SPDX-License-Identifier: MIT
// tevrolctl check: each finding, its remedy and the exit status.
#include <unistd.h>

#include <algorithm>
#include <csignal>
#include <cstdlib>
#include <sstream>

#include "tests/programs/odd-service.h"
#include "tests/programs/tool.h"

namespace {

using testing::ContainsRegex;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::Not;
using tevrol::IterateUntil;
using Incoming = OddService::Incoming;

constexpr const char* kNeeds = "; a channel uses 3, and 2 more while it is bound";

// The verdict and the subject of each finding.
std::vector<std::string> Findings(const Result& result) {
    std::vector<std::string> lines;
    std::istringstream output(result.output);
    for (std::string line; std::getline(output, line);) {
        lines.push_back(line.substr(0, line.find(": ")));
    }
    return lines;
}

std::string Name(const std::string& role, const std::string& stage) {
    return "org.ulmar.Tevrol.demo_" + role + "_" + stage;
}

class Check : public TevrolctlTest {
protected:
    Result On(const std::string& rules, const std::string& limits, Arguments arguments) const {
        const auto other = StartBus(rules, limits);
        arguments.insert(arguments.begin(), {"check", "--address=unix:path=" + File("socket")});
        return Tool(arguments);
    }
};

TEST_F(Check, FindsEachThingInOrder) {
    OddService service;
    const Result result = Tool({"check", "demo"});
    EXPECT_EQ(result.status, kOk);
    EXPECT_THAT(Findings(result),
                ElementsAre("ok    name", "ok    bus address", "ok    connection",
                            "ok    match rules", "ok    message size", "ok    ends", "ok    owners",
                            "ok    right to own " + Name("CLIENT", "SYN"),
                            "ok    right to own " + Name("CLIENT", "SYN_ACK"),
                            "ok    right to own " + Name("CLIENT", "ACK"),
                            "ok    right to call org.ulmar.tevrol.DbusCommunication",
                            "ok    right to notify by org.ulmar.tevrol.DbusCommunication",
                            "ok    partner"));
    EXPECT_THAT(result.output,
                HasSubstr("\"demo\" can be used, with 37 of 255 characters in the longest"));
    EXPECT_THAT(result.output, HasSubstr(bus.Address() + ", from DBUS_SYSTEM_BUS_ADDRESS"));
    EXPECT_THAT(result.output, ContainsRegex("connection: as :1\\.[0-9]+, user .*, uid [0-9]+\n"));
    EXPECT_THAT(result.output,
                ContainsRegex(service.UniqueName() + " \\(tevrolctl-tests, process " +
                              std::to_string(getpid()) + "\\) has answered SYN with SYN_ACK\n"));
}

TEST_F(Check, WithoutANameLooksAtTheBusAlone) {
    OddService service;
    int announced = 0;
    service.on_announced = [&](const std::string&, const std::string&) {
        ++announced;
        return true;
    };
    const Result result = Tool({"check"});
    EXPECT_EQ(result.status, kOk);
    EXPECT_THAT(Findings(result), ElementsAre("ok    bus address", "ok    connection",
                                              "ok    match rules", "ok    message size"));
    service.CallDriver("GetId", nullptr);
    EXPECT_EQ(announced, 0);
}

TEST_F(Check, LooksAtTheBusThoughTheNameIsBad) {
    const Result result = Tool({"check", "1a"});
    EXPECT_EQ(result.status, kUsage);
    EXPECT_THAT(Findings(result), ElementsAre("FAIL  name", "ok    bus address", "ok    connection",
                                              "ok    match rules", "ok    message size"));
}

TEST_F(Check, NamesWhatIsWrongWithAName) {
    for (const auto& [name, problem] :
         {std::pair<std::string, std::string>{"", "it is empty"},
          {"a b", "byte 2 is not a letter, digit or underscore"},
          {"ab\xc3\xa4", "byte 3 is not a letter, digit or underscore"},
          {"9z", "it begins with a digit, which a bus name may not after a dot"},
          {"0", "it begins with a digit, which a bus name may not after a dot"},
          {std::string(223, 'a'),
           "its longest handshake name has 256 characters of 255 allowed"}}) {
        EXPECT_THAT(Tool({"check", "--", name}).output, HasSubstr(problem + " ("));
    }
    for (const std::string name : {"_", "z9", "AZaz09_", "SYN", "a_CLIENT_SYN"}) {
        EXPECT_THAT(Tool({"check", "--wait=0", name}).output, HasSubstr("ok    name: \"" + name));
    }
}

TEST_F(Check, NamesAnAddressThatIsNone) {
    const Result result = Tool({"check", "--address=nonsense"});
    EXPECT_EQ(result.status, kNoBus);
    EXPECT_THAT(Findings(result), ElementsAre("FAIL  bus address"));
    EXPECT_THAT(result.output, HasSubstr("(an address is like unix:path="));
}

TEST_F(Check, AsksNoBusThatItCannotReach) {
    const Result result = Tool({"check", "--address=unix:path=/nonexistent", "demo"});
    EXPECT_EQ(result.status, kNoBus);
    EXPECT_THAT(Findings(result),
                ElementsAre("ok    name", "ok    bus address", "FAIL  connection"));
}

TEST_F(Check, OnlyWarningEndsWithFailedAsWell) {
    // Granted, but just now another process has it.
    OddService service;
    service.on_announced = [&](const std::string& stage, const std::string& client) {
        if (stage == "SYN") {
            service.Bind(client);
            service.Acquire(Name("CLIENT", "SYN_ACK"));
            service.Announce("SYN_ACK");
        }
        return true;
    };
    const Result result = Tool({"check", "demo"});
    EXPECT_EQ(result.status, kFailed);
    EXPECT_THAT(result.output, HasSubstr("warn  right to own " + Name("CLIENT", "SYN_ACK") +
                                         ": granted, but another process holds the name"));
    EXPECT_THAT(result.output, Not(HasSubstr("FAIL")));
}

TEST_F(Check, EndsWithTheStatusOfTheFirstFailure) {
    Peer squatter;
    squatter.Acquire(Name("SERVICE", "ACK"));
    const Result result = Tool({"check", "--wait=0", "demo"});
    EXPECT_EQ(result.status, kFailed) << "the partner is missing too, but later";
    EXPECT_THAT(result.output, HasSubstr("FAIL  owners: " + Name("SERVICE", "ACK")));
    EXPECT_THAT(result.output, HasSubstr("FAIL  partner: none has answered SYN within 0.00 ms"));
}

TEST_F(Check, NamesEachOwner) {
    Peer squatter;
    for (const char* role : {"CLIENT", "SERVICE"}) {
        for (const char* stage : {"SYN", "SYN_ACK", "ACK"}) {
            squatter.Acquire(Name(role, stage));
        }
    }
    const Result result = Tool({"check", "--wait=0", "demo"});
    for (const char* role : {"CLIENT", "SERVICE"}) {
        for (const char* stage : {"SYN", "SYN_ACK", "ACK"}) {
            EXPECT_THAT(result.output, HasSubstr("FAIL  owners: " + Name(role, stage) +
                                                 " is held by " + squatter.UniqueName()));
        }
    }
    EXPECT_THAT(result.output,
                HasSubstr("FAIL  partner: cannot be asked without the SYN name (see the right"));
    EXPECT_THAT(result.output, Not(HasSubstr("nobody holds")));
}

// Sees the first look at a name that it owns, and only then gives it up.
class MomentaryOwner {
public:
    MomentaryOwner() {
        g_dbus_connection_add_filter(m_spy.Get(), OnMessage, this, nullptr);
        const char* const rules[] = {"member='GetNameOwner'", nullptr};
        g_variant_unref(g_dbus_connection_call_sync(
            m_spy.Get(), "org.freedesktop.DBus", "/org/freedesktop/DBus",
            "org.freedesktop.DBus.Monitoring", "BecomeMonitor", g_variant_new("(^asu)", rules, 0),
            nullptr, G_DBUS_CALL_FLAGS_NONE, G_MAXINT, nullptr, nullptr));
        m_owner.Acquire(m_name);
    }

private:
    // On GDBus's thread. A monitor must answer nothing.
    static GDBusMessage* OnMessage(GDBusConnection*, GDBusMessage* message, gboolean incoming,
                                   gpointer data) {
        const auto* self = static_cast<MomentaryOwner*>(data);
        if (incoming == FALSE ||
            g_strcmp0(g_dbus_message_get_member(message), "GetNameOwner") != 0) {
            return message;
        }
        if (self->m_name == g_dbus_message_get_arg0(message)) {
            g_dbus_connection_call(self->m_owner.Get(), "org.freedesktop.DBus",
                                   "/org/freedesktop/DBus", "org.freedesktop.DBus", "ReleaseName",
                                   g_variant_new("(s)", self->m_name.c_str()), nullptr,
                                   G_DBUS_CALL_FLAGS_NONE, G_MAXINT, nullptr, nullptr, nullptr);
        }
        g_object_unref(message);
        return nullptr;
    }

    const std::string m_name = Name("SERVICE", "SYN");
    Peer m_owner;
    Peer m_spy;
};

TEST_F(Check, TakesAnAnnouncementOfTheMomentForNoOwner) {
    // The name is free again within the fifth of a second that the looks take; on a machine with
    // much to do, sooner or later.
    bool found_none = false;
    for (int attempt = 0; attempt < 20 && !found_none; ++attempt) {
        const MomentaryOwner owner;
        const Result result = Tool({"check", "--wait=0", "demo"});
        found_none = result.output.find("ok    owners: nobody holds any") != std::string::npos;
    }
    EXPECT_TRUE(found_none);
}

TEST_F(Check, ReleasesEachNameThatItHasTried) {
    OddService service;
    std::vector<std::string> heard;
    service.on_announced = [&](const std::string& stage, const std::string&) {
        heard.push_back(stage);
        return false;
    };
    EXPECT_EQ(Tool({"check", "demo"}).status, kOk);
    EXPECT_TRUE(IterateUntil([&] { return heard.size() == 3; }));
    EXPECT_THAT(heard, ElementsAre("SYN", "SYN_ACK", "ACK"));
}

TEST_F(Check, AnnouncesNoAckWithoutAnAnswerUnlessItIsTold) {
    OddService service;
    std::vector<std::string> heard;
    service.on_announced = [&](const std::string& stage, const std::string&) {
        heard.push_back(stage);
        return true;
    };
    const Result silent = Tool({"check", "--wait=0", "demo"});
    EXPECT_THAT(silent.output, HasSubstr("warn  right to own " + Name("CLIENT", "ACK") +
                                         ": not tested, as no partner has answered"));
    EXPECT_TRUE(IterateUntil([&] { return heard.size() == 2; }));
    EXPECT_THAT(heard, ElementsAre("SYN", "SYN_ACK"));
    const Result told = Tool({"check", "--wait=0", "--announce-ack", "demo"});
    EXPECT_THAT(told.output, HasSubstr("ok    right to own " + Name("CLIENT", "ACK")));
    EXPECT_EQ(told.status, kNoPartner);
}

TEST_F(Check, AsksForTheRightToCallByACallThatNobodyHandles) {
    OddService service;
    std::vector<std::string> types;
    service.on_request = [&](const Incoming& request) -> std::optional<OddService::Reply> {
        if (request.member == "Send") {
            types.push_back(request.type);
        }
        return std::nullopt;
    };
    EXPECT_THAT(Tool({"check", "demo"}).output,
                HasSubstr("ok    right to call org.ulmar.tevrol.DbusCommunication: the bus "
                          "delivers calls to the partner"));
    EXPECT_THAT(types, ElementsAre("s"));
}

TEST_F(Check, AsksAnotherConnectionWhereNoPartnerAnswers) {
    const Result result = Tool({"check", "--wait=0", "demo"});
    EXPECT_THAT(result.output, HasSubstr("the bus delivers calls to another connection"));
    EXPECT_EQ(result.status, kNoPartner);
}

TEST_F(Check, NamesAPartnerThatLeavesACallUnanswered) {
    OddService service;
    service.on_request = [&](const Incoming& request) -> std::optional<OddService::Reply> {
        if (request.member != "Send") {
            return std::nullopt;
        }
        g_dbus_connection_close_sync(service.Get(), nullptr, nullptr);
        return OddService::Reply::None;
    };
    const Result result = Tool({"check", "demo"});
    EXPECT_EQ(result.status, kNoReply);
    EXPECT_THAT(result.output, HasSubstr("FAIL  right to call org.ulmar.tevrol.DbusCommunication: "
                                         "no answer from the partner: "));
    EXPECT_THAT(result.output, HasSubstr("(does its main loop run?)"));
}

TEST_F(Check, CountsTheMatchRulesOfTheBus) {
    const auto limit = [](int rules) {
        return "<limit name='max_match_rules_per_connection'>" + std::to_string(rules) + "</limit>";
    };
    const Result few = On("", limit(4), {"--wait=0"});
    EXPECT_EQ(few.status, kFailed);
    EXPECT_THAT(few.output, HasSubstr(std::string("FAIL  match rules: 4 per connection") + kNeeds));
    const Result enough = On("", limit(5), {"--wait=0"});
    EXPECT_EQ(enough.status, kOk);
    EXPECT_THAT(enough.output,
                HasSubstr(std::string("ok    match rules: 5 per connection") + kNeeds));
    EXPECT_THAT(On("", limit(5000), {"--wait=0"}).output,
                HasSubstr("ok    match rules: at least 4096 per connection"));
}

TEST_F(Check, NamesARefusalThatIsNoPolicys) {
    const Result result =
        On("", "<limit name='max_names_per_connection'>1</limit>", {"--wait=0", "demo"});
    EXPECT_EQ(result.status, kFailed);
    EXPECT_THAT(result.output, HasSubstr("FAIL  right to own " + Name("CLIENT", "SYN") + ": "));
    EXPECT_THAT(result.output, HasSubstr("(see the log of the bus daemon)"));
    EXPECT_THAT(result.output, Not(HasSubstr("add <allow")));
}

TEST_F(Check, ColoursItsVerdictsOnATerminal) {
    const Result result =
        Shell("unset NO_COLOR; script -qec '" TEVROLCTL_PROGRAM " check --wait=0 demo' /dev/null");
    EXPECT_THAT(result.output, HasSubstr("\033[32mok   \033[0m name: "));
    EXPECT_THAT(result.output, HasSubstr("\033[33mwarn \033[0m right to own"));
    EXPECT_THAT(result.output, HasSubstr("\033[31mFAIL \033[0m partner: "));
}

// ---- Partners that cannot be talked to ----

struct Unfit {
    std::string fault;
    std::string finding;
    int status = kFailed;
};

class CheckOfAForeignEnd : public Check, public testing::WithParamInterface<Unfit> {};

TEST_P(CheckOfAForeignEnd, NamesItsFault) {
    const auto foreign = StartForeign(GetParam().fault);
    const Result result = Tool({"check", "--wait=0.3", "demo"});
    EXPECT_EQ(result.status, GetParam().status) << result.output;
    EXPECT_THAT(result.output, ContainsRegex("FAIL  [^\n]*" + GetParam().finding));
}

INSTANTIATE_TEST_SUITE_P(
    That, CheckOfAForeignEnd,
    testing::Values(
        Unfit{"other-path",
              "has no Send of org.ulmar.tevrol.DbusCommunication at "
              "/org/ulmar/tevrol/CommunicationChannel/demo, but Send of "
              "org.ulmar.tevrol.DbusCommunication at /org/ulmar/tevrol/Channel/demo"},
        Unfit{"other-interface",
              "has no Send of [^\n]*, but Send of org.ulmar.tevrol.Communication"},
        Unfit{"other-method", "has no Send of [^\n]*, but SendMessage of"},
        Unfit{"split", "announces itself, but the object is at :1\\.[0-9]+, another connection"},
        Unfit{"wrong-error",
              "answers a request of another type with org.freedesktop.DBus.Error."
              "Failed: takes a payload"},
        Unfit{"takes-all", "the partner takes a request of another type for one and replies"},
        Unfit{"ack-for-syn", "has answered SYN with ACK", kNoPartner},
        Unfit{"holds-syn-ack", "has acquired SYN_ACK and does not release it", kNoPartner},
        Unfit{"stops-on-syn", "\\(foreign-end.py, process [0-9]+\\) is stopped", kNoPartner},
        Unfit{"exits-on-syn", "none has answered SYN|is the service", kNoPartner}),
    [](const auto& tested) {
        std::string name = tested.param.fault;
        std::replace(name.begin(), name.end(), '-', '_');
        return name;
    });

TEST_F(Check, NamesTwoPartnersThatBothAnswer) {
    const auto one = StartForeign();
    const auto two = StartForeign();
    const Result result = Tool({"check", "demo"});
    EXPECT_EQ(result.status, kFailed);
    EXPECT_THAT(result.output, ContainsRegex("FAIL  partner: :1\\.[0-9]+ \\(foreign-end.py, "
                                             "process [0-9]+\\) and :1\\.[0-9]+ "));
}

TEST_F(Check, NamesARefusalOfNotificationsAlone) {
    const auto other = StartBus(
        "<deny send_interface='org.ulmar.tevrol.DbusCommunication' send_type='signal'/>", "");
    const std::string address = "--address=unix:path=" + File("socket");
    const auto partner = StartTool({"partner", address, "demo"}, "announced SYN");
    const Result result = Tool({"check", address, "demo"});
    EXPECT_EQ(result.status, kFailed);
    EXPECT_THAT(result.output, HasSubstr("ok    right to call"));
    EXPECT_THAT(result.output, HasSubstr("FAIL  right to notify by org.ulmar.tevrol."
                                         "DbusCommunication: the bus refuses notifications of "));
}

// ---- Why nobody has answered ----

TEST_F(Check, TellsAnAbsentPartner) {
    const Result result = Tool({"check", "--wait=0.1", "demo"});
    EXPECT_EQ(result.status, kNoPartner);
    EXPECT_THAT(result.output, HasSubstr("ok    ends: nobody else is seen to be an end of it"));
    EXPECT_THAT(result.output, HasSubstr("FAIL  partner: none has answered SYN within 100.00 ms: "
                                         "none runs (start it)"));
}

TEST_F(Check, TellsAPartnerThatIsBoundToAnother) {
    const auto service = StartForeign();
    const auto client = StartForeign("", "ready ", "demo", "client");
    const Result result = Tool({"check", "--wait=0.1", "demo"});
    EXPECT_EQ(result.status, kNoPartner);
    EXPECT_THAT(result.output, ContainsRegex("ends: service :1\\.0 \\(foreign-end.py, process "
                                             "[0-9]+\\), bound to :1\\.1; client :1\\.1 "));
    EXPECT_THAT(result.output,
                ContainsRegex("FAIL  partner: :1\\.0 [^\n]* is bound to :1\\.1 [^\n]*, and that to "
                              "it; they have started at the same moment \\(if neither is ready, "
                              "their announcements have crossed: restart one of them\\)"));
}

TEST_F(Check, TellsAPartnerThatIsBoundToOneThatIsNotBoundToIt) {
    const auto service = StartForeign();
    const auto client = StartForeign("ignores-loss", "ready ", "demo", "client");
    const Result result = Tool({"check", "--wait=0.1", "demo"});
    EXPECT_THAT(result.output, ContainsRegex("FAIL  partner: :1\\.0 [^\n]* is bound to :1\\.1 "
                                             "[^\n]*, which is not bound to it"));
}

TEST_F(Check, TellsTwoClientsAndNoPartner) {
    const auto client = StartForeign("", "announced SYN", "demo", "client");
    const Result result = Tool({"check", "--wait=0.1", "demo"});
    EXPECT_EQ(result.status, kNoPartner);
    EXPECT_THAT(result.output, HasSubstr("FAIL  partner: only client ends run: :1."));
    EXPECT_THAT(result.output, HasSubstr("(two clients never pair; start the service end)"));
}

TEST_F(Check, TellsAStoppedPartner) {
    const auto service = StartPartner();
    service->Stop();
    const Result result = Tool({"check", "--wait=0.1", "demo"});
    EXPECT_EQ(result.status, kNoPartner);
    EXPECT_THAT(result.output, ContainsRegex("FAIL  partner: :1\\.0 [^\n]* is stopped \\(let it go "
                                             "on: kill -CONT [0-9]+\\)"));
    service->Signal(SIGCONT);
}

TEST_F(Check, TellsANameInAnotherSpelling) {
    const auto service = StartForeign("", "announced SYN", "Demo");
    const Result result = Tool({"check", "--wait=0.1", "demo"});
    EXPECT_EQ(result.status, kNoPartner);
    EXPECT_THAT(result.output, HasSubstr("FAIL  partner: nobody has the channel \"demo\", but "
                                         "there are \"Demo\" of :1.0 (foreign-end.py, "));
}

TEST_F(Check, TellsAPartnerThatMayNotOwnItsSynAck) {
    const auto other = StartBus("<deny own='" + Name("SERVICE", "SYN_ACK") + "'/>", "");
    const std::string address = "--address=unix:path=" + File("socket");
    const auto partner = StartTool({"partner", address, "demo"}, "announced SYN");
    const Result result = Tool({"check", address, "--wait=0.1", "demo"});
    EXPECT_EQ(result.status, kNoPartner);
    EXPECT_THAT(result.output,
                ContainsRegex("FAIL  partner: the bus policy refuses :1\\.0 \\([^)]*\\) the name "
                              "that it answers with \\(add <allow own=\"" +
                              Name("SERVICE", "SYN_ACK")));
}

TEST_F(Check, TellsThatTheBusHidesAnnouncementsFromThisUser) {
    const Result result = On("<deny receive_sender='org.freedesktop.DBus' receive_type='signal'/>",
                             "", {"--wait=0.1", "demo"});
    EXPECT_EQ(result.status, kFailed);
    EXPECT_THAT(result.output, ContainsRegex("FAIL  partner: the bus does not tell user [^\n]* who "
                                             "owns a name"));
}

TEST_F(Check, TakesALateAnswerForOneAndWarns) {
    const auto service = StartForeign("slow-answer");
    const Result result = Tool({"check", "--wait=0.1", "demo"});
    EXPECT_EQ(result.status, kFailed);
    EXPECT_THAT(result.output,
                HasSubstr("warn  time: the partner has not answered within 100.00 ms, but later"));
    EXPECT_THAT(result.output, HasSubstr("ok    partner: :1.0 "));
}

TEST_F(Check, AnswersAPartnerThatOpensMeanwhile) {
    OddService service;
    service.on_announced = [&](const std::string& stage, const std::string&) {
        service.on_announced = nullptr;
        service.Announce("SYN");
        return stage == "SYN";
    };
    const Result result = Tool({"check", "demo"});
    EXPECT_EQ(result.status, kOk) << result.output;
    EXPECT_THAT(result.output, HasSubstr("has opened meanwhile, and answered SYN_ACK with ACK"));
}

TEST_F(Check, KnowsStandbyAndWhoIsBoundToAnEndThatHeals) {
    const auto first = StartTool({"open", "--as=service", "demo"}, "-- waiting");
    const auto client = StartTool({"open", "--as=client", "demo"}, "-- ready");
    const auto second = StartTool({"open", "--as=service", "demo"}, "-- standing by");
    const Result result = Tool({"check", "--wait=0.1", "demo"});
    EXPECT_EQ(result.status, kNoPartner);
    EXPECT_THAT(result.output,
                ContainsRegex("ends: [^\n]*standby service :1\\.[0-9]+ \\(tevrolctl, "));
    EXPECT_THAT(result.output, ContainsRegex("FAIL  partner: :1\\.[0-9]+ \\(tevrolctl, process "
                                             "[0-9]+\\) is bound to :1\\."));
    client->Kill();
    AwaitText(*first, "-- lost");
    EXPECT_EQ(Tool({"check", "demo"}).status, kOk);
}

TEST_F(Check, SaysWhatItSeesWhereTheBusDoesNotTellWhoListens) {
    const auto other = StartBus(
        "<deny send_interface='org.freedesktop.DBus.Debug.Stats'/>"
        "<deny send_interface='org.freedesktop.DBus.Monitoring'/>",
        "");
    const std::string address = "--address=unix:path=" + File("socket");
    const auto client = StartTool({"open", address, "demo"}, "-- waiting");
    const Result result = Tool({"check", address, "--wait=0.1", "demo"});
    EXPECT_EQ(result.status, kNoPartner);
    EXPECT_THAT(result.output, ContainsRegex("ends: :1\\.0 \\(tevrolctl, process [0-9]+\\) exports "
                                             "the channel's object"));
    EXPECT_THAT(result.output, ContainsRegex("FAIL  partner: :1\\.0 [^\n]* is an end of the "
                                             "channel, but none has answered SYN"));
}

TEST_F(Check, PrintsJsonThatHoldsTheSame) {
    const auto service = StartForeign("wrong-error");
    const Result result =
        ::Run({"python3", "-c",
               "import json, subprocess, sys\n"
               "out = subprocess.run(sys.argv[1:], stdout=subprocess.PIPE).stdout\n"
               "for line in out.splitlines():\n"
               "    found = json.loads(line)\n"
               "    print(found['verdict'], found['what'], sorted(found))",
               TEVROLCTL_PROGRAM, "check", "--json", "demo"});
    EXPECT_THAT(result.output,
                HasSubstr("FAIL right to call org.ulmar.tevrol.DbusCommunication ['finding', "
                          "'remedy', 'verdict', 'what']\n"));
    EXPECT_THAT(result.output, HasSubstr("ok partner ['finding', 'verdict', 'what']\n"));
}

TEST_F(Check, EscapesWhatOthersHaveWritten) {
    const auto foreign = [] {
        setenv("FOREIGN_TEXT", "a\nok    forged: \033[31m", 1);
        return StartForeign("hostile-error");
    }();
    const Result result = Tool({"check", "demo"});
    EXPECT_EQ(result.status, kFailed);
    EXPECT_THAT(result.output, HasSubstr("a\\nok    forged: \\x1b[31m"));
}

}  // namespace
