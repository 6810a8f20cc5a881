// What the subcommands share: their command line, exit statuses, output, and the choice of a bus.
#pragma once

#include <gio/gio.h>

#include <chrono>
#include <stdexcept>
#include <string>
#include <vector>

#include "partner/payload.h"
#include "tools/subprocess.h"

namespace tevrolctl {

enum ExitStatus {
    kExitOk = 0,
    kExitFailed = 1,     // a finding, a failed test, a malformed recording, a notification that was
                         // not taken, or output that cannot be written
    kExitUsage = 2,      // wrong command line, a refused channel name, or unreadable input
    kExitNoBus = 3,      // the bus cannot be reached, is gone, or may not be monitored
    kExitNoPartner = 4,  // none became ready in time, or it was lost
    kExitNoReply = 5,    // a request failed
};
// The same for the help of each subcommand.
constexpr const char* kExitStatuses =
    "Exit status:\n"
    "  0  all well\n"
    "  1  a finding, a failed test, a malformed recording, a notification that was\n"
    "     not taken, or output that cannot be written\n"
    "  2  wrong command line, refused channel name, or input that cannot be read\n"
    "  3  no bus, or one that may not be monitored\n"
    "  4  no partner\n"
    "  5  no reply\n"
    "128 and its number when a signal ends it; the monitor then ends with 0.";

// Ends a subcommand with a message on standard error.
class Failure : public std::runtime_error {
public:
    Failure(ExitStatus status, const std::string& what)
        : std::runtime_error(what), m_status(status) {}
    ExitStatus Status() const {
        return m_status;
    }

private:
    ExitStatus m_status;
};

// The text of an option, as GOption hands it out; null when it was not given.
class OptionText {
public:
    OptionText() = default;
    ~OptionText() {
        g_free(m_text);
    }
    OptionText(const OptionText&) = delete;
    OptionText& operator=(const OptionText&) = delete;

    gchar** Place() {
        return &m_text;
    }
    bool Given() const {
        return m_text != nullptr;
    }
    // Empty when it was not given.
    std::string Value() const {
        return m_text == nullptr ? "" : m_text;
    }

private:
    gchar* m_text = nullptr;
};

// The options that pick the bus, in every subcommand.
struct BusOptions {
    gchar* address = nullptr;
    gboolean private_bus = FALSE;
};
constexpr const char* kAddressHelp = "Use the bus at this address, not the system bus";
constexpr const char* kPrivateBusHelp =
    "Start a bus for this command and name its address on standard error";

// Names the chosen bus in the environment. A private one ends with the process.
void ChooseBus(const BusOptions& options);

// One subcommand's options and arguments, by GOption.
class CommandLine {
public:
    // `command` as typed, its `arguments` for the usage line, what it does, and further help.
    CommandLine(const char* command, const char* arguments, const char* summary,
                const std::string& details);
    ~CommandLine();
    CommandLine(const CommandLine&) = delete;
    CommandLine& operator=(const CommandLine&) = delete;

    // `entries` end with an empty one; what they point to is filled in by Parse().
    void Add(const GOptionEntry* entries);
    // Returns the arguments, as many as `least` to `most`, after the bus was chosen. Throws
    // Failure.
    std::vector<std::string> Parse(int argc, char** argv, std::size_t least, std::size_t most);

private:
    GOptionContext* const m_context;
    const std::string m_help_hint;
    BusOptions m_bus;
};

// The connection that the whole process shares, also the library's; its end does not end the
// process. Throws Failure.
GDBusConnection* SystemBus();
// A connection of one's own. Throws Failure.
std::unique_ptr<GDBusConnection, tevrol::GObjectUnref> PrivateConnection();

// Takes the message out of `error` and frees it.
std::string TakeMessage(GError* error);

// Leads what others print on standard output (the library does, in two places) to standard error:
// from here on only Print() reaches standard output.
void KeepOutputClean();
// Writes all of `text` at once. Ends the process with a message when that fails. Main thread.
void Print(const std::string& text);
void PrintLine(const std::string& line);

// Whether Print() may colour.
bool OutputMayColour();
constexpr const char* kDim = "\033[2m";
constexpr const char* kRed = "\033[31m";
constexpr const char* kGreen = "\033[32m";
constexpr const char* kYellow = "\033[33m";
constexpr const char* kCyan = "\033[36m";
constexpr const char* kPlain = "\033[0m";
std::string Coloured(const char* colour, const std::string& text);

// "12:34:56.789", local time, of microseconds since the epoch.
std::string ClockTime(gint64 microseconds);
// "0.42 ms" or "1.50 s".
std::string Duration(gint64 microseconds);
// The payload for a line: text where it is plain, or always as hexadecimal digits.
std::string DescribePayload(const tevrol::Bytes& payload, bool hex);

// What a payload argument stands for: text, "hex:" and digits, "file:" and a path. Throws Failure.
tevrol::Bytes ReadPayload(const std::string& typed);

// Seconds as typed for an option. Throws Failure when negative.
std::chrono::milliseconds Seconds(double seconds);

// Ends the process with 128 and the signal's number when SIGINT or SIGTERM arrives and the main
// loop runs.
void EndOnSignals();

}  // namespace tevrolctl
