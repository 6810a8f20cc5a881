#include "tools/tevrolctl/channel-end.h"

#include <platform/dlog.h>
#include <unistd.h>

#include <atomic>
#include <cstdarg>
#include <cstdio>
#include <thread>

#include "tools/colour.h"

namespace {

std::atomic<bool> g_show_log{false};

// A line of the library's log.
struct LogLine {
    int priority = DLOG_DEBUG;
    std::string message;
};

// The last one on this thread. The library tells the outcome of an operation by it.
LogLine& LastLine() {
    thread_local LogLine line;
    return line;
}

bool LastLineBegins(const std::string& beginning) {
    return LastLine().message.compare(0, beginning.size(), beginning) == 0;
}

// Without the prefix that names the place in the library: "FILE: FUNCTION(LINE) > [...] MESSAGE".
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
    gchar* text = g_strdup_vprintf(format, args);
    va_end(args);
    const std::string line = g_strchomp(text);
    g_free(text);
    LastLine() = {priority, MessageOf(line)};
    if (g_show_log) {
        const bool dimmed = tevrol::MayColour(STDERR_FILENO);
        fprintf(stderr, "%s%s %s%s\n", dimmed ? tevrolctl::kDim : "",
                priority == DLOG_ERROR ? "E" : "D", line.c_str(), dimmed ? tevrolctl::kPlain : "");
    }
    return 0;
}

namespace tevrolctl {
namespace {

std::mutex g_tasks_mutex;  // guards the one below
std::deque<std::function<void()>> g_tasks;

gboolean RunNextTask(gpointer /*nothing*/) {
    std::unique_lock<std::mutex> lock(g_tasks_mutex);
    const std::function<void()> task = std::move(g_tasks.front());
    g_tasks.pop_front();
    lock.unlock();
    task();
    return G_SOURCE_REMOVE;
}

// Calls `task` on the main thread, once its loop runs.
void Post(std::function<void()> task) {
    const std::lock_guard<std::mutex> lock(g_tasks_mutex);
    g_tasks.push_back(std::move(task));
    g_idle_add_full(G_PRIORITY_DEFAULT, RunNextTask, nullptr, nullptr);
}

}  // namespace

void ShowLog(bool show) {
    g_show_log = show;
}

ChannelEnd::ChannelEnd(const std::string& name, Functions functions)
    : TevrolDbusRemote(name), m_functions(std::move(functions)) {
    std::thread([this] { SendJobs(); }).detach();
}

void ChannelEnd::Request(tevrol::Bytes request, std::function<void(const Outcome&)> done) {
    const std::lock_guard<std::mutex> lock(m_jobs_mutex);
    m_jobs.push_back({std::move(request), std::move(done)});
    m_jobs_changed.notify_all();
}

void ChannelEnd::SendJobs() {
    std::unique_lock<std::mutex> lock(m_jobs_mutex);
    for (;;) {
        m_jobs_changed.wait(lock, [this] { return !m_jobs.empty(); });
        Job job = std::move(m_jobs.front());
        m_jobs.pop_front();
        m_sending = true;
        lock.unlock();
        const Outcome outcome = SendOne(job.request);
        Post([done = job.done, outcome] { done(outcome); });
        lock.lock();
        m_sending = false;
        m_jobs_changed.notify_all();
    }
}

Outcome ChannelEnd::SendOne(tevrol::Bytes& request) {
    Outcome outcome;
    LastLine() = {};
    const gint64 start = g_get_monotonic_time();
    outcome.reply = SendMessage(request);
    outcome.duration = g_get_monotonic_time() - start;
    outcome.ok = LastLineBegins("Reply with ");
    if (!outcome.ok) {
        outcome.error = WhyNot();
    }
    return outcome;
}

void ChannelEnd::Notify(tevrol::Bytes payload) {
    LastLine() = {};
    SendNotification(payload);
    if (!LastLineBegins("Sending signal with ")) {
        throw Failure(kExitFailed, "not sent: " + WhyNot());
    }
}

std::string ChannelEnd::WhyNot() {
    if (LastLine().priority == DLOG_ERROR) {
        return LastLine().message;
    }
    // The library does not log these two.
    return IsConnectionReady() ? "no proxy of the partner could be created"
                               : "no connection to the partner";
}

std::vector<char> ChannelEnd::HandleMessage(std::vector<char>& data) {
    return m_functions.answer(data);
}

void ChannelEnd::HandleNotification(std::vector<char>& data) {
    m_functions.notification(data);
}

void ChannelEnd::HandleConnectionReady(bool state, const std::string& partner) {
    if (!state) {
        // The proxy is released after this call, and SendMessage reads it without a lock. The bus
        // answers a call to a process that is gone at once, so this does not take long.
        std::unique_lock<std::mutex> lock(m_jobs_mutex);
        std::deque<Job> dropped;
        dropped.swap(m_jobs);
        m_jobs_changed.wait(lock, [this] { return !m_sending; });
        for (const Job& job : dropped) {
            Post([done = job.done] { done({false, {}, "the partner is gone", 0}); });
        }
    }
    m_functions.ready(state, partner);
}

}  // namespace tevrolctl
