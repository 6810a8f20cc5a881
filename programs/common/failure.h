// SPDX-License-Identifier: MIT
// How the programs end: their exit statuses, and the exception that carries one.
#pragma once

#include <stdexcept>
#include <string>

namespace programs {

enum ExitStatus {
    kExitOk = 0,
    kExitFailed = 1,     // a finding, a failed test, a malformed recording, a notification that was
                         // not taken, or output that cannot be written
    kExitUsage = 2,      // wrong command line, a refused channel name, or unreadable input
    kExitNoBus = 3,      // the bus cannot be reached, is gone, or may not be monitored
    kExitNoPartner = 4,  // none became ready in time, or it was lost
    kExitNoReply = 5,    // a request failed
};
// The same for the help of each command.
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

// Ends a command with a message on standard error.
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

}  // namespace programs
