// SPDX-License-Identifier: MIT
#include "devkit/subprocess.h"

#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <csignal>
#include <cstdlib>
#include <stdexcept>

namespace tevrol {

namespace {

Subprocess Start(const std::vector<std::string>& arguments, GSubprocessFlags flags,
                 GSpawnChildSetupFunc set_up, const std::string& error_output) {
    std::vector<const gchar*> argv;
    argv.reserve(arguments.size() + 1);
    for (const auto& argument : arguments) {
        argv.push_back(argument.c_str());
    }
    argv.push_back(nullptr);

    const std::unique_ptr<GSubprocessLauncher, GObjectUnref> launcher(
        g_subprocess_launcher_new(flags));
    g_subprocess_launcher_set_child_setup(launcher.get(), set_up, nullptr, nullptr);
    if (!error_output.empty()) {
        g_subprocess_launcher_set_stderr_file_path(launcher.get(), error_output.c_str());
    }
    GError* error = nullptr;
    Subprocess child(g_subprocess_launcher_spawnv(launcher.get(), argv.data(), &error));
    if (!child) {
        throw std::runtime_error(TakeMessage(error));
    }
    return child;
}

}  // namespace

Subprocess StartDyingWithParent(const std::vector<std::string>& arguments, GSubprocessFlags flags,
                                const std::string& error_output) {
    const auto die_with_parent = [](gpointer) { prctl(PR_SET_PDEATHSIG, SIGKILL); };
    return Start(arguments, flags, die_with_parent, error_output);
}

Subprocess StartGroupDyingWithParent(const std::vector<std::string>& arguments,
                                     GSubprocessFlags flags) {
    const auto lead_and_die_with_parent = [](gpointer) {
        prctl(PR_SET_PDEATHSIG, SIGKILL);
        setpgid(0, 0);
    };
    return Start(arguments, flags, lead_and_die_with_parent, "");
}

pid_t PidOf(GSubprocess* child) {
    const gchar* pid = g_subprocess_get_identifier(child);
    return pid == nullptr ? 0 : static_cast<pid_t>(std::atoi(pid));
}

void AwaitStop(GSubprocess* child) {
    siginfo_t info{};
    waitid(P_PID, static_cast<id_t>(PidOf(child)), &info, WSTOPPED | WNOWAIT);
}

bool IsStopped(GSubprocess* child) {
    siginfo_t info{};
    const pid_t pid = PidOf(child);
    return pid != 0 &&
           waitid(P_PID, static_cast<id_t>(pid), &info, WSTOPPED | WNOHANG | WNOWAIT) == 0 &&
           info.si_pid == pid;
}

}  // namespace tevrol
