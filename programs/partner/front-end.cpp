// SPDX-License-Identifier: MIT
#include "programs/partner/front-end.h"

#include <gio/gunixinputstream.h>
#include <sys/stat.h>
#include <unistd.h>

#include <array>
#include <atomic>
#include <chrono>
#include <cstdlib>
#include <deque>
#include <exception>
#include <future>
#include <memory>
#include <optional>
#include <system_error>
#include <thread>
#include <utility>

#include "devkit/glib.h"
#include "devkit/outside-text.h"
#include "devkit/partner.h"
#include "programs/common/command-line.h"
#include "programs/common/failure.h"
#include "programs/common/names.h"
#include "programs/common/output.h"
#include "programs/common/payload-argument.h"

namespace programs {
namespace {

using tevrol::HandshakeStage;
using tevrol::Partner;
using tevrol::PartnerFaults;
using Moment = PartnerFaults::Moment;

constexpr const char* kSummary =
    "The service end of a channel, for development: announces itself, answers requests with an "
    "echo\nand prints what happens.";

constexpr const char* kDetails =
    "STAGE is syn, syn-ack or ack. MOMENT is before-STAGE, during-STAGE or after-STAGE for its "
    "own\n"
    "announcement of that stage, ready or request.\n\n"
    "Commands, one a line on standard input, done in order (PAYLOAD is text, hex: and digits, "
    "file:\n"
    "and a path, or text: and text as it is):\n"
    "  request PAYLOAD         send a request\n"
    "  notify PAYLOAD          send a notification\n"
    "  notify-wrong-type TEXT  send a notification that holds a string\n"
    "  leave, join             drop the connection, come back and announce\n"
    "  announce STAGE          announce its own name of that stage\n"
    "  hold STAGE              own the other end's name, so that its announcement fails\n"
    "  release STAGE           give it back\n"
    "  quit                    end as at the end of standard input\n"
    "The first three wait for the other end, while this one is on the bus. At the end of standard\n"
    "input it waits for replies and ends, with the exit status of the first failure; where that "
    "is\n"
    "/dev/null, or with --stay, it goes on until a signal or the end of the bus ends it.\n\n"
    "Examples:\n";

template <typename Value, std::size_t N>
using Names = std::array<std::pair<const char*, Value>, N>;

constexpr Names<HandshakeStage, 3> kStages = {{
    {"syn", HandshakeStage::Syn},
    {"syn-ack", HandshakeStage::SynAck},
    {"ack", HandshakeStage::Ack},
}};
constexpr Names<PartnerFaults::Reply, 4> kFaults = {{
    {"never", PartnerFaults::Reply::Never},
    {"late", PartnerFaults::Reply::Late},
    {"error", PartnerFaults::Reply::Error},
    {"wrong-type", PartnerFaults::Reply::WrongType},
}};
constexpr Names<Moment, 11> kMoments = {{
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

template <typename Value, std::size_t N>
std::optional<Value> Find(const Names<Value, N>& names, const std::string& name) {
    for (const auto& [known, value] : names) {
        if (name == known) {
            return value;
        }
    }
    return std::nullopt;
}

// The value of an option, or nothing when it was not given. Throws Failure when it is unknown.
template <typename Value, std::size_t N>
std::optional<Value> ValueOf(const OptionText& option, const char* what,
                             const Names<Value, N>& names) {
    if (!option.Given()) {
        return std::nullopt;
    }
    const auto value = Find(names, option.Value());
    if (!value) {
        throw Failure(kExitUsage, std::string("unknown ") + what + ": " + option.Value());
    }
    return value;
}

struct Settings {
    std::string channel;
    bool announce = true;
    std::optional<tevrol::Bytes> answer;    // an echo where it is missing
    std::chrono::milliseconds patience{0};  // with the other end
    bool stay = false;
    PartnerFaults faults;
    std::optional<HandshakeStage> held;
};

Settings ParseSettings(const std::string& command, int argc, char** argv) {
    gboolean wait = FALSE;
    gboolean stay = FALSE;
    double patience = 10;
    OptionText answer;
    OptionText fault;
    int lateness = 1000;
    OptionText leave;
    OptionText stop;
    OptionText hold;
    const GOptionEntry entries[] = {
        {"wait", 0, 0, G_OPTION_ARG_NONE, &wait, "Announce nothing; wait for the other end's SYN",
         nullptr},
        {"answer", 'a', 0, G_OPTION_ARG_FILENAME, answer.Place(),
         "Answer every request with PAYLOAD instead of an echo", "PAYLOAD"},
        {"fault", 'f', 0, G_OPTION_ARG_FILENAME, fault.Place(),
         "Answer requests: never, late, error or wrong-type", "FAULT"},
        {"lateness", 0, 0, G_OPTION_ARG_INT, &lateness,
         "Delay of --fault=late in milliseconds (1000)", "MS"},
        {"leave", 0, 0, G_OPTION_ARG_FILENAME, leave.Place(),
         "Drop the bus connection at that moment, once", "MOMENT"},
        {"stop", 's', 0, G_OPTION_ARG_FILENAME, stop.Place(),
         "Stop the process (SIGSTOP) at that moment, once", "MOMENT"},
        {"hold", 0, 0, G_OPTION_ARG_FILENAME, hold.Place(),
         "Own the other end's name of that stage from the start", "STAGE"},
        {"stay", 0, 0, G_OPTION_ARG_NONE, &stay, "Go on after the end of standard input", nullptr},
        {"give-up", 0, 0, G_OPTION_ARG_DOUBLE, &patience,
         "A command waits so long for the other end (10)", "SECONDS"},
        {}};
    const std::string examples = "  " + command + " demo\n" + "  " + command +
                                 " --fault=late --lateness=3000 demo\n" +
                                 "  echo 'notify hello' | " + command + " --private-bus demo";
    CommandLine line(command, "NAME", kSummary, kDetails + examples);
    line.Add(entries);
    Settings settings;
    settings.channel = line.Parse(argc, argv, 1, 1).front();
    RequireUsableName(settings.channel);
    settings.announce = wait == FALSE;
    if (answer.Given()) {
        settings.answer = ReadPayload(answer.Value());
    }
    settings.patience = Seconds(patience);
    settings.stay = stay != FALSE;
    if (lateness < 0) {
        throw Failure(kExitUsage, "a lateness must not be negative");
    }
    settings.faults.reply =
        ValueOf(fault, "fault", kFaults).value_or(PartnerFaults::Reply::Correct);
    settings.faults.lateness = std::chrono::milliseconds(lateness);
    settings.faults.leave_at = ValueOf(leave, "moment", kMoments);
    settings.faults.stop_at = ValueOf(stop, "moment", kMoments);
    settings.held = ValueOf(hold, "stage", kStages);
    return settings;
}

// Ends the process when the partner leaves the bus without having been told to.
class BusWatch {
public:
    explicit BusWatch(const Settings& settings) : m_may_leave(settings.faults.leave_at ? 1 : 0) {}

    // The partner leaves once by a command.
    void Allow() {
        ++m_may_leave;
    }
    void OnLeft() {
        if (m_may_leave-- <= 0) {
            PrintError("the bus has closed the connection");
            std::exit(kExitNoBus);
        }
    }

private:
    std::atomic<int> m_may_leave;
};

// Carries out the commands of standard input, in order. On a thread of its own.
class Commands {
public:
    Commands(Partner& partner, const Settings& settings, BusWatch& bus)
        : m_partner(partner), m_settings(settings), m_bus(bus) {}

    // Returns the exit status at the end of the input, if that ends the program.
    ExitStatus ObeyAll() {
        // Not std::cin: exit() of some C libraries waits for a stream that another thread reads.
        const std::unique_ptr<GInputStream, tevrol::GObjectUnref> input(
            g_unix_input_stream_new(STDIN_FILENO, FALSE));
        const std::unique_ptr<GDataInputStream, tevrol::GObjectUnref> lines(
            g_data_input_stream_new(input.get()));
        bool quits = false;
        while (gchar* read =
                   quits ? nullptr
                         : g_data_input_stream_read_line(lines.get(), nullptr, nullptr, nullptr)) {
            const std::string line = tevrol::TakeText(read);
            quits = line == "quit";
            if (!quits && !line.empty()) {
                ObeyOrComplain(line);
            }
        }
        while (!quits && (m_settings.stay || InputIsNowhere())) {
            pause();  // ended by a signal, or by the end of the bus
        }
        for (std::future<bool>& answered : m_answered) {
            if (!answered.get()) {
                Fail(kExitNoReply);
            }
        }
        return m_status;
    }

private:
    // There never were any commands.
    static bool InputIsNowhere() {
        struct stat input {};
        return fstat(STDIN_FILENO, &input) == 0 && S_ISCHR(input.st_mode) &&
               isatty(STDIN_FILENO) == 0;
    }

    void Fail(ExitStatus status) {
        m_status = m_status == kExitOk ? status : m_status;
    }

    void ObeyOrComplain(const std::string& line) {
        const std::size_t blank = line.find(' ');
        const std::string command = line.substr(0, blank);
        const std::string argument = blank == std::string::npos ? "" : line.substr(blank + 1);
        try {
            if (!Send(command, argument) && !Act(command, Find(kStages, argument))) {
                throw Failure(kExitUsage, "not understood: " + tevrol::Printable(line));
            }
        } catch (const Failure& failure) {
            PrintError(failure.what());
            Fail(failure.Status());
        }
    }

    // The commands that need the other end. False when it is none of them.
    bool Send(const std::string& command, const std::string& argument) {
        if (command == "request") {
            Request(ReadPayload(argument));
        } else if (command == "notify") {
            Notify(tevrol::PayloadBody(ReadPayload(argument)));
        } else if (command == "notify-wrong-type") {
            Notify(tevrol::TextBody(argument));
        } else {
            return false;
        }
        return true;
    }

    // The others, which need a stage or nothing.
    bool Act(const std::string& command, const std::optional<HandshakeStage>& stage) {
        if (command == "leave") {
            if (!m_partner.UniqueName().empty()) {
                m_bus.Allow();
            }
            m_partner.Leave();
        } else if (command == "join") {
            m_partner.Join();
            m_partner.Open();
        } else if (command == "announce" && stage) {
            m_partner.Announce(*stage);
        } else if (command == "hold" && stage) {
            PrintLine(m_partner.HoldClientName(*stage) ? "held" : "not held");
        } else if (command == "release" && stage) {
            PrintLine(m_partner.ReleaseClientName(*stage) ? "released" : "not released");
        } else {
            return false;
        }
        return true;
    }

    void AwaitOtherEnd() {
        constexpr std::chrono::milliseconds kLookAgain(2);
        const auto deadline = std::chrono::steady_clock::now() + m_settings.patience;
        if (!m_partner.IsReady() && !m_partner.UniqueName().empty()) {
            PrintLine("waits for the other end");
        }
        while (!m_partner.IsReady() && !m_partner.UniqueName().empty() &&
               std::chrono::steady_clock::now() < deadline) {
            std::this_thread::sleep_for(kLookAgain);
        }
    }

    void Notify(tevrol::Body body) {
        AwaitOtherEnd();
        const bool sent = m_partner.IsReady() && m_partner.Notify(std::move(body));
        PrintLine(sent ? "notified" : "not notified: no partner");
        if (!sent) {
            Fail(kExitNoPartner);
        }
    }

    void Request(const tevrol::Bytes& payload) {
        AwaitOtherEnd();
        if (!m_partner.IsReady()) {
            Fail(kExitNoPartner);
        }
        m_answered.push_back(
            std::async(std::launch::async, [reply = m_partner.Request(payload)]() mutable {
                constexpr std::size_t kShownBytes = std::size_t{1} << 16;
                const tevrol::PartnerReply got = reply.get();
                PrintLine(got.ok ? "reply: " + tevrol::Describe(got.payload, kShownBytes)
                                 : "no reply: " + tevrol::Printable(got.error));
                return got.ok;
            }));
        Forget(m_answered);
    }

    // Of what is over, so that nothing grows but what is under way.
    void Forget(std::deque<std::future<bool>>& answered) {
        while (!answered.empty() &&
               answered.front().wait_for(std::chrono::seconds(0)) == std::future_status::ready) {
            if (!answered.front().get()) {
                Fail(kExitNoReply);
            }
            answered.pop_front();
        }
    }

    Partner& m_partner;
    const Settings& m_settings;
    BusWatch& m_bus;
    std::deque<std::future<bool>> m_answered;
    ExitStatus m_status = kExitOk;
};

ExitStatus Serve(const Settings& settings, BusWatch& bus) {
    Partner::Functions functions;
    functions.event = [&](const tevrol::PartnerEvent& event) {
        PrintLine(ToString(event));
        if (event.kind == tevrol::PartnerEvent::Kind::Left) {
            bus.OnLeft();
        }
    };
    if (settings.answer) {
        functions.answer = [&](const tevrol::Bytes&) { return *settings.answer; };
    }
    Partner partner(settings.channel, functions, settings.faults);
    partner.Join();
    if (settings.held) {
        partner.HoldClientName(*settings.held);
    }
    if (settings.announce) {
        partner.Open();
    }
    const ExitStatus status = Commands(partner, settings, bus).ObeyAll();
    bus.Allow();
    return status;
}

}  // namespace

int RunPartner(const std::string& command, int argc, char** argv) {
    const Settings settings = ParseSettings(command, argc, argv);
    // On a thread of its own, so that signals end the process while the partner waits for the bus.
    BusWatch bus(settings);
    std::promise<ExitStatus> served;
    auto outcome = served.get_future();
    std::thread server([&] {
        try {
            served.set_value(Serve(settings, bus));
        } catch (...) {
            served.set_exception(std::current_exception());
        }
        g_main_context_wakeup(nullptr);
    });
    while (outcome.wait_for(std::chrono::seconds(0)) != std::future_status::ready) {
        g_main_context_iteration(nullptr, TRUE);
    }
    server.join();
    try {
        return outcome.get();
    } catch (const std::system_error& failure) {
        throw Failure(kExitNoBus, failure.what());
    }
}

}  // namespace programs
