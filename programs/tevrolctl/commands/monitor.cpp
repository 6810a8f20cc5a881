// SPDX-License-Identifier: MIT
// tevrolctl monitor: what happens on the bus, in the channel's own terms.
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstdio>
#include <cstring>
#include <deque>
#include <filesystem>
#include <fstream>
#include <iostream>
#include <map>
#include <memory>
#include <optional>
#include <utility>
#include <vector>

#include "devkit/outside-text.h"
#include "devkit/thread-safety.h"

#include "programs/common/bus.h"
#include "programs/common/command-line.h"
#include "programs/common/failure.h"
#include "programs/common/names.h"
#include "programs/common/output.h"
#include "programs/common/run.h"
#include "programs/tevrolctl/bus/capture.h"
#include "programs/tevrolctl/bus/census.h"
#include "programs/tevrolctl/bus/event.h"
#include "programs/tevrolctl/bus/observer.h"
#include "programs/tevrolctl/commands/commands.h"
#include "programs/tevrolctl/ui/diagram.h"
#include "programs/tevrolctl/ui/text.h"

namespace programs {
namespace {

constexpr const char* kDetails =
    "Shows the channels NAME, or all. Ends on SIGINT, SIGTERM or SIGHUP, or at the end of a\n"
    "recording. Begins with who is there. Who is bound to whom is concluded from the\n"
    "announcements. What goes over a direct link is not on the bus.\n\n"
    "A recording holds one JSON object a line, as --json prints: \"time\" and \"duration\" in\n"
    "microseconds, \"kind\" (owned, released, refused, bound, ready, request, reply, error,\n"
    "notification, malformed, lost, present, active, standby, direct, waiting), \"channel\",\n"
    "\"from\", \"to\", \"role\", \"stage\", \"text\", \"size\", \"hex\" and \"serial\".\n\n"
    "Examples:\n"
    "  tevrolctl monitor\n"
    "  tevrolctl monitor demo --write demo.jsonl --diagram demo.svg\n"
    "  tevrolctl monitor --pcap demo.pcap --kind request --kind reply --summary\n"
    "  tevrolctl monitor --read - --diagram demo.svg <demo.jsonl\n"
    "  tevrolctl monitor --read demo.jsonl --json | jq .kind";

constexpr const char* kStandardInput = "-";

struct PictureSettings {
    std::size_t most = 1000;  // events
    std::chrono::milliseconds from{0};
    std::chrono::milliseconds until{std::chrono::hours(24)};
};

struct Settings {
    std::vector<std::string> channels;  // all where empty
    std::vector<std::string> kinds;
    std::vector<std::string> peers;
    bool json = false;
    bool hex = false;
    bool summary = false;
    std::string source;  // a recording to read; the bus where empty
    std::string recording;
    std::string capture;
    std::string diagram;
    PictureSettings picture;
};

std::string Line(const Event& event, bool hex) {
    std::string line = event.channel + "  " + event.from + " " + Label(event);
    if (!event.to.empty() && event.to != event.from) {
        line += (event.kind == Event::Kind::Lost ? " " : " -> ") + event.to;
    }
    line = tevrol::Printable(line);
    if (HasPayload(event)) {
        line += ": " + (event.size > event.payload.size()
                            ? tevrol::DescribeBeginning(event.payload, event.size)
                            : DescribePayload(event.payload, hex));
    }
    if (!event.text.empty()) {
        line += ": " + tevrol::Printable(event.text);
    }
    if (event.duration > 0) {
        line += " (" + std::string(event.kind == Event::Kind::Released ? "held " : "") +
                Duration(event.duration) + ")";
    }
    return line;
}

const char* ColourOf(const Event& event) {
    if (event.kind == Event::Kind::Owned) {
        return kDim;
    }
    if (event.kind == Event::Kind::Ready) {
        return kGreen;
    }
    if (event.kind == Event::Kind::Lost || event.kind == Event::Kind::Error ||
        event.kind == Event::Kind::Refused || event.kind == Event::Kind::Malformed) {
        return kRed;
    }
    if (event.kind == Event::Kind::Waiting) {
        return kYellow;
    }
    return HasPayload(event) ? kCyan : kPlain;
}

void RequireWritten(bool written, const std::string& path) {
    if (!written) {
        throw Failure(kExitFailed, "cannot write " + path + ": " + strerror(errno));
    }
}

// The file that each event is added to.
class Recording {
public:
    explicit Recording(const std::string& path) : m_path(path), m_file(path) {
        RequireWritten(m_file.good(), m_path);
    }
    void Write(const Event& event) {
        m_file << ToJson(event) + "\n" << std::flush;
        RequireWritten(m_file.good(), m_path);
    }

private:
    const std::string m_path;
    std::ofstream m_file;
};

// The diagram and its file. That is replaced as a whole at the end, so that an earlier one stays
// where that fails. Only a regular file can be replaced; a pipe, for example, is written to.
class Picture {
public:
    Picture(const std::string& path, PictureSettings settings)
        : m_settings(settings),
          m_is_special(std::filesystem::exists(path) && !std::filesystem::is_regular_file(path)),
          m_path(m_is_special
                     ? std::filesystem::path(path)
                     : std::filesystem::weakly_canonical(std::filesystem::absolute(path))) {
        const auto changed = m_is_special ? m_path : m_path.parent_path();
        RequireWritten(access(changed.c_str(), W_OK) == 0, path);
    }

    // Keeps what is drawn of `event`, and the last events only.
    void Take(const Event& event) {
        m_start = m_start == 0 ? event.time : m_start;
        const auto since_start = std::chrono::microseconds(event.time - m_start);
        if (since_start < m_settings.from || since_start > m_settings.until) {
            return;
        }
        Event drawn = event;
        if (drawn.payload.size() > kDrawnBytes) {
            drawn.payload =
                tevrol::Bytes(drawn.payload.begin(), drawn.payload.begin() + kDrawnBytes);
        }
        m_drawn.push_back(std::move(drawn));
        if (m_drawn.size() > m_settings.most) {
            m_drawn.pop_front();
            ++m_left_out;
        }
    }

    bool IsEmpty() const {
        return m_drawn.empty();
    }

    // A long one goes to several files: "demo.svg", "demo-2.svg".
    void Write() const {
        constexpr std::size_t kRows = 200;
        const auto pages = Diagram({m_drawn.begin(), m_drawn.end()},
                                   m_is_special ? m_settings.most : kRows, m_left_out);
        for (std::size_t page = 0; page < pages.size(); ++page) {
            std::filesystem::path path = m_path;
            if (page > 0) {
                path.replace_filename(m_path.stem().string() + "-" + std::to_string(page + 1) +
                                      m_path.extension().string());
            }
            WriteFile(path, pages[page]);
        }
    }

private:
    void WriteFile(const std::filesystem::path& path, const std::string& text) const {
        const std::string beside = path.string() + (m_is_special ? "" : ".new");
        std::ofstream file(beside);
        file << text << std::flush;
        RequireWritten(file.good(), beside);
        RequireWritten(m_is_special || std::rename(beside.c_str(), path.c_str()) == 0, path);
    }

    const PictureSettings m_settings;
    const bool m_is_special;
    const std::filesystem::path m_path;  // behind all links, which stay
    gint64 m_start = 0;
    std::deque<Event> m_drawn;
    std::size_t m_left_out = 0;
};

// What has happened, in numbers.
class Summary {
public:
    void Take(const Event& event) {
        ++m_counts[event.channel][ToString(event.kind)];
        m_bytes[event.channel] += HasPayload(event) ? event.size : 0;
        if (event.kind == Event::Kind::Reply) {
            m_replies[event.channel].push_back(event.duration);
            if (m_replies[event.channel].size() > kMostReplies) {
                m_replies[event.channel].pop_front();
            }
        }
    }

    void Show() {
        for (const auto& [channel, counts] : m_counts) {
            std::string line = channel + ":";
            for (const auto& [kind, count] : counts) {
                line += " " + std::to_string(count) + " " + kind + ",";
            }
            line += " " + std::to_string(m_bytes[channel]) + " bytes of payload" +
                    ReplyTimes(m_replies[channel]);
            PrintError(tevrol::Printable(line));
        }
    }

private:
    static constexpr std::size_t kMostReplies = 10000;

    static std::string ReplyTimes(std::deque<gint64> durations) {
        if (durations.empty()) {
            return "";
        }
        std::sort(durations.begin(), durations.end());
        return "; replies within " + Duration(durations.front()) + " to " +
               Duration(durations.back()) + ", the median " +
               Duration(durations[durations.size() / 2]);
    }

    std::map<std::string, std::map<std::string, int>> m_counts;  // by channel and kind
    std::map<std::string, std::size_t> m_bytes;
    std::map<std::string, std::deque<gint64>> m_replies;
};

// Shows, records and draws events.
class Reporter {
public:
    explicit Reporter(Settings settings) : m_settings(std::move(settings)) {
        if (!m_settings.recording.empty()) {
            m_recording.emplace(m_settings.recording);
        }
        if (!m_settings.capture.empty()) {
            m_capture.emplace(m_settings.capture);
        }
        if (!m_settings.diagram.empty()) {
            m_diagram.emplace(m_settings.diagram, m_settings.picture);
        }
    }

    void Take(const Event& event) {
        if (!IsWanted(m_settings.channels, event.channel) ||
            !IsWanted(m_settings.kinds, ToString(event.kind)) ||
            !(IsWanted(m_settings.peers, event.from) || IsWanted(m_settings.peers, event.to))) {
            return;
        }
        if (m_recording) {
            m_recording->Write(event);
        }
        if (m_diagram) {
            m_diagram->Take(event);
        }
        m_summary.Take(event);
        PrintLine(m_settings.json ? ToJson(event)
                                  : Coloured(kDim, ClockTime(event.time)) + "  " +
                                        Coloured(ColourOf(event), Line(event, m_settings.hex)));
    }

    // Captures a message that is about `channel`.
    void Capture(const std::string& channel, GDBusMessage* message, gint64 time) {
        if (m_capture && !channel.empty() && IsWanted(m_settings.channels, channel)) {
            m_capture->Write(message, time);
        }
    }

    // `broken`: the recording has ended too early. Without any event an earlier picture stays.
    void Finish(bool broken) {
        if (m_diagram && !(broken && m_diagram->IsEmpty())) {
            m_diagram->Write();
        }
        if (m_settings.summary) {
            m_summary.Show();
        }
    }

private:
    static bool IsWanted(const std::vector<std::string>& wanted, const std::string& value) {
        return wanted.empty() || std::find(wanted.begin(), wanted.end(), value) != wanted.end();
    }

    const Settings m_settings;
    std::optional<Recording> m_recording;
    std::optional<programs::Capture> m_capture;
    std::optional<Picture> m_diagram;
    Summary m_summary;
};

// All lines up to one that is broken, if there is one: that is told in the end.
std::optional<Failure> ReadRecording(const std::string& path, Reporter& reporter) {
    std::ifstream file;
    if (path != kStandardInput) {
        file.open(path);
        if (!file) {
            throw Failure(kExitUsage, "cannot read " + path + ": " + strerror(errno));
        }
    }
    std::istream& lines = path == kStandardInput ? std::cin : file;
    std::string line;
    for (int number = 1; std::getline(lines, line); ++number) {
        try {
            reporter.Take(FromJson(line));
        } catch (const Failure& failure) {
            return Failure(kExitFailed, path + ", line " + std::to_string(number) + ": " +
                                            tevrol::Printable(failure.what()));
        }
    }
    return std::nullopt;
}

// A connection that sees what others send. Messages arrive on GDBus's thread and are reported on
// the main one.
class Watch {
public:
    explicit Watch(Reporter& reporter)
        : m_reporter(reporter),
          m_observer([&reporter](const Event& event) { reporter.Take(event); }),
          m_connection(PrivateConnection()) {
        g_dbus_connection_add_filter(m_connection.get(), OnMessage, this, nullptr);
        g_signal_connect(m_connection.get(), "closed", G_CALLBACK(+OnClosed), this);
        BecomeMonitor();
    }

    // Until a signal arrives, or the bus goes.
    void Run() {
        OnSignals([this] { m_over = true; });
        const auto present = TakeCensus();
        PrintError("monitoring");
        for (const Event& event : present) {
            m_observer.TakePresent(event);
        }
        g_timeout_add_seconds(
            1, [](gpointer) -> gboolean { return G_SOURCE_CONTINUE; }, nullptr);
        while (!m_over) {
            TakeArrived();
            m_observer.LookForWaiting(g_get_real_time());
            g_main_context_iteration(nullptr, TRUE);
        }
        TakeArrived();
        if (m_observer.Forgotten() > 0) {
            PrintError(std::to_string(m_observer.Forgotten()) +
                       " calls were too many to wait for: their replies are not shown");
        }
    }
    bool BusIsGone() const {
        return m_closed;
    }

private:
    struct Arrived {
        std::unique_ptr<GDBusMessage, tevrol::GObjectUnref> message;
        gint64 time;
        std::size_t size;
    };

    void BecomeMonitor() {
        const std::string of_driver = std::string("sender='") + kDriver + "'";
        const std::string to_driver =
            std::string("type='method_call',destination='") + kDriver + "',member='";
        const std::vector<std::string> rules = {
            "type='signal'," + of_driver + ",member='NameOwnerChanged'",
            to_driver + "RequestName',arg0namespace='org.ulmar.Tevrol'",
            to_driver + "ReleaseName',arg0namespace='org.ulmar.Tevrol'",
            std::string("interface='") + kInterface + "'",
            std::string("interface='") + kDirectInterface + "'",
            "type='method_return'",
            "type='error'",
        };
        GVariantBuilder builder;
        g_variant_builder_init(&builder, G_VARIANT_TYPE("as"));
        for (const std::string& rule : rules) {
            g_variant_builder_add(&builder, "s", rule.c_str());
        }
        GError* error = nullptr;
        GVariant* reply = g_dbus_connection_call_sync(
            m_connection.get(), kDriver, kDriverPath, "org.freedesktop.DBus.Monitoring",
            "BecomeMonitor", g_variant_new("(asu)", &builder, 0), nullptr, G_DBUS_CALL_FLAGS_NONE,
            -1, nullptr, &error);
        if (reply == nullptr) {
            throw Failure(kExitNoBus, "the bus does not let this user monitor it (root may): " +
                                          tevrol::TakeMessage(error));
        }
        g_variant_unref(reply);
    }

    // Keeps all messages from GDBus, which would answer the calls of others.
    static GDBusMessage* OnMessage(GDBusConnection* connection, GDBusMessage* message,
                                   gboolean incoming, gpointer self) {
        // The answer to BecomeMonitor is for this process.
        if (incoming == FALSE || g_strcmp0(g_dbus_message_get_destination(message),
                                           g_dbus_connection_get_unique_name(connection)) == 0) {
            return message;
        }
        static_cast<Watch*>(self)->Keep(message);
        return nullptr;
    }

    // What waits while the output stalls is bounded.
    void Keep(GDBusMessage* message) {
        constexpr std::size_t kMostBytes = std::size_t{64} << 20;
        constexpr std::size_t kMost = 100000;
        GVariant* body = g_dbus_message_get_body(message);
        const std::size_t size = body == nullptr ? 0 : g_variant_get_size(body);
        Arrived arrived = {std::unique_ptr<GDBusMessage, tevrol::GObjectUnref>(message),
                           g_get_real_time(), size};
        const tevrol::Lock lock(m_mutex);
        if (m_arrived.size() >= kMost || m_waiting_bytes + size > kMostBytes) {
            ++m_dropped;
            return;
        }
        m_waiting_bytes += size;
        m_arrived.push_back(std::move(arrived));
        g_main_context_wakeup(nullptr);
    }

    void TakeArrived() {
        for (;;) {
            std::optional<Arrived> next;
            std::size_t dropped = 0;
            {
                const tevrol::Lock lock(m_mutex);
                if (m_arrived.empty()) {
                    std::swap(dropped, m_dropped);
                } else {
                    next = std::move(m_arrived.front());
                    m_arrived.pop_front();
                    m_waiting_bytes -= next->size;
                }
            }
            if (dropped > 0) {
                PrintError(std::to_string(dropped) +
                           " messages were dropped: the output is taken too slowly");
            }
            if (!next) {
                return;
            }
            const std::string channel = m_observer.Take(next->message.get(), next->time);
            m_reporter.Capture(channel, next->message.get(), next->time);
        }
    }

    static void OnClosed(GDBusConnection*, gboolean, GError*, gpointer self) {
        static_cast<Watch*>(self)->m_closed = true;
        static_cast<Watch*>(self)->m_over = true;
    }

    Reporter& m_reporter;
    Observer m_observer;
    tevrol::Mutex m_mutex;
    std::deque<Arrived> m_arrived TEVROL_GUARDED_BY(m_mutex);
    std::size_t m_waiting_bytes TEVROL_GUARDED_BY(m_mutex) = 0;
    std::size_t m_dropped TEVROL_GUARDED_BY(m_mutex) = 0;
    bool m_over = false;
    bool m_closed = false;
    const Connection m_connection;
};

// A file that is read and written would be emptied first.
void RequireFilesApart(const Settings& settings) {
    const auto same = [](const std::string& one, const std::string& other) {
        std::error_code neither_exists;
        return !one.empty() && !other.empty() &&
               (one == other || (std::filesystem::is_regular_file(one, neither_exists) &&
                                 std::filesystem::equivalent(one, other, neither_exists)));
    };
    const std::vector<std::string> files = {settings.source, settings.recording, settings.capture,
                                            settings.diagram};
    for (auto one = files.begin(); one != files.end(); ++one) {
        if (std::any_of(one + 1, files.end(),
                        [&](const std::string& other) { return same(*one, other); })) {
            throw Failure(kExitUsage,
                          "--read, --write, --pcap and --diagram need files of their own");
        }
    }
}

Settings ParseSettings(int argc, char** argv) {
    Settings settings;
    gboolean json = FALSE;
    gboolean hex = FALSE;
    gboolean summary = FALSE;
    OptionText diagram;
    OptionText recording;
    OptionText capture;
    OptionText read;
    gchar** kinds = nullptr;
    gchar** peers = nullptr;
    gint most = static_cast<gint>(settings.picture.most);
    double from = 0;
    double until = 86400;
    const GOptionEntry entries[] = {
        {"hex", 'x', 0, G_OPTION_ARG_NONE, &hex, "Show payloads in hexadecimal", nullptr},
        {"json", 'j', 0, G_OPTION_ARG_NONE, &json, "Print one JSON object a line", nullptr},
        {"kind", 0, 0, G_OPTION_ARG_STRING_ARRAY, &kinds,
         "Take events of this kind alone; may be repeated", "KIND"},
        {"peer", 0, 0, G_OPTION_ARG_STRING_ARRAY, &peers,
         "Take events of this process alone, by its unique name; may be repeated", "NAME"},
        {"summary", 0, 0, G_OPTION_ARG_NONE, &summary,
         "At the end tell on standard error how much there was", nullptr},
        {"write", 0, 0, G_OPTION_ARG_FILENAME, recording.Place(), "Record to this file", "FILE"},
        {"pcap", 0, 0, G_OPTION_ARG_FILENAME, capture.Place(),
         "Record the messages for Wireshark and Bustle to this file", "FILE"},
        {"read", 'r', 0, G_OPTION_ARG_FILENAME, read.Place(),
         "Show a recording, not the bus; - is standard input", "FILE"},
        {"diagram", 'd', 0, G_OPTION_ARG_FILENAME, diagram.Place(),
         "At the end draw an SVG picture; a long one goes on in FILE-2 and so on", "FILE"},
        {"most", 0, 0, G_OPTION_ARG_INT, &most, "Draw the last so many events (1000)", "COUNT"},
        {"from", 0, 0, G_OPTION_ARG_DOUBLE, &from,
         "Draw from so many seconds after the first event on", "SECONDS"},
        {"until", 0, 0, G_OPTION_ARG_DOUBLE, &until,
         "Draw until so many seconds after the first event", "SECONDS"},
        {}};
    CommandLine line("tevrolctl monitor", "[NAME...]", "Shows what the channels on the bus do.",
                     kDetails);
    line.Add(entries);
    settings.channels = line.Parse(argc, argv, 0, 1000);
    settings.kinds = TakeTexts(kinds);
    settings.peers = TakeTexts(peers);
    for (const std::string& channel : settings.channels) {
        RequireUsableName(channel);
    }
    for (const std::string& kind : settings.kinds) {
        if (!IsKind(kind)) {
            throw Failure(kExitUsage, "no kind of event: " + kind + "; see --help");
        }
    }
    if (most < 1) {
        throw Failure(kExitUsage, "--most needs a number from 1 on");
    }
    settings.picture = {static_cast<std::size_t>(most), Seconds(from), Seconds(until)};
    settings.json = json != FALSE;
    settings.hex = hex != FALSE;
    settings.summary = summary != FALSE;
    settings.source = read.Value();
    settings.recording = recording.Value();
    settings.capture = capture.Value();
    settings.diagram = diagram.Value();
    RequireFilesApart(settings);
    if (capture.Given() && read.Given()) {
        throw Failure(kExitUsage, "a recording holds no messages for --pcap");
    }
    return settings;
}

}  // namespace

int Monitor(int argc, char** argv) {
    Settings settings = ParseSettings(argc, argv);
    const std::string source = settings.source;
    // Never destroyed: GDBus's thread may still bring messages while the process ends.
    static auto& reporter = *new Reporter(std::move(settings));
    bool bus_is_gone = false;
    std::optional<Failure> broken;
    if (source.empty()) {
        static auto& watch = *new Watch(reporter);
        watch.Run();
        bus_is_gone = watch.BusIsGone();
    } else {
        broken = ReadRecording(source, reporter);
    }
    reporter.Finish(broken.has_value());
    if (broken) {
        throw Failure(*broken);
    }
    if (bus_is_gone) {
        throw Failure(kExitNoBus, "the bus has closed the connection");
    }
    return kExitOk;
}

}  // namespace programs
