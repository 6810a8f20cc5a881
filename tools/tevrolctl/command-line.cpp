#include "tools/tevrolctl/command-line.h"

#include <glib-unix.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <iostream>
#include <memory>

#include "tools/colour.h"
#include "tools/private-bus.h"

namespace tevrolctl {
namespace {

int g_output = STDOUT_FILENO;

}  // namespace

// ---- Command line ----

CommandLine::CommandLine(const char* command, const char* arguments, const char* summary,
                         const std::string& details)
    : m_context(g_option_context_new(arguments)),
      m_help_hint(std::string("; see tevrolctl ") + command + " --help") {
    g_set_prgname((std::string("tevrolctl ") + command).c_str());
    g_option_context_set_summary(m_context, summary);
    g_option_context_set_description(m_context, (details + "\n\n" + kExitStatuses + "\n").c_str());
    const GOptionEntry bus[] = {
        {"address", 0, 0, G_OPTION_ARG_STRING, &m_bus.address, kAddressHelp, "ADDRESS"},
        {"private-bus", 0, 0, G_OPTION_ARG_NONE, &m_bus.private_bus, kPrivateBusHelp, nullptr},
        {}};
    Add(bus);
}

CommandLine::~CommandLine() {
    g_option_context_free(m_context);
    g_free(m_bus.address);
}

void CommandLine::Add(const GOptionEntry* entries) {
    g_option_context_add_main_entries(m_context, entries, nullptr);
}

std::vector<std::string> CommandLine::Parse(int argc, char** argv, std::size_t least,
                                            std::size_t most) {
    GError* error = nullptr;
    if (g_option_context_parse(m_context, &argc, &argv, &error) == FALSE) {
        throw Failure(kExitUsage, TakeMessage(error) + m_help_hint);
    }
    std::vector<std::string> arguments(argv + 1, argv + argc);
    // GOption leaves the "--" that ends the options where it stands before an argument with a dash.
    if (!arguments.empty() && arguments.front() == "--") {
        arguments.erase(arguments.begin());
    }
    if (arguments.size() < least || arguments.size() > most) {
        throw Failure(
            kExitUsage,
            (arguments.size() < least ? "too few arguments" : "too many arguments") + m_help_hint);
    }
    ChooseBus(m_bus);
    return arguments;
}

// ---- Bus ----

void ChooseBus(const BusOptions& options) {
    if (options.address != nullptr && options.private_bus != FALSE) {
        throw Failure(kExitUsage, "--address and --private-bus exclude each other");
    }
    if (options.address != nullptr) {
        setenv("DBUS_SYSTEM_BUS_ADDRESS", options.address, 1);
    }
    if (options.private_bus != FALSE) {
        try {
            static const tevrol::PrivateBus bus;
            std::cerr << "private bus: --address '" << bus.Address() << "'" << std::endl;
        } catch (const std::runtime_error& failure) {
            throw Failure(kExitNoBus, failure.what());
        }
    }
}

std::string TakeMessage(GError* error) {
    std::string message = error == nullptr ? "unknown error" : error->message;
    g_clear_error(&error);
    return message;
}

GDBusConnection* SystemBus() {
    GError* error = nullptr;
    GDBusConnection* connection = g_bus_get_sync(G_BUS_TYPE_SYSTEM, nullptr, &error);
    if (connection == nullptr) {
        throw Failure(kExitNoBus, "no bus: " + TakeMessage(error));
    }
    g_dbus_connection_set_exit_on_close(connection, FALSE);
    return connection;
}

std::unique_ptr<GDBusConnection, tevrol::GObjectUnref> PrivateConnection() {
    GError* error = nullptr;
    gchar* address = g_dbus_address_get_for_bus_sync(G_BUS_TYPE_SYSTEM, nullptr, &error);
    GDBusConnection* connection = nullptr;
    if (address != nullptr) {
        connection = g_dbus_connection_new_for_address_sync(
            address,
            static_cast<GDBusConnectionFlags>(G_DBUS_CONNECTION_FLAGS_AUTHENTICATION_CLIENT |
                                              G_DBUS_CONNECTION_FLAGS_MESSAGE_BUS_CONNECTION),
            nullptr, nullptr, &error);
        g_free(address);
    }
    if (connection == nullptr) {
        throw Failure(kExitNoBus, "no bus: " + TakeMessage(error));
    }
    return std::unique_ptr<GDBusConnection, tevrol::GObjectUnref>(connection);
}

// ---- Output ----

void KeepOutputClean() {
    g_output = dup(STDOUT_FILENO);
    dup2(STDERR_FILENO, STDOUT_FILENO);
}

void Print(const std::string& text) {
    std::size_t written = 0;
    while (written < text.size()) {
        const ssize_t result = write(g_output, text.data() + written, text.size() - written);
        if (result < 0 && errno != EINTR) {
            std::cerr << "tevrolctl: cannot write to standard output: " << strerror(errno)
                      << std::endl;
            std::exit(kExitFailed);
        }
        written += result < 0 ? 0 : static_cast<std::size_t>(result);
    }
}

void PrintLine(const std::string& line) {
    Print(line + "\n");
}

bool OutputMayColour() {
    return tevrol::MayColour(g_output);
}

std::string Coloured(const char* colour, const std::string& text) {
    return OutputMayColour() ? colour + text + kPlain : text;
}

std::string ClockTime(gint64 microseconds) {
    GDateTime* time = g_date_time_new_from_unix_local(microseconds / G_USEC_PER_SEC);
    gchar* clock = g_date_time_format(time, "%H:%M:%S");
    gchar* text =
        g_strdup_printf("%s.%03d", clock, static_cast<int>(microseconds % G_USEC_PER_SEC / 1000));
    std::string result = text;
    g_free(text);
    g_free(clock);
    g_date_time_unref(time);
    return result;
}

std::string Duration(gint64 microseconds) {
    const bool long_one = microseconds >= G_USEC_PER_SEC;
    gchar* text = g_strdup_printf(
        "%.2f %s", static_cast<double>(microseconds) / (long_one ? G_USEC_PER_SEC : 1000),
        long_one ? "s" : "ms");
    std::string result = text;
    g_free(text);
    return result;
}

std::string DescribePayload(const tevrol::Bytes& payload, bool hex) {
    return hex ? tevrol::DescribeInHex(payload) : tevrol::Describe(payload);
}

// ---- Values ----

tevrol::Bytes ReadPayload(const std::string& typed) {
    const std::string mark = "file:";
    if (typed.compare(0, mark.size(), mark) == 0) {
        const std::string path = typed.substr(mark.size());
        gchar* content = nullptr;
        gsize size = 0;
        GError* error = nullptr;
        if (g_file_get_contents(path.c_str(), &content, &size, &error) == FALSE) {
            throw Failure(kExitUsage, TakeMessage(error));
        }
        tevrol::Bytes bytes(content, content + size);
        g_free(content);
        return bytes;
    }
    auto payload = tevrol::ParsePayload(typed);
    if (!payload) {
        throw Failure(kExitUsage, "no even number of hexadecimal digits: " + typed);
    }
    return *payload;
}

std::chrono::milliseconds Seconds(double seconds) {
    constexpr double kMost = 86400;
    if (!(seconds >= 0 && seconds <= kMost)) {
        throw Failure(kExitUsage, "a time must be from 0 to 86400 seconds");
    }
    return std::chrono::milliseconds(static_cast<int>(seconds * 1000));
}

void EndOnSignals() {
    for (const int signal : {SIGINT, SIGTERM}) {
        g_unix_signal_add(
            signal, [](gpointer number) -> gboolean { std::exit(128 + GPOINTER_TO_INT(number)); },
            GINT_TO_POINTER(signal));
    }
}

}  // namespace tevrolctl
