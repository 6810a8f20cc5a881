// tevrolctl check: why does my channel not connect?
#include <unistd.h>

#include <cstdlib>
#include <fstream>
#include <iterator>
#include <memory>

#include "tools/tevrolctl/command-line.h"
#include "tools/tevrolctl/commands.h"
#include "tools/tevrolctl/names.h"
#include "tools/tevrolctl/raw-end.h"

namespace tevrolctl {
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
constexpr const char* kSilent = "org.freedesktop.DBus.Error.NoReply";

class Findings {
public:
    static void Ok(const std::string& what, const std::string& finding) {
        PrintLine(Coloured(kGreen, "ok   ") + " " + what + ": " + finding);
    }
    void Warn(const std::string& what, const std::string& finding, const std::string& remedy) {
        PrintLine(Coloured(kYellow, "warn ") + " " + what + ": " + finding + " (" + remedy + ")");
        m_warned = true;
    }
    void Fail(ExitStatus status, const std::string& what, const std::string& finding,
              const std::string& remedy) {
        PrintLine(Coloured(kRed, "FAIL ") + " " + what + ": " + finding + " (" + remedy + ")");
        m_status = m_status == kExitOk ? status : m_status;
    }
    ExitStatus Status() const {
        return m_status == kExitOk && m_warned ? kExitFailed : m_status;
    }

private:
    ExitStatus m_status = kExitOk;
    bool m_warned = false;
};

std::string ThisUser() {
    return std::string("user ") + g_get_user_name() + ", uid " + std::to_string(getuid());
}

// True when there is an address to try.
bool CheckAddress(Findings& findings) {
    GError* error = nullptr;
    gchar* address = g_dbus_address_get_for_bus_sync(G_BUS_TYPE_SYSTEM, nullptr, &error);
    if (address == nullptr) {
        findings.Fail(kExitNoBus, "bus address", TakeMessage(error), "name one with --address");
        return false;
    }
    const std::string text = address;
    g_free(address);
    const std::string source = getenv("DBUS_SYSTEM_BUS_ADDRESS") == nullptr
                                   ? "the system's default"
                                   : "from DBUS_SYSTEM_BUS_ADDRESS or --address";
    if (g_dbus_is_supported_address(text.c_str(), &error) == FALSE) {
        findings.Fail(kExitNoBus, "bus address", TakeMessage(error),
                      "an address is like unix:path=/run/dbus/system_bus_socket");
        return false;
    }
    Findings::Ok("bus address", text + ", " + source);
    return true;
}

bool CheckConnection(Findings& findings) {
    try {
        const auto connection = PrivateConnection();
        Findings::Ok("connection", std::string("as ") +
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
    Findings::Ok("name", "\"" + channel + "\" can be used, with " +
                             std::to_string(HandshakeName(channel, kService, kSynAck).size()) +
                             " of 255 characters in the longest bus name");
    return true;
}

std::string Describe(RawEnd& end, const std::string& owner) {
    const Answer answer =
        end.CallDriver("GetConnectionUnixProcessID", g_variant_new("(s)", owner.c_str()));
    if (!answer.value) {
        return owner;
    }
    guint32 pid = 0;
    g_variant_get(answer.value.get(), "(u)", &pid);
    std::ifstream file("/proc/" + std::to_string(pid) + "/comm");
    std::string command;
    std::getline(file, command);
    return owner + " (" + command + ", process " + std::to_string(pid) + ")";
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

// An announcement that is being made just now is gone again a moment later.
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

void CheckOwners(RawEnd& end, const std::string& channel, Findings& findings) {
    bool free = true;
    for (const char* role : {kClient, kService}) {
        for (const char* stage : {kSyn, kSynAck, kAck}) {
            const std::string name = HandshakeName(channel, role, stage);
            const std::string owner = LastingOwnerOf(end, name);
            if (!owner.empty()) {
                findings.Fail(kExitFailed, "owners", name + " is held by " + Describe(end, owner),
                              "nobody can announce it meanwhile: end that process");
                free = false;
            }
        }
    }
    if (free) {
        Findings::Ok("owners", "nobody holds any of the six handshake names");
    }
}

// Announces one name; how it went is a finding.
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
        findings.Fail(kExitFailed, what, answer.error, "see the log of the bus daemon");
        return false;
    }
    guint32 code = 0;
    g_variant_get(answer.value.get(), "(u)", &code);
    if (code != kPrimaryOwner) {
        findings.Warn(what, "granted, but another process holds the name", "see owners");
        return false;
    }
    end.Release(stage);
    Findings::Ok(what, "granted to " + ThisUser());
    return true;
}

// A call that no handler gets to see: its body is of another type than "Send" takes.
void CheckRightToCall(RawEnd& end, const std::string& callee, const std::string& whom,
                      Findings& findings) {
    constexpr auto kPatience = std::chrono::seconds(5);
    const std::string what = std::string("right to call ") + kInterface;
    const Answer answer = end.Call(callee, kMethod, g_variant_new("(s)", ""), kPatience);
    if (answer.error_name == kAccessDenied) {
        findings.Fail(kExitFailed, what, "the bus policy refuses calls of " + ThisUser(),
                      std::string("add <allow send_interface=\"") + kInterface +
                          "\"/> for this user or group to the policy");
    } else if (answer.error_name.empty() || answer.error_name == kSilent) {
        findings.Fail(kExitNoReply, what, "no answer from " + whom + ": " + answer.error,
                      "does its main loop run?");
    } else {
        Findings::Ok(what, "the bus delivers calls to " + whom);
    }
}

void CheckLimits(Findings& findings) {
    // Only trying tells: on a connection that is given up right after.
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
            findings.Warn("match rules", answer.error, "see the log of the bus daemon");
            return;
        }
    }
    const std::string needs = "; a channel uses 3, and about 4 more while it is bound";
    constexpr int kFewest = 8;
    if (rules < kFewest) {
        findings.Fail(kExitFailed, "match rules", std::to_string(rules) + " per connection" + needs,
                      "raise max_match_rules_per_connection in the bus configuration");
    } else {
        Findings::Ok("match rules", (rules == kMost ? "at least " : "") + std::to_string(rules) +
                                        " per connection" + needs);
    }
    Findings::Ok("message size",
                 "the bus does not tell its limit; 32 MiB on a stock system bus, and a larger "
                 "message ends the sender's connection");
}

// Opens the channel as an application does.
void CheckPartner(const std::string& channel, std::chrono::milliseconds wait, bool announce_ack,
                  Findings& findings) {
    RawEnd end(channel);
    CheckOwners(end, channel, findings);
    const bool announced = CheckRightToOwn(end, channel, kSyn, findings);
    const auto partner = announced ? end.Await(kSynAck, 0, wait) : std::nullopt;
    CheckRightToOwn(end, channel, kSynAck, findings);
    if (partner || announce_ack) {
        CheckRightToOwn(end, channel, kAck, findings);
    } else {
        findings.Warn("right to own " + HandshakeName(channel, kClient, kAck),
                      "not tested, as no partner has answered",
                      "start the partner, or use --announce-ack where no pair is bound");
    }
    if (partner) {
        CheckRightToCall(end, *partner, "the partner", findings);
        Findings::Ok("partner", Describe(end, *partner) + " has answered SYN with SYN_ACK");
        return;
    }
    const RawEnd other(channel);
    CheckRightToCall(end, other.UniqueName(), "another connection", findings);
    findings.Fail(
        kExitNoPartner, "partner",
        announced ? "none has answered SYN within " + Duration(wait.count() * 1000)
                  : "cannot be asked without the SYN name",
        announced ? "start it, or end the process that it is bound to" : "see the right to own it");
}

}  // namespace

int Check(int argc, char** argv) {
    double wait = 2;
    gboolean announce_ack = FALSE;
    const GOptionEntry entries[] = {
        {"wait", 'w', 0, G_OPTION_ARG_DOUBLE, &wait, "Wait so long for an answer (2)", "SECONDS"},
        {"announce-ack", 0, 0, G_OPTION_ARG_NONE, &announce_ack,
         "Announce ACK even if no partner has answered", nullptr},
        {}};
    CommandLine line("check", "[NAME]", "Finds out why a channel does not connect.", kDetails);
    line.Add(entries);
    const auto arguments = line.Parse(argc, argv, 0, 1);
    const auto patience = Seconds(wait);
    EndOnSignals();
    Findings findings;
    const bool usable = arguments.empty() || CheckName(arguments.front(), findings);
    if (CheckAddress(findings) && CheckConnection(findings)) {
        CheckLimits(findings);
        if (usable && !arguments.empty()) {
            CheckPartner(arguments.front(), patience, announce_ack != FALSE, findings);
        }
    }
    return findings.Status();
}

}  // namespace tevrolctl
