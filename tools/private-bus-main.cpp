// tevrol-private-bus: runs a command with a system bus of its own.
#include <gio/gio.h>

#include <cstring>
#include <iostream>
#include <stdexcept>
#include <string>
#include <vector>

#include "tools/private-bus.h"

namespace {

constexpr const char* kUsage =
    "Usage: tevrol-private-bus COMMAND [ARGUMENT...]\n"
    "Runs COMMAND with a private system bus, which DBUS_SYSTEM_BUS_ADDRESS names, and ends with\n"
    "its exit status. A shell as COMMAND gives a place to try things: tevrol-private-bus sh\n";

constexpr int kExitUsage = 2;
constexpr int kExitCannotRun = 127;

int RunCommand(const std::vector<std::string>& command) {
    const tevrol::PrivateBus bus;
    const auto child = tevrol::StartDyingWithParent(command, G_SUBPROCESS_FLAGS_STDIN_INHERIT);
    g_subprocess_wait(child.get(), nullptr, nullptr);
    if (g_subprocess_get_if_signaled(child.get())) {
        return 128 + g_subprocess_get_term_sig(child.get());
    }
    return g_subprocess_get_exit_status(child.get());
}

}  // namespace

int main(int argc, char** argv) {
    const std::vector<std::string> command(argv + 1, argv + argc);
    if (command.empty() || command.front() == "--help") {
        (command.empty() ? std::cerr : std::cout) << kUsage;
        return command.empty() ? kExitUsage : 0;
    }
    try {
        return RunCommand(command);
    } catch (const std::runtime_error& failure) {
        std::cerr << "tevrol-private-bus: " << failure.what() << '\n';
        return kExitCannotRun;
    }
}
