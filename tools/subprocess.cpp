#include "tools/subprocess.h"

#include <sys/prctl.h>
#include <sys/wait.h>

#include <csignal>
#include <cstdlib>
#include <stdexcept>

namespace tevrol {

Subprocess StartDyingWithParent(const std::vector<std::string>& arguments, GSubprocessFlags flags,
                                const std::string& error_output) {
    std::vector<const gchar*> argv;
    argv.reserve(arguments.size() + 1);
    for (const auto& argument : arguments) {
        argv.push_back(argument.c_str());
    }
    argv.push_back(nullptr);

    const std::unique_ptr<GSubprocessLauncher, GObjectUnref> launcher(
        g_subprocess_launcher_new(flags));
    const auto die_with_parent = [](gpointer) { prctl(PR_SET_PDEATHSIG, SIGKILL); };
    g_subprocess_launcher_set_child_setup(launcher.get(), die_with_parent, nullptr, nullptr);
    if (!error_output.empty()) {
        g_subprocess_launcher_set_stderr_file_path(launcher.get(), error_output.c_str());
    }
    GError* error = nullptr;
    Subprocess child(g_subprocess_launcher_spawnv(launcher.get(), argv.data(), &error));
    if (!child) {
        const std::string message = error->message;
        g_error_free(error);
        throw std::runtime_error(message);
    }
    return child;
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
