// SPDX-License-Identifier: MIT
#include "programs/common/run.h"

#include <fcntl.h>
#include <glib.h>
#include <langinfo.h>
#include <poll.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <clocale>
#include <csignal>
#include <cstdlib>
#include <cstring>
#include <exception>
#include <future>
#include <memory>
#include <thread>
#include <utility>
#include <vector>

#include "devkit/thread-safety.h"
#include "programs/common/failure.h"
#include "programs/common/output.h"
#include "programs/common/version.h"

namespace programs {
namespace {

constexpr int kWithoutLimit = -1;
constexpr int kTimeToEndInOrderMs = 700;

int StatusOf(Command command, int argc, char** argv) {
    if (PrintVersionIfAsked(argc, argv)) {
        return kExitOk;
    }
    try {
        return command(argc, argv);
    } catch (const Failure& failure) {
        PrintError(failure.what());
        return failure.Status();
    } catch (const std::exception& failure) {
        PrintError(failure.what());
        return kExitFailed;
    }
}

// So that GLib takes what is typed, and prints its help, as UTF-8. A device often names no locale.
void UseTheLocalesCharacters() {
    setlocale(LC_CTYPE, "");
    if (strcmp(nl_langinfo(CODESET), "ANSI_X3.4-1968") == 0) {
        setlocale(LC_CTYPE, "C.UTF-8");
    }
}

// ---- The end ----

tevrol::Mutex g_cleanups_mutex;  // held while they run, so that nobody ends the process meanwhile
std::vector<std::function<void()>> g_cleanups TEVROL_GUARDED_BY(g_cleanups_mutex);

void RunCleanups() TEVROL_THREAD_ATTRIBUTE(requires_capability(g_cleanups_mutex)) {
    while (!g_cleanups.empty()) {
        const std::function<void()> cleanup = std::move(g_cleanups.back());
        g_cleanups.pop_back();
        cleanup();
    }
}

void CleanUp() {
    const tevrol::Lock lock(g_cleanups_mutex);
    RunCleanups();
}

// Other threads go on meanwhile. None of them ends the process with another status, and what they
// complain of, like the private bus that has gone, is no news.
[[noreturn]] void EndNow(int status) {
    const tevrol::Lock lock(g_cleanups_mutex);
    const int nowhere = open("/dev/null", O_WRONLY | O_CLOEXEC);
    dup2(nowhere, STDERR_FILENO);
    RunCleanups();
    _exit(status);
}

// ---- Signals ----

tevrol::Mutex g_in_order_mutex;
std::function<void()> g_in_order TEVROL_GUARDED_BY(g_in_order_mutex);

int g_caught = -1;  // the end of a pipe to which a handler writes the signals' numbers

void OnSignal(int signal) {
    const int error = errno;
    const auto number = static_cast<unsigned char>(signal);
    [[maybe_unused]] const ssize_t written = write(g_caught, &number, 1);
    errno = error;
}

// The number of the next signal, or 0 when none comes within `limit_ms`.
int AwaitSignal(int caught, int limit_ms) {
    pollfd waiting = {caught, POLLIN, 0};
    unsigned char number = 0;
    while (poll(&waiting, 1, limit_ms) < 0 && errno == EINTR) {
    }
    if ((waiting.revents & POLLIN) == 0) {
        return 0;
    }
    return read(caught, &number, 1) == 1 ? number : 0;
}

// Has the main loop end the process; false when it cannot.
bool EndInOrder() {
    const tevrol::Lock lock(g_in_order_mutex);
    if (!g_in_order) {
        return false;
    }
    const auto call = [](gpointer function) -> gboolean {
        (*static_cast<std::function<void()>*>(function))();
        return G_SOURCE_REMOVE;
    };
    const auto destroy = [](gpointer function) {
        delete static_cast<std::function<void()>*>(function);
    };
    g_idle_add_full(G_PRIORITY_HIGH, call, new std::function<void()>(g_in_order), destroy);
    return true;
}

// The main thread may wait for anything, so that another one sees to the end.
[[noreturn]] void EndOnSignal(int caught) {
    int number = AwaitSignal(caught, kWithoutLimit);
    if (EndInOrder()) {
        AwaitSignal(caught, kTimeToEndInOrderMs);
    }
    EndNow(128 + number);
}

bool IsIgnored(int signal) {
    struct sigaction current {};
    return sigaction(signal, nullptr, &current) == 0 && current.sa_handler == SIG_IGN;
}

void EndOnSignals() {
    std::array<int, 2> ends{};
    if (pipe2(ends.data(), O_CLOEXEC) != 0) {
        throw Failure(kExitFailed, std::string("no pipe for signals: ") + strerror(errno));
    }
    g_caught = ends[1];
    // It has begun before this goes on: LeakSanitizer takes what a thread that begins has allocated
    // for a leak when the process ends at that moment.
    const auto begun = std::make_shared<std::promise<void>>();
    std::thread([begun, caught = ends[0]] {
        begun->set_value();
        EndOnSignal(caught);
    }).detach();
    begun->get_future().wait();
    for (const int signal : {SIGINT, SIGTERM, SIGHUP}) {
        if (signal != SIGHUP || !IsIgnored(signal)) {
            struct sigaction action {};
            action.sa_handler = OnSignal;
            action.sa_flags = SA_RESTART;
            sigaction(signal, &action, nullptr);
        }
    }
}

}  // namespace

void RunToTheEnd(Command command, int argc, char** argv) {
    UseTheLocalesCharacters();
    std::signal(SIGPIPE, SIG_IGN);  // a closed pipe is an error like others
    std::atexit(CleanUp);
    try {
        EndOnSignals();
    } catch (const std::exception& failure) {
        PrintError(failure.what());
        std::exit(kExitFailed);
    }
    // exit() destroys static objects, but not the local objects of threads that still run.
    std::exit(StatusOf(command, argc, argv));
}

void MakeUntilTheEnd(const std::function<void()>& make, std::function<void()> cleanup) {
    const tevrol::Lock lock(g_cleanups_mutex);
    make();
    g_cleanups.push_back(std::move(cleanup));
}

void OnSignals(std::function<void()> in_order) {
    const tevrol::Lock lock(g_in_order_mutex);
    g_in_order = std::move(in_order);
}

}  // namespace programs
