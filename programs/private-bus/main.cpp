// SPDX-License-Identifier: MIT
// tevrol-private-bus: runs a command with a system bus of its own.
#include <gio/gio.h>

#include <chrono>
#include <csignal>
#include <memory>
#include <stdexcept>
#include <string>
#include <vector>

#include "devkit/subprocess.h"
#include "programs/common/bus.h"
#include "programs/common/failure.h"
#include "programs/common/output.h"
#include "programs/common/run.h"
#include "programs/common/time-limit.h"
#include "programs/common/version.h"

namespace {

constexpr const char* kUsage =
    "Usage: tevrol-private-bus [--] COMMAND [ARGUMENT...]\n"
    "Runs COMMAND with a private system bus, which DBUS_SYSTEM_BUS_ADDRESS names, and ends with\n"
    "its exit status. A shell as COMMAND gives a place to try things: tevrol-private-bus sh\n"
    "\n"
    "Exit status: that of COMMAND; 128 and the signal's number where a signal has ended it, or\n"
    "this program; 127 when it cannot be run, 2 when there is none.\n";

constexpr int kExitCannotRun = 127;

// Gives the command a moment to end in order, when this program ends before it.
void End(GSubprocess* child) {
    constexpr std::chrono::milliseconds kMoment(300);
    const programs::TimeLimit limit(kMoment);
    g_subprocess_send_signal(child, SIGTERM);
    g_subprocess_wait(child, limit.Get(), nullptr);
}

int RunCommand(const std::vector<std::string>& command) {
    programs::StartPrivateBus();
    const auto place = std::make_shared<tevrol::Subprocess>();
    programs::MakeUntilTheEnd(
        [&] { *place = tevrol::StartDyingWithParent(command, G_SUBPROCESS_FLAGS_STDIN_INHERIT); },
        [place] { End(place->get()); });
    GSubprocess* child = place->get();
    g_subprocess_wait(child, nullptr, nullptr);
    if (g_subprocess_get_if_signaled(child)) {
        return 128 + g_subprocess_get_term_sig(child);
    }
    return g_subprocess_get_exit_status(child);
}

int Run(int argc, char** argv) {
    std::vector<std::string> command(argv + 1, argv + argc);
    const std::string first = command.empty() ? "" : command.front();
    if (first == "--help" || first == "-h") {
        programs::Print(kUsage);
        return programs::kExitOk;
    }
    if (first == "--") {
        command.erase(command.begin());
    } else if (first.rfind('-', 0) == 0) {
        throw programs::Failure(programs::kExitUsage, "unknown option: " + first + "\n" + kUsage);
    }
    if (command.empty()) {
        throw programs::Failure(programs::kExitUsage, std::string("no command\n") + kUsage);
    }
    try {
        return RunCommand(command);
    } catch (const std::runtime_error& failure) {
        programs::PrintError(failure.what());
        return kExitCannotRun;
    }
}

}  // namespace

int main(int argc, char** argv) {
    if (programs::PrintVersionIfAsked(argc, argv)) {
        return 0;
    }
    programs::RunToTheEnd(Run, argc, argv);
}
