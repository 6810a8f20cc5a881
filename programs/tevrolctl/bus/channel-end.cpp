// SPDX-License-Identifier: MIT
#include "programs/tevrolctl/bus/channel-end.h"

#include <platform/dlog.h>
#include <unistd.h>

#include <atomic>
#include <cstdarg>
#include <cstdio>
#include <thread>
#include <utility>

#include "devkit/colour.h"
#include "devkit/glib.h"
#include "devkit/outside-text.h"
#include "programs/common/bus.h"
#include "programs/common/failure.h"
#include "programs/common/names.h"
#include "programs/common/output.h"

namespace {

std::atomic<bool> g_show_log{false};
std::atomic<bool> g_bound{false};  // of the one channel of this process, as its log tells

// A line of the library's log.
struct LogLine {
    int priority = DLOG_DEBUG;
    std::string message;
};

// The last one on this thread: only the log tells the outcome of an operation.
LogLine& LastLine() {
    thread_local LogLine line;
    return line;
}

bool LastLineBegins(const std::string& beginning) {
    return LastLine().message.compare(0, beginning.size(), beginning) == 0;
}

// The message of "FILE: FUNCTION(LINE) > [...] MESSAGE".
std::string MessageOf(const std::string& line) {
    const std::size_t end = line.find("] ");
    return end == std::string::npos ? line : line.substr(end + 2);
}

}  // namespace

// NOLINTNEXTLINE(bugprone-reserved-identifier)
extern "C" int __dlog_print(int /*log_id*/, int priority, const char* /*tag*/, const char* format,
                            ...) {
    va_list args;
    va_start(args, format);
    const std::string line = tevrol::TakeText(g_strchomp(g_strdup_vprintf(format, args)));
    va_end(args);
    LastLine() = {priority, MessageOf(line)};
    g_bound = g_bound || LastLineBegins("Partner is available ");
    if (g_show_log) {
        const bool dimmed = tevrol::MayColour(STDERR_FILENO);
        fprintf(stderr, "%s%s %s%s\n", dimmed ? programs::kDim : "",
                priority == DLOG_ERROR ? "E" : "D", tevrol::Printable(line).c_str(),
                dimmed ? programs::kPlain : "");
    }
    return 0;
}

namespace programs {
namespace {

constexpr gint kAnnouncementLimitMs = 1000;

Variant CallDriver(GDBusConnection* bus, const char* method, GVariant* parameters) {
    return Variant(g_dbus_connection_call_sync(bus, kDriver, kDriverPath, kDriver, method,
                                               parameters, nullptr, G_DBUS_CALL_FLAGS_NONE,
                                               kAnnouncementLimitMs, nullptr, nullptr));
}

}  // namespace

void ShowLog(bool show) {
    g_show_log = show;
}

ChannelEnd::ChannelEnd(const std::string& name, Functions functions,
                       std::chrono::milliseconds limit)
    : TevrolDbusRemote(name), m_name(name), m_functions(std::move(functions)), m_limit(limit) {
    std::thread([this] { SendJobs(); }).detach();
}

void ChannelEnd::Request(tevrol::Bytes request, std::function<void(const Outcome&)> done) {
    const auto once = [done = std::move(done), over = false](const Outcome& outcome) mutable {
        if (!std::exchange(over, true)) {
            done(outcome);
        }
    };
    const tevrol::Lock lock(m_jobs_mutex);
    m_jobs.push_back(std::make_shared<Job>(Job{std::move(request), once}));
    m_jobs_changed.notify_all();
}

void ChannelEnd::SendJobs() {
    tevrol::Lock lock(m_jobs_mutex);
    for (;;) {
        while (m_jobs.empty()) {
            m_jobs_changed.wait(lock);
        }
        const auto job = m_current = std::move(m_jobs.front());
        m_jobs.pop_front();
        ++m_sending;
        lock.unlock();
        if (m_limit < kLongestCall) {
            PostLater(m_limit, [this, job, start = g_get_monotonic_time()] { GiveUp(job, start); });
        }
        const Outcome outcome = SendOne(job->request);
        Post([job, outcome] { job->done(outcome); });
        lock.lock();
        --m_sending;
        m_jobs_changed.notify_all();
        if (m_current != job) {
            return;
        }
        m_current.reset();
    }
}

void ChannelEnd::GiveUp(const std::shared_ptr<Job>& job, gint64 start) {
    {
        const tevrol::Lock lock(m_jobs_mutex);
        if (m_current == job) {
            m_current.reset();
            std::thread([this] { SendJobs(); }).detach();
        }
    }
    job->done({false, {}, "none came in time", g_get_monotonic_time() - start});
}

Outcome ChannelEnd::SendOne(tevrol::Bytes& request) {
    Outcome outcome;
    LastLine() = {};
    const gint64 start = g_get_monotonic_time();
    outcome.reply = SendMessage(request);
    outcome.duration = g_get_monotonic_time() - start;
    outcome.ok = LastLineBegins("Reply with ");
    if (!outcome.ok) {
        outcome.error = tevrol::Printable(WhyNot());
    }
    return outcome;
}

void ChannelEnd::Notify(tevrol::Bytes payload) {
    LastLine() = {};
    SendNotification(payload);
    if (!LastLineBegins("Sending signal with ")) {
        throw Failure(kExitFailed, "not sent: " + tevrol::Printable(WhyNot()));
    }
}

std::string ChannelEnd::WhyNot() {
    if (LastLine().priority == DLOG_ERROR) {
        return LastLine().message;
    }
    // The library logs neither of these.
    return IsConnectionReady() ? "no proxy of the partner could be created"
                               : "no connection to the partner";
}

void ChannelEnd::Flush() {
    GDBusConnection* bus = SystemBus();
    g_dbus_connection_flush_sync(bus, nullptr, nullptr);
    g_object_unref(bus);
}

bool ChannelEnd::IsReady() {
    return IsConnectionReady();
}

bool ChannelEnd::IsDirect() const {
    return false;
}

// An end's own, though the library's log is the process's.
// NOLINTNEXTLINE(readability-convert-member-functions-to-static)
bool ChannelEnd::IsBound() const {
    return g_bound;
}

void ChannelEnd::AnnounceAgain() {
    GDBusConnection* bus = SystemBus();
    const std::string name = HandshakeName(m_name, kClient, kSyn);
    CallDriver(bus, "RequestName", g_variant_new("(su)", name.c_str(), kDoNotQueue));
    CallDriver(bus, "ReleaseName", g_variant_new("(s)", name.c_str()));
    g_object_unref(bus);
}

// The library can answer with bytes alone, so a problem is not the partner's to hear.
std::vector<char> ChannelEnd::HandleMessage(std::vector<char>& data) {
    return m_functions.answer(data).payload;
}

void ChannelEnd::HandleNotification(std::vector<char>& data) {
    m_functions.notification(data);
}

void ChannelEnd::HandleConnectionReady(bool state, const std::string& partner) {
    if (!state) {
        g_bound = false;
        // The proxy is released after this call, and SendMessage reads it without a lock. So this
        // waits for the running request, which takes a moment: the bus answers a call to a process
        // that is gone at once.
        tevrol::Lock lock(m_jobs_mutex);
        std::deque<std::shared_ptr<Job>> dropped;
        dropped.swap(m_jobs);
        while (m_sending > 0) {
            m_jobs_changed.wait(lock);
        }
        for (const auto& job : dropped) {
            Post([job] { job->done({false, {}, "the partner is gone", 0}); });
        }
    }
    m_functions.ready(state, partner);
}

}  // namespace programs
