// tevrolctl monitor: what happens on the bus, in the channel's own terms.
#include <glib-unix.h>

#include <algorithm>
#include <csignal>
#include <cstring>
#include <fstream>
#include <iostream>
#include <memory>
#include <optional>
#include <vector>

#include "tools/tevrolctl/command-line.h"
#include "tools/tevrolctl/commands.h"
#include "tools/tevrolctl/diagram.h"
#include "tools/tevrolctl/event.h"
#include "tools/tevrolctl/names.h"
#include "tools/tevrolctl/observer.h"

namespace tevrolctl {
namespace {

constexpr const char* kDetails =
    "Shows the channels NAME, or all. Ends on SIGINT or SIGTERM, or at the end of a recording.\n"
    "Who is bound to whom is concluded from the announcements.\n\n"
    "A recording holds one JSON object a line, as --json prints: \"time\" and \"duration\" in\n"
    "microseconds, \"kind\" (owned, released, refused, bound, ready, request, reply, error,\n"
    "notification, malformed, lost), \"channel\", \"from\", \"to\", \"role\", \"stage\", "
    "\"text\",\n"
    "\"size\" and \"hex\".\n\n"
    "Examples:\n"
    "  tevrolctl monitor\n"
    "  tevrolctl monitor demo --write demo.jsonl --diagram demo.svg\n"
    "  tevrolctl monitor --read demo.jsonl --json | jq .kind";

struct Settings {
    std::vector<std::string> channels;  // all where empty
    bool json = false;
    bool hex = false;
    std::string diagram;
    std::string recording;
};

std::string Line(const Event& event, bool hex) {
    std::string line = event.channel + "  " + event.from + " " + Label(event);
    if (!event.to.empty() && event.to != event.from) {
        line += (event.kind == "lost" ? " " : " -> ") + event.to;
    }
    if (HasPayload(event)) {
        line += ": " + DescribePayload(event.payload, hex);
    }
    if (!event.text.empty()) {
        line += ": " + event.text;
    }
    if (event.duration > 0) {
        line += " (" + std::string(event.kind == "released" ? "held " : "") +
                Duration(event.duration) + ")";
    }
    return line;
}

const char* ColourOf(const Event& event) {
    if (event.kind == "owned") {
        return kDim;
    }
    if (event.kind == "ready") {
        return kGreen;
    }
    if (event.kind == "lost" || event.kind == "error" || event.kind == "refused" ||
        event.kind == "malformed") {
        return kRed;
    }
    return HasPayload(event) ? kCyan : kPlain;
}

// A file that is written as a whole or with a message.
class OutputFile {
public:
    explicit OutputFile(const std::string& path) : m_path(path), m_file(path) {
        Require();
    }
    void Write(const std::string& text) {
        m_file << text << std::flush;
        Require();
    }

private:
    void Require() const {
        if (!m_file) {
            throw Failure(kExitFailed, "cannot write " + m_path + ": " + strerror(errno));
        }
    }
    const std::string m_path;
    std::ofstream m_file;
};

// Shows, records and draws events.
class Reporter {
public:
    explicit Reporter(Settings settings) : m_settings(std::move(settings)) {
        if (!m_settings.recording.empty()) {
            m_recording.emplace(m_settings.recording);
        }
        if (!m_settings.diagram.empty()) {
            m_diagram.emplace(m_settings.diagram);
        }
    }

    void Take(const Event& event) {
        const auto& wanted = m_settings.channels;
        if (!wanted.empty() &&
            std::find(wanted.begin(), wanted.end(), event.channel) == wanted.end()) {
            return;
        }
        if (m_recording) {
            m_recording->Write(ToJson(event) + "\n");
        }
        if (m_diagram) {
            m_drawn.push_back(event);
        }
        PrintLine(m_settings.json ? ToJson(event)
                                  : Coloured(kDim, ClockTime(event.time)) + "  " +
                                        Coloured(ColourOf(event), Line(event, m_settings.hex)));
    }

    void Finish() {
        if (m_diagram) {
            m_diagram->Write(Diagram(m_drawn));
        }
    }

private:
    const Settings m_settings;
    std::optional<OutputFile> m_recording;
    std::optional<OutputFile> m_diagram;
    std::vector<Event> m_drawn;
};

void ReadRecording(const std::string& path, Reporter& reporter) {
    std::ifstream file(path);
    if (!file) {
        throw Failure(kExitUsage, "cannot read " + path + ": " + strerror(errno));
    }
    std::string line;
    for (int number = 1; std::getline(file, line); ++number) {
        try {
            reporter.Take(FromJson(line));
        } catch (const Failure& failure) {
            throw Failure(kExitFailed,
                          path + ", line " + std::to_string(number) + ": " + failure.what());
        }
    }
}

// A connection that sees what others send. Messages arrive on GDBus's thread and are reported on
// the main one.
class Watch {
public:
    explicit Watch(Reporter& reporter)
        : m_observer([&reporter](const Event& event) { reporter.Take(event); }),
          m_connection(PrivateConnection()) {
        g_dbus_connection_add_filter(m_connection.get(), OnMessage, this, nullptr);
        g_signal_connect(m_connection.get(), "closed", G_CALLBACK(+OnClosed), this);
        BecomeMonitor();
    }

    // Until a signal arrives, or the bus goes.
    void Run() {
        const auto stop = [](gpointer self) -> gboolean {
            static_cast<Watch*>(self)->m_over = true;
            return G_SOURCE_CONTINUE;
        };
        g_unix_signal_add(SIGINT, stop, this);
        g_unix_signal_add(SIGTERM, stop, this);
        std::cerr << "tevrolctl: monitoring" << std::endl;
        while (!m_over) {
            g_main_context_iteration(nullptr, TRUE);
            if (m_failure) {
                throw Failure(*m_failure);
            }
        }
    }
    bool BusIsGone() const {
        return m_closed;
    }

private:
    struct Arrived {
        Watch* watch;
        GDBusMessage* message;
        gint64 time;
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
                                          TakeMessage(error));
        }
        g_variant_unref(reply);
    }

    // Nothing that arrives is for this process: GDBus would answer the calls of others.
    static GDBusMessage* OnMessage(GDBusConnection* connection, GDBusMessage* message,
                                   gboolean incoming, gpointer self) {
        // Until it is a monitor this is a connection like others, with an answer to wait for.
        if (incoming == FALSE || g_strcmp0(g_dbus_message_get_destination(message),
                                           g_dbus_connection_get_unique_name(connection)) == 0) {
            return message;
        }
        auto* watch = static_cast<Watch*>(self);
        const auto handle = [](gpointer data) -> gboolean {
            const auto* arrived = static_cast<Arrived*>(data);
            arrived->watch->Take(arrived->message, arrived->time);
            return G_SOURCE_REMOVE;
        };
        const auto destroy = [](gpointer data) {
            const std::unique_ptr<Arrived> arrived(static_cast<Arrived*>(data));
            g_object_unref(arrived->message);
        };
        g_idle_add_full(
            G_PRIORITY_DEFAULT, handle,
            new Arrived{watch, G_DBUS_MESSAGE(g_object_ref(message)), g_get_real_time()}, destroy);
        g_object_unref(message);
        return nullptr;
    }

    void Take(GDBusMessage* message, gint64 time) {
        try {
            m_observer.Take(message, time);
        } catch (const Failure& failure) {
            m_failure = failure;  // not through GLib
        }
    }

    static void OnClosed(GDBusConnection*, gboolean, GError*, gpointer self) {
        static_cast<Watch*>(self)->m_closed = true;
        static_cast<Watch*>(self)->m_over = true;
    }

    Observer m_observer;
    bool m_over = false;
    bool m_closed = false;
    std::optional<Failure> m_failure;
    std::unique_ptr<GDBusConnection, tevrol::GObjectUnref> m_connection;
};

}  // namespace

int Monitor(int argc, char** argv) {
    gboolean json = FALSE;
    gboolean hex = FALSE;
    OptionText diagram;
    OptionText recording;
    OptionText read;
    const GOptionEntry entries[] = {
        {"hex", 'x', 0, G_OPTION_ARG_NONE, &hex, "Show payloads in hexadecimal", nullptr},
        {"json", 'j', 0, G_OPTION_ARG_NONE, &json, "Print one JSON object a line", nullptr},
        {"write", 'w', 0, G_OPTION_ARG_FILENAME, recording.Place(), "Record to this file", "FILE"},
        {"read", 'r', 0, G_OPTION_ARG_FILENAME, read.Place(), "Show a recording, not the bus",
         "FILE"},
        {"diagram", 'd', 0, G_OPTION_ARG_FILENAME, diagram.Place(),
         "At the end draw an SVG picture", "FILE"},
        {}};
    CommandLine line("monitor", "[NAME...]", "Shows what the channels on the bus do.", kDetails);
    line.Add(entries);
    Settings settings;
    settings.channels = line.Parse(argc, argv, 0, 1000);
    for (const std::string& channel : settings.channels) {
        RequireUsableName(channel);
    }
    settings.json = json != FALSE;
    settings.hex = hex != FALSE;
    settings.diagram = diagram.Value();
    settings.recording = recording.Value();
    const std::string source = read.Value();
    // Neither ever destroyed: GDBus's thread may still bring messages while the process ends.
    static auto& reporter = *new Reporter(std::move(settings));
    bool bus_is_gone = false;
    if (source.empty()) {
        static auto& watch = *new Watch(reporter);
        watch.Run();
        bus_is_gone = watch.BusIsGone();
    } else {
        ReadRecording(source, reporter);
    }
    reporter.Finish();
    if (bus_is_gone) {
        throw Failure(kExitNoBus, "the bus has closed the connection");
    }
    return kExitOk;
}

}  // namespace tevrolctl
