// The partner program as a child process: the other end that can be killed.
#pragma once

#include <mutex>
#include <optional>
#include <string>
#include <thread>
#include <vector>

#include "tools/subprocess.h"

namespace tevrol {

class PartnerProcess {
public:
    // Starts `program` (the path of tevrol-partner) for `channel`. Throws std::runtime_error.
    PartnerProcess(const std::string& program, const std::string& channel,
                   const std::vector<std::string>& options = {});
    // Starts it by way of another program, or any program that talks in lines.
    explicit PartnerProcess(const std::vector<std::string>& arguments);
    // Kills it if it still runs.
    ~PartnerProcess();
    PartnerProcess(const PartnerProcess&) = delete;
    PartnerProcess& operator=(const PartnerProcess&) = delete;

    // Gives it one line of standard input.
    void Command(const std::string& line);
    // Sends a signal.
    void Signal(int signal);
    // Waits until it has ended by itself. Returns its exit status; -1 when a signal has ended it.
    int Wait();
    // SIGKILL, and waits until it is gone.
    void Kill();
    // SIGSTOP, and waits until it has stopped; Signal(SIGCONT) lets it go on.
    void Stop();
    // Whether it is stopped, by that or by its own option --stop.
    bool IsStopped() const;

    // What it has printed so far, line by line. From any thread.
    std::vector<std::string> Lines() const;
    // The rest of the first line that begins with `beginning`, from the line number `from` on;
    // nothing when there is none yet.
    std::optional<std::string> Find(const std::string& beginning, std::size_t from = 0) const;

private:
    void ReadLines();

    Subprocess m_process;
    mutable std::mutex m_mutex;  // guards m_lines
    std::vector<std::string> m_lines;
    std::thread m_reader;
};

}  // namespace tevrol
