#include "tools/tevrolctl/channel-end.h"

#include <platform/dlog.h>
#include <unistd.h>

#include <atomic>
#include <cstdarg>
#include <cstdio>
#include <thread>

namespace {

std::atomic<bool> g_show_log{false};

// The last failure that the library has logged on this thread.
std::string& LastError() {
    thread_local std::string error;
    return error;
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
    if (priority == DLOG_ERROR) {
        LastError() = MessageOf(line);
    }
    if (g_show_log) {
        const bool dimmed = tevrolctl::MayColour(STDERR_FILENO);
        fprintf(stderr, "%s%s %s%s\n", dimmed ? tevrolctl::kDim : "",
                priority == DLOG_ERROR ? "E" : "D", line.c_str(), dimmed ? tevrolctl::kPlain : "");
    }
    return 0;
}

namespace tevrolctl {
namespace {

// Calls `task` on the main thread, once its loop runs.
void Post(std::function<void()> task) {
    const auto run = [](gpointer data) -> gboolean {
        (*static_cast<std::function<void()>*>(data))();
        return G_SOURCE_REMOVE;
    };
    const auto destroy = [](gpointer data) { delete static_cast<std::function<void()>*>(data); };
    g_idle_add_full(G_PRIORITY_DEFAULT, run, new std::function<void()>(std::move(task)), destroy);
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
    if (!IsConnectionReady()) {
        outcome.error = "the partner is gone";
        return outcome;
    }
    LastError().clear();
    const gint64 start = g_get_monotonic_time();
    outcome.reply = SendMessage(request);
    outcome.duration = g_get_monotonic_time() - start;
    outcome.error = LastError();
    outcome.ok = outcome.error.empty();
    return outcome;
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
