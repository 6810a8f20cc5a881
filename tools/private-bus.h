// A system bus of one's own: what demo, tests and tools run on instead of the machine's.
#pragma once

#include <sys/types.h>

#include <string>

#include "tools/subprocess.h"

namespace tevrol {

// Starts a dbus-daemon with the limits of a stock system bus and a policy that allows its own user
// and root everything, and names it in DBUS_SYSTEM_BUS_ADDRESS, for this process and its
// children. It is ready when the constructor returns: the daemon has printed its address. It ends
// with the object, or with the thread that constructed it.
class PrivateBus {
public:
    // `limits`: elements <limit> of the daemon's configuration, for other limits than a stock
    // bus's. Throws std::runtime_error when the daemon cannot be started.
    explicit PrivateBus(const std::string& limits = "");
    ~PrivateBus();
    PrivateBus(const PrivateBus&) = delete;
    PrivateBus& operator=(const PrivateBus&) = delete;

    const std::string& Address() const {
        return m_address;
    }
    pid_t Pid() const;

    // Ends the daemon now, as if it had crashed, and waits until it is gone.
    void Kill();

private:
    std::string m_folder;  // holds the configuration and the socket
    Subprocess m_daemon;
    std::string m_address;
};

}  // namespace tevrol
