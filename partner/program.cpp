#include "partner/program.h"

#include <unistd.h>

#include <array>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <iostream>
#include <mutex>
#include <sstream>

namespace tevrol {
namespace {

constexpr const char* kDocumentation =
    "The service end of the channel CHANNEL, for development: announces itself, answers requests "
    "with an echo and prints what happens, on the system bus or the one that "
    "DBUS_SYSTEM_BUS_ADDRESS names."
    "\v"
    "STAGE is syn, syn-ack or ack. MOMENT is before-STAGE, during-STAGE or after-STAGE for its own "
    "announcement of that stage, ready or request.\n\n"
    "Commands, one a line on standard input (PAYLOAD is text, or hex: and digits):\n"
    "  request PAYLOAD         send a request\n"
    "  notify PAYLOAD          send a notification\n"
    "  notify-wrong-type TEXT  send a notification that holds a string\n"
    "  leave, join             drop the connection, come back and announce\n"
    "  announce STAGE          announce its own name of that stage\n"
    "  hold STAGE              own the other end's name, so that its announcement fails\n"
    "  release STAGE           give it back\n"
    "  quit                    end\n"
    "Without commands it goes on until it is ended by a signal.";

enum Option {
    kWait = 'w',
    kAnswer = 'a',
    kFault = 'f',
    kLateness = 256,
    kLeave = 'l',
    kStop = 's',
    kHold = 'h'
};

constexpr std::array<argp_option, 8> kOptions = {{
    {"wait", kWait, nullptr, 0, "Announce nothing; wait for the other end's SYN", 0},
    {"answer", kAnswer, "PAYLOAD", 0, "Answer every request with PAYLOAD instead of an echo", 0},
    {"fault", kFault, "FAULT", 0, "Answer requests: never, late, error or wrong-type", 0},
    {"lateness", kLateness, "MS", 0, "Delay of --fault=late in milliseconds (1000)", 0},
    {"leave", kLeave, "MOMENT", 0, "Drop the bus connection at that moment, once", 0},
    {"stop", kStop, "MOMENT", 0, "Stop the process (SIGSTOP) at that moment, once", 0},
    {"hold", kHold, "STAGE", 0, "Own the other end's name of that stage from the start", 0},
    {nullptr, 0, nullptr, 0, nullptr, 0},
}};

template <typename Value, std::size_t N>
std::optional<Value> Find(const std::array<std::pair<const char*, Value>, N>& names,
                          const std::string& name) {
    for (const auto& [known, value] : names) {
        if (name == known) {
            return value;
        }
    }
    return std::nullopt;
}

std::optional<HandshakeStage> StageNamed(const std::string& name) {
    static constexpr std::array<std::pair<const char*, HandshakeStage>, 3> kStages = {{
        {"syn", HandshakeStage::Syn},
        {"syn-ack", HandshakeStage::SynAck},
        {"ack", HandshakeStage::Ack},
    }};
    return Find(kStages, name);
}

std::optional<PartnerFaults::Reply> FaultNamed(const std::string& name) {
    using Reply = PartnerFaults::Reply;
    static constexpr std::array<std::pair<const char*, Reply>, 4> kFaults = {{
        {"never", Reply::Never},
        {"late", Reply::Late},
        {"error", Reply::Error},
        {"wrong-type", Reply::WrongType},
    }};
    return Find(kFaults, name);
}

std::optional<PartnerFaults::Moment> MomentNamed(const std::string& name) {
    using Moment = PartnerFaults::Moment;
    static constexpr std::array<std::pair<const char*, Moment>, 11> kMoments = {{
        {"before-syn", Moment::BeforeSyn},
        {"during-syn", Moment::DuringSyn},
        {"after-syn", Moment::AfterSyn},
        {"before-syn-ack", Moment::BeforeSynAck},
        {"during-syn-ack", Moment::DuringSynAck},
        {"after-syn-ack", Moment::AfterSynAck},
        {"before-ack", Moment::BeforeAck},
        {"during-ack", Moment::DuringAck},
        {"after-ack", Moment::AfterAck},
        {"ready", Moment::OnReady},
        {"request", Moment::OnRequest},
    }};
    return Find(kMoments, name);
}

template <typename Value>
Value Required(argp_state* state, const char* what, const char* given, std::optional<Value> value) {
    if (!value) {
        argp_error(state, "unknown %s: %s", what, given);  // does not return
    }
    return *value;
}

std::chrono::milliseconds ParseLateness(argp_state* state, const char* given) {
    std::istringstream text(given);
    int milliseconds = -1;
    if (!(text >> milliseconds) || !text.eof() || milliseconds < 0) {
        argp_error(state, "no number of milliseconds: %s", given);
    }
    return std::chrono::milliseconds(milliseconds);
}

error_t ParseOption(int key, char* argument, argp_state* state) {
    auto& settings = *static_cast<PartnerSettings*>(state->input);
    switch (key) {
        case kWait:
            settings.announce = false;
            return 0;
        case kAnswer: {
            settings.functions.answer = [payload = Required(state, "payload", argument,
                                                            ParsePayload(argument))](const Bytes&) {
                return payload;
            };
            return 0;
        }
        case kFault:
            settings.faults.reply = Required(state, "fault", argument, FaultNamed(argument));
            return 0;
        case kLateness:
            settings.faults.lateness = ParseLateness(state, argument);
            return 0;
        case kLeave:
            settings.faults.leave_at = Required(state, "moment", argument, MomentNamed(argument));
            return 0;
        case kStop:
            settings.faults.stop_at = Required(state, "moment", argument, MomentNamed(argument));
            return 0;
        case kHold:
            settings.held = Required(state, "stage", argument, StageNamed(argument));
            return 0;
        case ARGP_KEY_INIT:
            if (settings.extension_input != nullptr) {
                state->child_inputs[0] = settings.extension_input;
            }
            return 0;
        case ARGP_KEY_ARG:
            if (!settings.channel.empty()) {
                argp_error(state, "one channel at a time");
            }
            settings.channel = argument;
            return 0;
        case ARGP_KEY_END:
            if (settings.channel.empty()) {
                argp_usage(state);
            }
            return 0;
        default:
            return ARGP_ERR_UNKNOWN;
    }
}

// Events come from the partner's thread, replies from others: one line at a time.
void PrintLine(const std::string& line) {
    static std::mutex output;
    const std::lock_guard<std::mutex> lock(output);
    if (!(std::cout << line << std::endl)) {
        std::cerr << program_invocation_short_name
                  << ": cannot write to standard output: " << strerror(errno) << std::endl;
        _exit(EXIT_FAILURE);  // this may be the partner's thread, which cannot wait for itself
    }
}

void Report(std::future<PartnerReply> future) {
    std::thread([future = std::move(future)]() mutable {
        const PartnerReply reply = future.get();
        PrintLine(reply.ok ? "reply: " + Describe(reply.payload, std::size_t{1} << 16)
                           : "no reply: " + reply.error);
    }).detach();
}

// Carries out one command; false when it is not understood.
bool Obey(Partner& partner, const std::string& command, const std::string& argument) {
    const auto payload = ParsePayload(argument);
    const auto stage = StageNamed(argument);
    if (command == "request" && payload) {
        Report(partner.Request(*payload));
    } else if (command == "notify" && payload) {
        PrintLine(partner.Notify(*payload) ? "notified" : "not notified: no partner");
    } else if (command == "notify-wrong-type") {
        PrintLine(partner.Notify(TextBody(argument)) ? "notified" : "not notified: no partner");
    } else if (command == "leave") {
        partner.Leave();
    } else if (command == "join") {
        partner.Join();
        partner.Open();
    } else if (command == "announce" && stage) {
        partner.Announce(*stage);
    } else if (command == "hold" && stage) {
        PrintLine(partner.HoldClientName(*stage) ? "held" : "not held");
    } else if (command == "release" && stage) {
        PrintLine(partner.ReleaseClientName(*stage) ? "released" : "not released");
    } else {
        return false;
    }
    return true;
}

void ObeyStandardInput(Partner& partner) {
    std::string line;
    while (std::getline(std::cin, line)) {
        const std::size_t blank = line.find(' ');
        const std::string command = line.substr(0, blank);
        const std::string argument = blank == std::string::npos ? "" : line.substr(blank + 1);
        if (command == "quit") {
            return;
        }
        if (!command.empty() && !Obey(partner, command, argument)) {
            std::cerr << program_invocation_short_name << ": not understood: " << line << std::endl;
        }
    }
    for (;;) {
        pause();  // no more commands; ended by a signal
    }
}

}  // namespace

PartnerSettings ParsePartnerSettings(int argc, char** argv, const argp* extension,
                                     void* extension_input) {
    const std::array<argp_child, 2> children = {{{extension, 0, nullptr, 0}, {}}};
    const argp parser = {kOptions.data(), ParseOption, "CHANNEL", kDocumentation,
                         children.data(), nullptr,     nullptr};
    PartnerSettings settings;
    settings.extension_input = extension_input;
    argp_parse(&parser, argc, argv, 0, nullptr, &settings);
    return settings;
}

void RunPartner(PartnerSettings settings) {
    settings.functions.event = [](const PartnerEvent& event) { PrintLine(ToString(event)); };
    Partner partner(settings.channel, settings.functions, settings.faults);
    partner.Join();
    if (settings.held) {
        partner.HoldClientName(*settings.held);
    }
    if (settings.announce) {
        partner.Open();
    }
    ObeyStandardInput(partner);
}

}  // namespace tevrol
