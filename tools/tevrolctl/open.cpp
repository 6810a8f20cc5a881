// tevrolctl open: a channel end at the terminal.
#include <gio/gunixinputstream.h>
#include <unistd.h>

#include <algorithm>
#include <memory>

#include "tools/tevrolctl/channel-end.h"
#include "tools/tevrolctl/commands.h"
#include "tools/tevrolctl/names.h"

namespace tevrolctl {
namespace {

constexpr const char* kDetails =
    "Lines of standard input:\n"
    "  request PAYLOAD   send a request\n"
    "  notify PAYLOAD    send a notification; it does not wait for unanswered requests\n"
    "  quit              end\n"
    "PAYLOAD is text, hex: and digits, or file: and a path. What comes before the partner waits\n"
    "for it. At the end of standard input the rest is sent, its replies are awaited, and the\n"
    "command ends, with the exit status of the first failure.\n\n"
    "Requests of the partner are answered with an echo, with --answer, or with the output of\n"
    "--exec, a shell command that gets the request on its standard input. While that runs nothing\n"
    "else is received.\n\n"
    "Examples:\n"
    "  tevrolctl open demo\n"
    "  printf 'request hello\\nnotify bye\\n' | tevrolctl open demo\n"
    "  tevrolctl open --stay --exec 'tr a-z A-Z' demo < /dev/null";

struct Settings {
    std::string channel;
    std::string answer;
    std::string command;
    bool echo = true;
    bool hex = false;
    bool stay = false;
    std::chrono::milliseconds wait{0};
};

tevrol::Bytes OutputOf(const std::string& command, const tevrol::Bytes& input) {
    const auto child = tevrol::StartDyingWithParent(
        {"/bin/sh", "-c", command}, static_cast<GSubprocessFlags>(G_SUBPROCESS_FLAGS_STDIN_PIPE |
                                                                  G_SUBPROCESS_FLAGS_STDOUT_PIPE));
    GBytes* given = g_bytes_new(input.data(), input.size());
    GBytes* printed = nullptr;
    g_subprocess_communicate(child.get(), given, nullptr, &printed, nullptr, nullptr);
    g_bytes_unref(given);
    tevrol::Bytes output;
    if (printed != nullptr) {
        gsize size = 0;
        const auto* data = static_cast<const char*>(g_bytes_get_data(printed, &size));
        output.assign(data, data + size);
        g_bytes_unref(printed);
    }
    return output;
}

// The end at the terminal. All of it on the main thread.
class Terminal {
public:
    explicit Terminal(Settings settings)
        : m_settings(std::move(settings)), m_fixed_answer(ReadPayload(m_settings.answer)) {}

    int Run() {
        GDBusConnection* bus = SystemBus();
        KeepOutputClean();
        EndOnSignals();
        const auto closed = +[](GDBusConnection*, gboolean, GError*, gpointer) {
            fprintf(stderr, "tevrolctl: the bus has closed the connection\n");
            std::exit(kExitNoBus);
        };
        g_signal_connect(bus, "closed", G_CALLBACK(closed), nullptr);
        Show("--", kDim, std::string("waiting as ") + g_dbus_connection_get_unique_name(bus));
        m_channel = new ChannelEnd(
            m_settings.channel,
            {[this](const tevrol::Bytes& request) { return Answer(request); },
             [this](const tevrol::Bytes& bytes) { Show("<-", kCyan, "notification", bytes); },
             [this](bool ready, const std::string& partner) { OnReady(ready, partner); }});
        m_input.reset(g_data_input_stream_new(std::unique_ptr<GInputStream, tevrol::GObjectUnref>(
                                                  g_unix_input_stream_new(STDIN_FILENO, FALSE))
                                                  .get()));
        ReadLine();
        while (!m_over) {
            g_main_context_iteration(nullptr, TRUE);
        }
        return m_status;
    }

private:
    static void Show(const char* direction, const char* colour, const std::string& what) {
        PrintLine(Coloured(kDim, ClockTime(g_get_real_time())) + " " + direction + " " +
                  Coloured(colour, what));
    }
    void Show(const char* direction, const char* colour, const std::string& what,
              const tevrol::Bytes& payload) const {
        Show(direction, colour, what + " " + DescribePayload(payload, m_settings.hex));
    }

    tevrol::Bytes Answer(const tevrol::Bytes& request) const {
        Show("<-", kCyan, "request", request);
        tevrol::Bytes answer = !m_settings.command.empty() ? OutputOf(m_settings.command, request)
                               : m_settings.echo           ? request
                                                           : m_fixed_answer;
        Show("->", kGreen, "answer", answer);
        return answer;
    }

    // Called with the channel's lock held: what waits is sent from the loop.
    void OnReady(bool ready, const std::string& partner) {
        Show("--", ready ? kGreen : kRed, (ready ? "ready " : "lost ") + partner);
        m_ready = ready;
        const auto send_waiting = [](gpointer self) -> gboolean {
            static_cast<Terminal*>(self)->SendWaiting();
            return G_SOURCE_REMOVE;
        };
        g_idle_add(send_waiting, this);
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
            OnEnd();
            return;
        }
        const std::string text(line, size);
        g_free(line);
        if (text == "quit") {
            m_over = true;
            return;
        }
        if (!text.empty()) {
            m_waiting.push_back(text);
            SendWaiting();
        }
        ReadLine();
    }

    void OnEnd() {
        if (m_settings.stay) {
            return;
        }
        m_ended = true;
        const auto give_up = [](gpointer self) -> gboolean {
            static_cast<Terminal*>(self)->GiveUp();
            return G_SOURCE_REMOVE;
        };
        g_timeout_add(static_cast<guint>(m_settings.wait.count()), give_up, this);
        EndIfDone();
    }

    void GiveUp() {
        if (!m_waiting.empty()) {
            fprintf(stderr, "tevrolctl: no partner: %zu lines not sent\n", m_waiting.size());
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
                fprintf(stderr, "tevrolctl: %s\n", failure.what());
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
            m_channel->Notify(payload);
            Show("->", kGreen, "notification", payload);
        } else {
            throw Failure(kExitUsage, "not understood (request, notify or quit): " + line);
        }
    }

    void Request(const tevrol::Bytes& payload) {
        const std::string number = "#" + std::to_string(++m_requests);
        Show("->", kGreen, "request " + number, payload);
        ++m_unanswered;
        m_channel->Request(payload, [this, number](const Outcome& outcome) {
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
        if (m_ended && m_waiting.empty() && m_unanswered == 0) {
            GDBusConnection* bus = SystemBus();
            g_dbus_connection_flush_sync(bus, nullptr, nullptr);
            g_object_unref(bus);
            m_over = true;
        }
    }

    const Settings m_settings;
    const tevrol::Bytes m_fixed_answer;
    ChannelEnd* m_channel = nullptr;  // never destroyed
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
    gboolean verbose = FALSE;
    double wait = 10;
    const GOptionEntry entries[] = {
        {"answer", 'a', 0, G_OPTION_ARG_STRING, answer.Place(), "Answer requests with this",
         "PAYLOAD"},
        {"exec", 'e', 0, G_OPTION_ARG_STRING, command.Place(), "Answer requests with its output",
         "COMMAND"},
        {"hex", 'x', 0, G_OPTION_ARG_NONE, &hex, "Show payloads in hexadecimal", nullptr},
        {"stay", 0, 0, G_OPTION_ARG_NONE, &stay, "Go on after the end of standard input", nullptr},
        {"wait", 'w', 0, G_OPTION_ARG_DOUBLE, &wait,
         "After the end of standard input wait so long for a partner (10)", "SECONDS"},
        {"verbose", 'v', 0, G_OPTION_ARG_NONE, &verbose, "Show the library's log", nullptr},
        {}};
    CommandLine line("open", "NAME", "A channel end at the terminal.", kDetails);
    line.Add(entries);
    Settings settings;
    settings.channel = line.Parse(argc, argv, 1, 1).front();
    RequireUsableName(settings.channel);
    if (answer.Given() && command.Given()) {
        throw Failure(kExitUsage, "--answer and --exec exclude each other");
    }
    settings.echo = !answer.Given();
    settings.answer = answer.Value();
    settings.command = command.Value();
    settings.hex = hex != FALSE;
    settings.stay = stay != FALSE;
    settings.wait = Seconds(wait);
    ShowLog(verbose != FALSE);
    // Never destroyed, as the channel calls it until the process ends.
    static auto& terminal = *new Terminal(std::move(settings));
    return terminal.Run();
}

}  // namespace tevrolctl
