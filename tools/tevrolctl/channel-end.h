// The library's channel end as the tool uses it: its handlers as functions, and requests that do
// not stop the main loop.
#pragma once

#include <ipc/tevrol-dbus-remote.h>

#include <condition_variable>
#include <deque>
#include <functional>
#include <mutex>
#include <string>

#include "tools/tevrolctl/command-line.h"

namespace tevrolctl {

// Shows the library's log lines on standard error.
void ShowLog(bool show);

// The outcome of a request.
struct Outcome {
    bool ok = false;
    tevrol::Bytes reply;
    std::string error;    // where not ok; the library's own words, where it logs the failure
    gint64 duration = 0;  // in microseconds
};

// Create it with new and leave it to the end of the process: the main loop may not run any more
// once it is destroyed.
class ChannelEnd : public TevrolDbusRemote {
public:
    struct Functions {
        std::function<tevrol::Bytes(const tevrol::Bytes&)> answer;
        std::function<void(const tevrol::Bytes&)> notification;
        std::function<void(bool, const std::string&)> ready;
    };

    ChannelEnd(const std::string& name, Functions functions);

    // Sends `request` on a thread of its own, behind those that are still on their way, and calls
    // `done` on the main thread.
    void Request(tevrol::Bytes request, std::function<void(const Outcome&)> done);
    // Hands a notification to the bus connection. Throws Failure when the library has not.
    void Notify(tevrol::Bytes payload);

    std::vector<char> HandleMessage(std::vector<char>& data) override;
    void HandleNotification(std::vector<char>& data) override;
    void HandleConnectionReady(bool state, const std::string& partner) override;

private:
    struct Job {
        tevrol::Bytes request;
        std::function<void(const Outcome&)> done;
    };

    void SendJobs();
    Outcome SendOne(tevrol::Bytes& request);
    // Why the last operation on this thread has failed.
    std::string WhyNot();

    const Functions m_functions;
    std::mutex m_jobs_mutex;  // guards the three below
    std::condition_variable m_jobs_changed;
    std::deque<Job> m_jobs;
    bool m_sending = false;
};

}  // namespace tevrolctl
