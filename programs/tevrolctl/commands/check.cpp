// SPDX-License-Identifier: MIT
// tevrolctl check: why does my channel not connect?
#include <unistd.h>

#include <algorithm>
#include <cmath>
#include <cstdlib>
#include <optional>
#include <utility>
#include <vector>

#include "devkit/loop.h"
#include "devkit/outside-text.h"
#include "programs/common/bus.h"
#include "programs/common/command-line.h"
#include "programs/common/failure.h"
#include "programs/common/names.h"
#include "programs/tevrolctl/bus/probe.h"
#include "programs/tevrolctl/bus/raw-end.h"
#include "programs/tevrolctl/bus/survey.h"
#include "programs/tevrolctl/commands/commands.h"
#include "programs/tevrolctl/commands/findings.h"
#include "programs/tevrolctl/ui/text.h"

namespace programs {
namespace {

constexpr const char* kDetails =
    "One line for each finding: ok, warn or FAIL. Exit status 0 only when all are ok; otherwise\n"
    "that of the first FAIL, or 1 when it only warns.\n\n"
    "With NAME it opens the channel as an application does. Mind: a waiting partner binds this\n"
    "command, becomes ready and loses it again, and its application is told so; it gets no valid\n"
    "request. A partner that is bound to another process drops SYN and SYN_ACK. It would take an\n"
    "ACK for its own, so the right to own that name is tested only after a partner has answered,\n"
    "or with --announce-ack.\n\n"
    "Examples:\n"
    "  tevrolctl check\n"
    "  tevrolctl check demo\n"
    "  setpriv --reuid app --regid app --clear-groups tevrolctl check --wait 10 demo";

constexpr const char* kAccessDenied = "org.freedesktop.DBus.Error.AccessDenied";
constexpr const char* kLimitsExceeded = "org.freedesktop.DBus.Error.LimitsExceeded";
constexpr const char* kOfTheBus = "Rejected send message";  // and not of the called process
constexpr const char* kUnknown = "org.freedesktop.DBus.Error.Unknown";
constexpr const char* kSilent = "org.freedesktop.DBus.Error.NoReply";

std::string ThisUser() {
    return std::string("user ") + g_get_user_name() + ", uid " + std::to_string(getuid());
}

// False when there is no address to try.
bool CheckAddress(Findings& findings) {
    GError* error = nullptr;
    const std::string text =
        tevrol::TakeText(g_dbus_address_get_for_bus_sync(G_BUS_TYPE_SYSTEM, nullptr, &error));
    if (text.empty()) {
        findings.Fail(kExitNoBus, "bus address", tevrol::TakeMessage(error),
                      "name one with --address");
        return false;
    }
    const std::string source = getenv("DBUS_SYSTEM_BUS_ADDRESS") == nullptr
                                   ? "the system's default"
                                   : "from DBUS_SYSTEM_BUS_ADDRESS or --address";
    if (g_dbus_is_supported_address(text.c_str(), &error) == FALSE) {
        findings.Fail(kExitNoBus, "bus address", tevrol::TakeMessage(error),
                      "an address is like unix:path=/run/dbus/system_bus_socket");
        return false;
    }
    findings.Ok("bus address", text + ", " + source);
    return true;
}

bool CheckConnection(Findings& findings) {
    try {
        const auto connection = PrivateConnection();
        findings.Ok("connection", std::string("as ") +
                                      g_dbus_connection_get_unique_name(connection.get()) + ", " +
                                      ThisUser());
        return true;
    } catch (const Failure& failure) {
        findings.Fail(kExitNoBus, "connection", failure.what(),
                      "is the bus daemon running, and may this user open its socket?");
        return false;
    }
}

bool CheckName(const std::string& channel, Findings& findings) {
    const std::string problem = NameProblem(channel);
    if (!problem.empty()) {
        findings.Fail(kExitUsage, "name", "\"" + channel + "\": " + problem,
                      "use letters, digits and underscores, no digit first, 222 at most");
        return false;
    }
    findings.Ok("name", "\"" + channel + "\" can be used, with " +
                            std::to_string(HandshakeName(channel, kService, kSynAck).size()) +
                            " of 255 characters in the longest bus name");
    return true;
}

std::string Who(const Survey& survey, const std::string& unique_name) {
    const Neighbour* neighbour = survey.Find(unique_name);
    return neighbour == nullptr ? unique_name : Describe(*neighbour);
}

std::string OwnerOf(RawEnd& end, const std::string& name) {
    const Answer answer = end.CallDriver("GetNameOwner", g_variant_new("(s)", name.c_str()));
    if (!answer.value) {
        return {};
    }
    const gchar* owner = nullptr;
    g_variant_get(answer.value.get(), "(&s)", &owner);
    return owner;
}

// Who owns `name` for longer than an announcement takes. Empty when nobody does.
std::string LastingOwnerOf(RawEnd& end, const std::string& name) {
    constexpr int kLooks = 20;
    constexpr gulong kBetweenLooks = 10000;
    std::string owner = OwnerOf(end, name);
    for (int look = 1; look < kLooks && !owner.empty(); ++look) {
        g_usleep(kBetweenLooks);
        owner = OwnerOf(end, name);
    }
    return owner;
}

void CheckOwners(RawEnd& end, const std::string& channel, const Survey& survey,
                 Findings& findings) {
    bool free = true;
    for (const char* role : {kClient, kService}) {
        for (const char* stage : {kSyn, kSynAck, kAck}) {
            const std::string name = HandshakeName(channel, role, stage);
            const std::string owner = LastingOwnerOf(end, name);
            if (!owner.empty()) {
                findings.Fail(kExitFailed, "owners", name + " is held by " + Who(survey, owner),
                              "nobody can announce it meanwhile: end that process");
                free = false;
            }
        }
    }
    if (free) {
        findings.Ok("owners", "nobody holds any of the six handshake names");
    }
}

// Announces one name and tells how that went.
bool CheckRightToOwn(RawEnd& end, const std::string& channel, const char* stage,
                     Findings& findings) {
    const std::string name = HandshakeName(channel, kClient, stage);
    const std::string what = "right to own " + name;
    const Answer answer = end.CallDriver("RequestName", g_variant_new("(su)", name.c_str(), 4));
    if (answer.error_name == kAccessDenied) {
        findings.Fail(kExitFailed, what, "the bus policy refuses it to " + ThisUser(),
                      "add <allow own=\"" + name + "\"/> for this user or group to the policy");
        return false;
    }
    if (!answer.value) {
        findings.Fail(kExitFailed, what, tevrol::Printable(answer.error),
                      "see the log of the bus daemon");
        return false;
    }
    guint32 code = 0;
    g_variant_get(answer.value.get(), "(u)", &code);
    if (code != kPrimaryOwner) {
        findings.Warn(what, "granted, but another process holds the name", "see owners");
        return false;
    }
    end.Release(stage);
    findings.Ok(what, "granted to " + ThisUser());
    return true;
}

void CheckLimits(Findings& findings) {
    // The bus does not tell its limit, so a connection of its own adds rules until it is refused.
    constexpr int kMost = 4096;
    RawEnd probe("");
    int rules = 1;  // the one of RawEnd itself
    for (; rules < kMost; ++rules) {
        const std::string rule = "type='signal',arg0='probe" + std::to_string(rules) + "'";
        const Answer answer = probe.CallDriver("AddMatch", g_variant_new("(s)", rule.c_str()));
        if (answer.error_name == kLimitsExceeded) {
            break;
        }
        if (!answer.value) {
            findings.Warn("match rules", tevrol::Printable(answer.error),
                          "see the log of the bus daemon");
            return;
        }
    }
    const std::string needs = "; a channel uses 3, and 2 more while it is bound";
    constexpr int kFewest = 5;
    if (rules < kFewest) {
        findings.Fail(kExitFailed, "match rules", std::to_string(rules) + " per connection" + needs,
                      "raise max_match_rules_per_connection in the bus configuration");
    } else {
        findings.Ok("match rules", (rules == kMost ? "at least " : "") + std::to_string(rules) +
                                       " per connection" + needs);
    }
    findings.Ok("message size",
                "the bus does not tell its limit; 32 MiB on a stock system bus, and a larger "
                "message ends the sender's connection");
}

bool Begins(const std::string& text, const std::string& beginning) {
    return text.compare(0, beginning.size(), beginning) == 0;
}

std::string Join(const std::vector<std::string>& texts, const std::string& between) {
    std::string all;
    for (const std::string& text : texts) {
        all += (all.empty() ? "" : between) + text;
    }
    return all;
}

// Opens the channel as an application does, and finds out what came of it.
class PartnerCheck {
public:
    PartnerCheck(std::string channel, std::chrono::milliseconds wait, Findings& findings)
        : m_channel(std::move(channel)),
          m_wait(wait),
          m_findings(findings),
          m_survey(m_channel),
          m_probe(m_channel),
          m_end(m_channel) {}

    void Run(bool announce_ack) {
        TellEnds();
        CheckOwners(m_end, m_channel, m_survey, m_findings);
        m_announced = CheckRightToOwn(m_end, m_channel, kSyn, m_findings);
        AwaitAnswer(m_wait);
        if (!m_partner) {
            AwaitLateAnswer();
        }
        CheckRightToOwn(m_end, m_channel, kSynAck, m_findings);
        if (m_partner || announce_ack) {
            CheckRightToOwn(m_end, m_channel, kAck, m_findings);
        } else {
            m_findings.Warn("right to own " + HandshakeName(m_channel, kClient, kAck),
                            "not tested, as no partner has answered",
                            "start the partner, or use --announce-ack where no pair is bound");
        }
        if (m_partner) {
            CheckRights(*m_partner, "the partner");
            JudgePartner();
        } else {
            const RawEnd other(m_channel);
            CheckRights(other.UniqueName(), "another connection");
            ExplainSilence();
        }
    }

private:
    static constexpr std::chrono::milliseconds kMoment{250};
    static constexpr std::chrono::milliseconds kLonger{1500};

    // ---- Who is there ----

    // An end, what it is bound to as far as it can be seen, and what is special about it.
    std::string DescribeEnd(const Neighbour& end, const std::string& role) const {
        const auto& queue = m_survey.Queue(role);
        const bool stands_by = std::find(queue.begin(), queue.end(), end.name) != queue.end() &&
                               queue.front() != end.name;
        std::string text = (stands_by ? "standby " : "") + RoleName(role) + " " + Describe(end);
        for (const Neighbour* bound : BoundTo(end)) {
            text += ", bound to " + bound->name;
        }
        return text + (end.process.state == 'T' ? ", stopped" : "");
    }
    static std::string RoleName(const std::string& role) {
        return role == kClient ? "client" : "service";
    }

    // The ends of the other role whose loss it would hear of.
    std::vector<const Neighbour*> BoundTo(const Neighbour& end) const {
        std::vector<const Neighbour*> bound;
        for (const Neighbour& other : m_survey.All()) {
            const bool fits = (end.is_service && other.is_client) ||
                              (end.is_client && other.is_service) || other.exports;
            if (fits && other.name != end.name && end.watched.count(other.name) != 0) {
                bound.push_back(&other);
            }
        }
        return bound;
    }

    bool IsBoundToAnother(const std::string& unique_name) const {
        const Neighbour* end = m_survey.Find(unique_name);
        return end != nullptr && !BoundTo(*end).empty();
    }

    void TellEnds() {
        std::vector<std::string> ends;
        for (const char* role : {kService, kClient}) {
            for (const Neighbour* end : m_survey.Ends(role)) {
                ends.push_back(DescribeEnd(*end, role));
            }
        }
        if (!m_survey.KnowsListeners()) {
            for (const Neighbour* end : m_survey.Exporters()) {
                ends.push_back(Describe(*end) + " exports the channel's object");
            }
        }
        m_findings.Ok("ends",
                      ends.empty() ? "nobody else is seen to be an end of it" : Join(ends, "; "));
    }

    // ---- The handshake ----

    bool HearsItself() {
        return m_probe.HasHeard(HandshakeName(m_channel, kClient, kSyn));
    }

    // As an application does: it also answers a partner that opens meanwhile.
    void AwaitAnswer(std::chrono::milliseconds limit) {
        if (!m_announced) {
            return;
        }
        tevrol::IterateUntil(
            [this] {
                // NOLINTNEXTLINE(readability-use-anyofallof): it notes what it finds
                for (const auto& heard : m_end.All()) {
                    if (IsBoundToAnother(heard.announcer)) {
                        continue;  // an end that heals repeats announcements to its own partner
                    }
                    if (heard.stage == kSynAck) {
                        m_partner = heard.announcer;
                        m_how = "has answered SYN with SYN_ACK";
                    } else if (heard.stage == kSyn && m_opened.empty()) {
                        m_opened = heard.announcer;
                        m_end.Announce(kSynAck);
                    } else if (heard.stage == kAck && heard.announcer == m_opened) {
                        m_partner = heard.announcer;
                        m_how = "has opened meanwhile, and answered SYN_ACK with ACK";
                    }
                    if (m_partner) {
                        return true;
                    }
                }
                return false;
            },
            limit);
    }

    // One that is there and could answer gets more time, to be told from one that never does.
    void AwaitLateAnswer() {
        const auto exporters = m_survey.Exporters();
        const bool may_answer =
            !m_survey.Ends(kService).empty() || (!m_survey.KnowsListeners() && !exporters.empty());
        if (!may_answer) {
            return;
        }
        m_heard_itself = HearsItself();
        if (m_announced && m_probe.BecomeMonitor()) {
            m_end.Announce(kSyn);  // for the monitor
        }
        AwaitAnswer(kLonger);
        if (m_partner) {
            m_findings.Warn("time",
                            "the partner has not answered within " +
                                Duration(m_wait.count() * 1000) + ", but later",
                            "its application may give up, or wait with a larger --wait");
        }
    }

    // ---- A partner that has answered ----

    // Makes a call that reaches no handler: its body has another type than "Send" takes.
    void CheckRights(const std::string& whom, const std::string& who) {
        constexpr auto kPatience = std::chrono::seconds(5);
        const std::string what = std::string("right to call ") + kInterface;
        const Answer answer = m_end.Call(whom, kMethod, g_variant_new("(s)", ""), kPatience);
        const std::string error = tevrol::Printable(answer.error);
        if (answer.error_name == kAccessDenied && m_partner && !Begins(error, kOfTheBus)) {
            m_findings.Fail(kExitNoPartner, what, who + " refuses this command: " + error,
                            "it is bound to another process: end that one");
        } else if (answer.error_name == kAccessDenied) {
            m_findings.Fail(kExitFailed, what, "the bus policy refuses calls of " + ThisUser(),
                            std::string("add <allow send_interface=\"") + kInterface +
                                "\"/> for this user or group to the policy");
        } else if (answer.value) {
            m_findings.Fail(kExitFailed, what,
                            who + " takes a request of another type for one and replies",
                            "its method has to take ay, and InvalidArgs to answer anything else");
        } else if (answer.error_name.empty() || answer.error_name == kSilent) {
            m_findings.Fail(kExitNoReply, what, "no answer from " + who + ": " + error,
                            "does its main loop run?");
        } else if (!m_partner || answer.error_name == kInvalidArguments) {
            m_findings.Ok(what, "the bus delivers calls to " + who);
        } else if (Begins(answer.error_name, kUnknown)) {
            ExplainMissingObject(what, whom);
        } else {
            m_findings.Fail(kExitFailed, what,
                            who + " answers a request of another type with " +
                                tevrol::Printable(answer.error_name) + ": " + error,
                            "a correct end answers with InvalidArgs");
        }
        CheckRightToNotify(whom, who);
    }

    void CheckRightToNotify(const std::string& whom, const std::string& who) {
        const std::string what = std::string("right to notify by ") + kInterface;
        // As a monitor it can send nothing.
        Probe fresh(m_channel);
        const std::string refusal = fresh.NotifyRefusal(whom);
        if (refusal.empty()) {
            m_findings.Ok(what, "the bus delivers notifications to " + who);
        } else {
            m_findings.Fail(kExitFailed, what,
                            "the bus refuses notifications of " + ThisUser() + ": " + refusal,
                            std::string("add <allow send_interface=\"") + kInterface +
                                "\"/> without a send_type or send_member to the policy");
        }
    }

    void ExplainMissingObject(const std::string& what, const std::string& whom) {
        const std::string needed =
            std::string(kMethod) + " of " + kInterface + " at " + ObjectPath(m_channel);
        const Neighbour* partner = m_survey.Find(whom);
        for (const Neighbour* other : m_survey.Exporters()) {
            if (partner != nullptr && other->name != whom && other->pid == partner->pid) {
                m_findings.Fail(kExitFailed, what,
                                whom + " announces itself, but the object is at " + other->name +
                                    ", another connection of its process",
                                "announce and export on the same connection");
                return;
            }
        }
        const auto found = m_survey.LooksLikeAnEnd(whom);
        m_findings.Fail(kExitFailed, what,
                        Who(m_survey, whom) + " has no " + needed +
                            (found.empty() ? "" : ", but " + Join(found, ", ")),
                        "export it before the first announcement");
    }

    // Who has answered by now, in order.
    std::vector<std::string> Answered() const {
        std::vector<std::string> answered;
        for (const auto& heard : m_end.All()) {
            const std::string who = Who(m_survey, heard.announcer);
            if (heard.stage == kSynAck &&
                std::find(answered.begin(), answered.end(), who) == answered.end()) {
                answered.push_back(who);
            }
        }
        return answered;
    }

    void JudgePartner() {
        // Of two that answer at the same moment one is refused the name, and repeats it after half
        // a second.
        const bool alone =
            std::max(m_survey.Ends(kService).size(), m_survey.Exporters().size()) < 2;
        tevrol::IterateUntil([this] { return Answered().size() > 1; }, alone ? kMoment : kLonger);
        const auto answered = Answered();
        if (answered.size() > 1) {
            m_findings.Fail(kExitFailed, "partner",
                            Join(answered, " and ") +
                                " have all answered: each takes itself for "
                                "the partner",
                            "a channel has one service end; end the others");
            return;
        }
        m_findings.Ok("partner", Who(m_survey, *m_partner) + " " + m_how);
    }

    // ---- Nobody has answered ----

    void Silence(const std::string& finding, const std::string& remedy) {
        m_findings.Fail(kExitNoPartner, "partner", finding, remedy);
    }

    void ExplainSilence() {
        const std::string limit = " within " + Duration(m_wait.count() * 1000);
        if (!m_announced) {
            Silence("cannot be asked without the SYN name", "see the right to own it");
        } else if (!m_heard_itself && !HearsItself()) {
            m_findings.Fail(kExitFailed, "partner",
                            "the bus does not tell " + ThisUser() +
                                " who owns a name, so that no answer can be heard",
                            "let it receive from org.freedesktop.DBus: add <allow "
                            "receive_sender=\"org.freedesktop.DBus\"/> to the policy");
        } else if (!ExplainWhatWasHeard() && !ExplainServices() && !ExplainExporters() &&
                   !ExplainOtherNames()) {
            Silence("none has answered SYN" + limit + ": none runs", "start it");
        }
    }

    bool ExplainWhatWasHeard() {
        const std::string holder = m_end.Holder(kSynAck);
        if (!holder.empty()) {
            Silence(Who(m_survey, holder) + " has acquired SYN_ACK and does not release it",
                    "only the release is an announcement");
            return true;
        }
        for (const auto& heard : m_end.All()) {
            if (heard.stage == kAck && m_opened.empty() && !IsBoundToAnother(heard.announcer)) {
                Silence(Who(m_survey, heard.announcer) + " has answered SYN with ACK",
                        "SYN is answered with SYN_ACK; only SYN_ACK is answered with ACK");
                return true;
            }
        }
        if (!m_opened.empty()) {
            Silence(Who(m_survey, m_opened) + " has opened meanwhile, but not answered SYN_ACK",
                    "SYN_ACK is answered with ACK");
            return true;
        }
        return false;
    }

    bool ExplainServices() {
        const auto services = m_survey.Ends(kService);
        for (const Neighbour* service : services) {
            ExplainService(*service);
        }
        const auto clients = m_survey.Ends(kClient);
        if (services.empty() && !clients.empty()) {
            std::vector<std::string> names;
            names.reserve(clients.size());
            for (const Neighbour* client : clients) {
                names.push_back(Describe(*client));
            }
            Silence("only client ends run: " + Join(names, ", ") + ", and this command",
                    "two clients never pair; start the service end");
            return true;
        }
        return !services.empty();
    }

    void ExplainService(const Neighbour& service) {
        const std::string who = Describe(service);
        const auto refused = m_probe.Refused();
        const auto bound = BoundTo(service);
        if (LookAtProcess(service.pid).state == 'T') {
            Silence(who + " is stopped", "let it go on: kill -CONT " + std::to_string(service.pid));
        } else if (std::find(refused.begin(), refused.end(), service.name) != refused.end()) {
            Silence("the bus policy refuses " + who + " the name that it answers with",
                    "add <allow own=\"" + HandshakeName(m_channel, kService, kSynAck) +
                        "\"/> for its user or group to the policy");
        } else if (!bound.empty()) {
            ExplainBound(service, *bound.front());
        } else if (!m_survey.KnowsListeners()) {
            Silence(who + " is the service, and has not answered",
                    "it is bound to another process, or its main loop does not run");
        } else if (m_survey.Find(service.name) != nullptr && !service.answers) {
            Silence(who + " is the service, and answers nothing", "does its main loop run?");
        } else {
            Silence(who + " is the service and bound to nobody, but has not answered",
                    "may it own " + HandshakeName(m_channel, kService, kSynAck) +
                        ", and does it hear announcements? See its log");
        }
    }

    void ExplainBound(const Neighbour& service, const Neighbour& client) {
        constexpr double kSameMoment = 1;
        const bool mutual = client.watched.count(service.name) != 0;
        const bool together =
            std::abs(service.process.started - client.process.started) <= kSameMoment;
        if (!mutual) {
            Silence(Describe(service) + " is bound to " + Describe(client) +
                        ", which is not bound to it",
                    "restart the service end");
        } else if (together) {
            Silence(Describe(service) + " is bound to " + Describe(client) +
                        ", and that to it; they have started at the same moment",
                    "if neither is ready, their announcements have crossed: restart one of them");
        } else {
            Silence(Describe(service) + " is bound to " + Describe(client),
                    "a channel has one client; end that one to be heard");
        }
    }

    // Where the bus does not tell who listens for what.
    bool ExplainExporters() {
        std::vector<std::string> names;
        for (const Neighbour* end : m_survey.Exporters()) {
            names.push_back(Describe(*end) + (end->process.state == 'T' ? ", stopped" : ""));
        }
        if (names.empty()) {
            return false;
        }
        Silence(Join(names, " and ") + (names.size() == 1 ? " is an end" : " are ends") +
                    " of the channel, but none has answered SYN",
                names.size() == 1 ? "is it a client end, or bound to a process that has no object?"
                                  : "they are bound to each other, or all are client ends; as root "
                                    "this command may tell");
        return true;
    }

    // Also those that are stopped, and so cannot be asked for their objects.
    bool ExplainOtherNames() {
        std::vector<std::string> others;
        std::vector<std::string> stopped;
        for (const Neighbour& neighbour : m_survey.All()) {
            for (const std::string& channel : neighbour.channels) {
                if (channel != m_channel) {
                    others.push_back("\"" + channel + "\" of " + Describe(neighbour));
                }
            }
            if (neighbour.process.state == 'T') {
                stopped.push_back(Describe(neighbour));
            }
        }
        if (!others.empty()) {
            Silence(
                "nobody has the channel \"" + m_channel + "\", but there are " + Join(others, ", "),
                "is the name spelt alike at both ends?");
        } else if (!stopped.empty()) {
            Silence("none has answered SYN; " + Join(stopped, ", ") + " is stopped",
                    "let it go on, if it is the partner");
        }
        return !others.empty() || !stopped.empty();
    }

    const std::string m_channel;
    const std::chrono::milliseconds m_wait;
    Findings& m_findings;
    const Survey m_survey;  // before this command announced anything
    Probe m_probe;
    RawEnd m_end;
    bool m_announced = false;
    bool m_heard_itself = false;
    std::string m_opened;  // who has announced SYN meanwhile
    std::optional<std::string> m_partner;
    std::string m_how;
};

}  // namespace

int Check(int argc, char** argv) {
    double wait = 2;
    gboolean announce_ack = FALSE;
    gboolean json = FALSE;
    const GOptionEntry entries[] = {
        {"wait", 'w', 0, G_OPTION_ARG_DOUBLE, &wait, "Wait so long for an answer (2)", "SECONDS"},
        {"announce-ack", 0, 0, G_OPTION_ARG_NONE, &announce_ack,
         "Announce ACK even if no partner has answered", nullptr},
        {"json", 'j', 0, G_OPTION_ARG_NONE, &json, "Print one JSON object a line", nullptr},
        {}};
    CommandLine line("tevrolctl check", "[NAME]", "Finds out why a channel does not connect.",
                     kDetails);
    line.Add(entries);
    const auto arguments = line.Parse(argc, argv, 0, 1);
    const auto patience = Seconds(wait);
    Findings findings(json != FALSE);
    const bool usable = arguments.empty() || CheckName(arguments.front(), findings);
    if (CheckAddress(findings) && CheckConnection(findings)) {
        CheckLimits(findings);
        if (usable && !arguments.empty()) {
            PartnerCheck(arguments.front(), patience, findings).Run(announce_ack != FALSE);
        }
    }
    return findings.Status();
}

}  // namespace programs
