// SPDX-License-Identifier: MIT
// A private system bus, on which demo, tests and tools run instead of the machine's.
#pragma once

#include <sys/types.h>

#include <string>

#include "devkit/subprocess.h"

namespace tevrol {

// Starts a dbus-daemon with the limits of a stock system bus, and names it in
// DBUS_SYSTEM_BUS_ADDRESS, for this process and its children. It is ready when the constructor
// returns: the daemon has printed its address. It ends with the object, or with the thread that
// constructed it.
class PrivateBus {
public:
    // Allows the user who starts it, and root, everything.
    static const char* const kOpenPolicy;

    // Both arguments are elements of the daemon's configuration: `limits` holds <limit> elements
    // that replace a stock bus's limits, `policy` says who may do what. Throws std::runtime_error
    // when the daemon cannot be started.
    explicit PrivateBus(const std::string& limits = "", const std::string& policy = kOpenPolicy);
    ~PrivateBus();
    PrivateBus(const PrivateBus&) = delete;
    PrivateBus& operator=(const PrivateBus&) = delete;

    const std::string& Address() const {
        return m_address;
    }
    pid_t Pid() const;
    // The temporary folder of the bus. It is removed with the object.
    const std::string& Folder() const {
        return m_folder;
    }

    // Ends the daemon now, as if it had crashed, and waits until it is gone.
    void Kill();
    void Signal(int signal);
    // SIGSTOP, and waits until it has stopped; Signal(SIGCONT) lets it go on.
    void Stop();
    bool IsStopped() const;

private:
    std::string m_folder;  // holds the configuration and the socket
    Subprocess m_daemon;
    std::string m_address;
};

}  // namespace tevrol
