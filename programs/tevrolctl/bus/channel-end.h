// SPDX-License-Identifier: MIT
// The library's client end as the tool uses it: its handlers as functions, and requests that do not
// stop the main loop.
#pragma once

#include <ipc/tevrol-dbus-remote.h>

#include <condition_variable>
#include <deque>
#include <functional>
#include <memory>
#include <string>

#include "devkit/thread-safety.h"
#include "programs/tevrolctl/bus/end.h"

namespace programs {

// Shows the library's log lines on standard error.
void ShowLog(bool show);

// Create it with new and never destroy it: the main loop may not run again afterwards.
class ChannelEnd : public TevrolDbusRemote, public End {
public:
    // GIO gives up a request in any case when `kLongestCall` is over.
    static constexpr std::chrono::seconds kLongestCall{25};

    ChannelEnd(const std::string& name, Functions functions,
               std::chrono::milliseconds limit = kLongestCall);

    // Queues `request` for the sending thread.
    void Request(tevrol::Bytes request, std::function<void(const Outcome&)> done) override;
    // Hands a notification to the bus connection.
    void Notify(tevrol::Bytes payload) override;
    void Flush() override;
    bool IsReady() override;
    bool IsDirect() const override;
    // Whether it is bound to a partner, though perhaps not ready yet.
    bool IsBound() const;
    // Announces its SYN once more, as nobody may have heard the first. Not while it is bound.
    void AnnounceAgain();

    std::vector<char> HandleMessage(std::vector<char>& data) override;
    void HandleNotification(std::vector<char>& data) override;
    void HandleConnectionReady(bool state, const std::string& partner) override;

private:
    struct Job {
        tevrol::Bytes request;
        std::function<void(const Outcome&)> done;  // its first call alone counts
    };

    // A sending thread's body: sends jobs in order until one of them has overrun its limit. Another
    // thread goes on then.
    void SendJobs();
    void GiveUp(const std::shared_ptr<Job>& job, gint64 start);
    Outcome SendOne(tevrol::Bytes& request);
    // Why the last operation on this thread has failed.
    std::string WhyNot();

    const std::string m_name;
    const Functions m_functions;
    const std::chrono::milliseconds m_limit;
    tevrol::Mutex m_jobs_mutex;
    std::condition_variable_any m_jobs_changed;  // with the three below
    std::deque<std::shared_ptr<Job>> m_jobs TEVROL_GUARDED_BY(m_jobs_mutex);
    std::shared_ptr<Job> m_current TEVROL_GUARDED_BY(m_jobs_mutex);  // being sent, not overrun
    int m_sending TEVROL_GUARDED_BY(m_jobs_mutex) = 0;               // calls under way
};

}  // namespace programs
