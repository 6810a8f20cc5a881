// SPDX-License-Identifier: MIT
// The partner program as a child process, which can be stopped and killed.
#pragma once

#include <optional>
#include <string>
#include <thread>
#include <vector>

#include "devkit/subprocess.h"
#include "devkit/thread-safety.h"

namespace tevrol {

class PartnerProcess {
public:
    // Starts `program` (the path of tevrol-partner) for `channel`. Throws std::runtime_error.
    PartnerProcess(const std::string& program, const std::string& channel,
                   const std::vector<std::string>& options = {});
    // Starts any program that reads and prints lines.
    explicit PartnerProcess(const std::vector<std::string>& arguments);
    // Kills it if it still runs.
    ~PartnerProcess();
    PartnerProcess(const PartnerProcess&) = delete;
    PartnerProcess& operator=(const PartnerProcess&) = delete;

    // Gives it one line of standard input.
    void Command(const std::string& line);
    // Sends a signal.
    void Signal(int signal);
    // Waits until it has ended. Returns its exit status, or -1 when a signal has ended it.
    int Wait();
    bool HasEnded() const;
    // SIGKILL, and waits until it is gone.
    void Kill();
    // SIGSTOP, and waits until it has stopped; Signal(SIGCONT) lets it go on.
    void Stop();
    // Whether it is stopped, by Stop() or by its own option --stop.
    bool IsStopped() const;

    // What it has printed so far, line by line. From any thread.
    std::vector<std::string> Lines() const;
    // The rest of the first line that begins with `beginning`, from line number `from` on. Nothing
    // when there is none yet.
    std::optional<std::string> Find(const std::string& beginning, std::size_t from = 0) const;

private:
    void ReadLines();

    Subprocess m_process;
    mutable Mutex m_mutex;
    std::vector<std::string> m_lines TEVROL_GUARDED_BY(m_mutex);
    std::thread m_reader;
};

}  // namespace tevrol
