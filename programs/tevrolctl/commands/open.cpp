// SPDX-License-Identifier: MIT
// tevrolctl open: a channel end at the terminal.
#include <gio/gunixinputstream.h>
#include <unistd.h>

#include <cstdlib>
#include <deque>
#include <memory>

#include "devkit/outside-text.h"
#include "programs/common/bus.h"
#include "programs/common/command-line.h"
#include "programs/common/failure.h"
#include "programs/common/names.h"
#include "programs/common/output.h"
#include "programs/common/payload-argument.h"
#include "programs/tevrolctl/bus/healing-watch.h"
#include "programs/tevrolctl/commands/commands.h"
#include "programs/tevrolctl/commands/end-options.h"
#include "programs/tevrolctl/commands/shell-command.h"
#include "programs/tevrolctl/ui/text.h"

namespace programs {
namespace {

constexpr const char* kDetails =
    "Lines of standard input, done in order:\n"
    "  request PAYLOAD   send a request\n"
    "  notify PAYLOAD    send a notification; it does not wait for unanswered requests\n"
    "  help              show this\n"
    "  quit              end as at the end of standard input\n"
    "PAYLOAD is text, hex: and digits, file: and a path, or text: and text as it is. What comes\n"
    "before the partner waits for it. At the end of standard input the rest is sent, its replies\n"
    "are awaited, and the command ends, with the exit status of the first failure.\n\n"
    "Requests of the partner are answered with an echo, with --answer, or with the output of\n"
    "--exec, a shell command that gets the request on its standard input and has 25 s. While that\n"
    "runs nothing else is received. If it fails, this command says so and ends with 1 at last;\n"
    "the partner gets an error with --as, and what was printed without it.\n\n";

constexpr const char* kExamples =
    "\n\nExamples:\n"
    "  tevrolctl open demo\n"
    "  printf 'request hello\\nnotify bye\\n' | tevrolctl open demo\n"
    "  tevrolctl open --as service --stay --exec 'tr a-z A-Z' demo < /dev/null";

struct Settings {
    std::string channel;
    tevrol::Bytes answer;
    std::string command;
    bool echo = true;
    bool hex = false;
    bool stay = false;
};

// The end at the terminal. All of it runs on the main thread.
class Terminal {
public:
    Terminal(Settings settings, const EndOptions& options)
        : m_settings(std::move(settings)), m_options(options) {}

    int Run() {
        m_end = m_options.Open(
            m_settings.channel,
            {[this](const tevrol::Bytes& request) { return Answer(request); },
             [this](const tevrol::Bytes& bytes) { Show("<-", kCyan, "notification", bytes); },
             [this](bool ready, const std::string& partner) { OnReady(ready, partner); }});
        // The channel listens from here on.
        if (m_options.Role()) {
            Show("--", kDim, std::string("waiting as ") + RoleName() + " of " + m_settings.channel);
            m_watch = std::make_unique<HealingWatch>(*m_end, m_settings.channel, RoleName());
            PostLater(kBetweenLooks, [this] { Look(); });
        } else {
            WatchTheBus();
        }
        m_input.reset(g_data_input_stream_new(std::unique_ptr<GInputStream, tevrol::GObjectUnref>(
                                                  g_unix_input_stream_new(STDIN_FILENO, FALSE))
                                                  .get()));
        ReadLine();
        while (!m_over) {
            g_main_context_iteration(nullptr, TRUE);
        }
        m_end.reset();
        return m_status;
    }

private:
    static constexpr std::chrono::milliseconds kBetweenLooks{50};

    static void Show(const char* direction, const char* colour, const std::string& what) {
        PrintLine(Coloured(kDim, ClockTime(g_get_real_time())) + " " + direction + " " +
                  Coloured(colour, what));
    }
    void Show(const char* direction, const char* colour, const std::string& what,
              const tevrol::Bytes& payload) const {
        Show(direction, colour, what + " " + DescribePayload(payload, m_settings.hex));
    }

    const char* RoleName() const {
        return m_options.Role() == tevrol::Role::Service ? "service" : "client";
    }

    // TevrolDbusRemote does not survive the end of its bus.
    static void WatchTheBus() {
        GDBusConnection* bus = SystemBus();
        const auto closed = +[](GDBusConnection*, gboolean, GError*, gpointer) {
            PrintError("the bus has closed the connection");
            std::exit(kExitNoBus);
        };
        g_signal_connect(bus, "closed", G_CALLBACK(closed), nullptr);
        Show("--", kDim, std::string("waiting as ") + g_dbus_connection_get_unique_name(bus));
    }

    void Look() {
        for (const std::string& news : m_watch->Look()) {
            Show("--", kDim, news);
        }
        PostLater(kBetweenLooks, [this] { Look(); });
    }

    RequestAnswer Answer(const tevrol::Bytes& request) {
        Show("<-", kCyan, "request", request);
        RequestAnswer answer = AnswerTo(request);
        if (!answer.problem.empty()) {
            PrintError("--exec: " + answer.problem);
            Fail(kExitFailed);
        }
        if (answer.problem.empty() || !m_options.Role()) {
            Show("->", kGreen, "answer", answer.payload);
        } else {
            Show("->", kRed, "error " + answer.problem);
        }
        return answer;
    }
    RequestAnswer AnswerTo(const tevrol::Bytes& request) const {
        if (m_settings.command.empty()) {
            return m_settings.echo ? request : m_settings.answer;
        }
        CommandOutcome outcome = RunShellCommand(m_settings.command, request);
        return {std::move(outcome.output),
                outcome.problem.empty() ? "" : "the command " + outcome.problem};
    }

    // Called with the channel's lock held, so the loop sends what waits.
    void OnReady(bool ready, const std::string& partner) {
        Show("--", ready ? kGreen : kRed, (ready ? "ready " : "lost ") + partner);
        m_ready = ready;
        if (m_watch) {
            m_watch->OnReady(ready, partner);
        }
        Post([this] { SendWaiting(); });
    }

    void ReadLine() {
        const auto on_line = [](GObject*, GAsyncResult* result, gpointer self) {
            static_cast<Terminal*>(self)->OnLine(result);
        };
        g_data_input_stream_read_line_async(m_input.get(), G_PRIORITY_DEFAULT, nullptr, on_line,
                                            this);
    }

    void OnLine(GAsyncResult* result) {
        gsize size = 0;
        gchar* line = g_data_input_stream_read_line_finish(m_input.get(), result, &size, nullptr);
        if (line == nullptr) {
            if (!m_settings.stay) {
                OnEnd();
            }
            return;
        }
        const std::string text(line, size);
        g_free(line);
        if (text == "quit") {
            OnEnd();
            return;
        }
        if (text == "help") {
            PrintLine(kDetails);
        } else if (!text.empty()) {
            m_waiting.push_back(text);
            SendWaiting();
        }
        ReadLine();
    }

    void OnEnd() {
        m_ended = true;
        PostLater(m_options.Wait(), [this] { GiveUp(); });
        EndIfDone();
    }

    void GiveUp() {
        if (!m_waiting.empty()) {
            PrintError("no partner: " + std::to_string(m_waiting.size()) + " lines not sent");
            Fail(kExitNoPartner);
            m_over = true;
        }
    }

    void SendWaiting() {
        while (m_ready && !m_waiting.empty()) {
            const std::string line = m_waiting.front();
            m_waiting.pop_front();
            try {
                Obey(line);
            } catch (const Failure& failure) {
                PrintError(failure.what());
                Fail(failure.Status());
            }
        }
        if (!m_waiting.empty() && !m_told_waiting) {
            Show("--", kDim, "no partner yet: what is typed waits for it");
        }
        m_told_waiting = !m_waiting.empty();
        EndIfDone();
    }

    void Obey(const std::string& line) {
        const std::size_t blank = line.find(' ');
        const std::string command = line.substr(0, blank);
        const std::string argument = blank == std::string::npos ? "" : line.substr(blank + 1);
        if (command == "request") {
            Request(ReadPayload(argument));
        } else if (command == "notify") {
            const tevrol::Bytes payload = ReadPayload(argument);
            m_end->Notify(payload);
            Show("->", kGreen, "notification", payload);
        } else {
            throw Failure(kExitUsage, "not understood (request, notify, help or quit): " +
                                          tevrol::Printable(line));
        }
    }

    void Request(const tevrol::Bytes& payload) {
        const std::string number = "#" + std::to_string(++m_requests);
        Show("->", kGreen, "request " + number, payload);
        ++m_unanswered;
        m_end->Request(payload, [this, number](const Outcome& outcome) {
            --m_unanswered;
            const std::string after = " after " + Duration(outcome.duration);
            if (outcome.ok) {
                Show("<-", kCyan, "reply " + number + after, outcome.reply);
            } else {
                Show("<-", kRed, "no reply " + number + after + ": " + outcome.error);
                Fail(kExitNoReply);
            }
            EndIfDone();
        });
    }

    void Fail(ExitStatus status) {
        m_status = m_status == kExitOk ? status : m_status;
    }

    void EndIfDone() {
        if (m_ended && !m_over && m_waiting.empty() && m_unanswered == 0) {
            m_end->Flush();
            m_over = true;
        }
    }

    const Settings m_settings;
    const EndOptions& m_options;
    std::shared_ptr<End> m_end;
    std::unique_ptr<HealingWatch> m_watch;  // with --as
    std::unique_ptr<GDataInputStream, tevrol::GObjectUnref> m_input;
    std::deque<std::string> m_waiting;  // lines that came before the partner
    bool m_told_waiting = false;
    bool m_ready = false;
    bool m_ended = false;  // no more lines will come
    bool m_over = false;
    int m_requests = 0;
    int m_unanswered = 0;
    ExitStatus m_status = kExitOk;
};

}  // namespace

int Open(int argc, char** argv) {
    OptionText answer;
    OptionText command;
    gboolean hex = FALSE;
    gboolean stay = FALSE;
    const GOptionEntry entries[] = {
        {"answer", 'a', 0, G_OPTION_ARG_FILENAME, answer.Place(), "Answer requests with this",
         "PAYLOAD"},
        {"exec", 'e', 0, G_OPTION_ARG_FILENAME, command.Place(), "Answer requests with its output",
         "COMMAND"},
        {"hex", 'x', 0, G_OPTION_ARG_NONE, &hex, "Show payloads in hexadecimal", nullptr},
        {"stay", 0, 0, G_OPTION_ARG_NONE, &stay, "Go on after the end of standard input", nullptr},
        {}};
    CommandLine line("tevrolctl open", "NAME", "A channel end at the terminal.",
                     std::string(kDetails) + kEndHelp + kExamples);
    line.Add(entries);
    // Never destroyed: a channel uses them until the process ends.
    static auto& options =
        *new EndOptions(10, "After the end of standard input wait so long for a partner (10)");
    options.AddTo(line);
    Settings settings;
    settings.channel = line.Parse(argc, argv, 1, 1).front();
    RequireUsableName(settings.channel);
    options.Read();
    if (answer.Given() && command.Given()) {
        throw Failure(kExitUsage, "--answer and --exec exclude each other");
    }
    settings.echo = !answer.Given();
    settings.answer = ReadPayload(answer.Value());
    settings.command = command.Value();
    settings.hex = hex != FALSE;
    settings.stay = stay != FALSE;
    static auto& terminal = *new Terminal(std::move(settings), options);
    return terminal.Run();
}

}  // namespace programs
