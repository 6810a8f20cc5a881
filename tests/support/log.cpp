// SPDX-License-Identifier: MIT
#include "tests/support/log.h"

#include <glib.h>

#include <condition_variable>
#include <mutex>
#include <utility>

#include "platform/dlog.h"
#include "tests/support/device-log.h"

namespace {

constexpr const char* kMalformed = "(malformed)";

std::mutex g_mutex;  // guards the three below
std::vector<LogLine> g_lines;
std::function<void(const LogLine&)> g_then;
std::vector<std::string> g_glib_reports;

LogLine TakeApart(int log_id, int priority, const std::string& tag, const std::string& text) {
    const auto line = ParseLogLine(text);
    if (log_id == LOG_ID_MAIN && tag == "sandrel" && line &&
        line->file == "tevrol-dbus-remote.cpp") {
        return {priority, line->function, line->message};
    }
    return {priority, kMalformed, tag + ": " + text};
}

GLogWriterOutput RecordGlibReport(GLogLevelFlags level, const GLogField* fields, gsize count,
                                  gpointer /*data*/) {
    gchar* text = g_log_writer_format_fields(level, fields, count, FALSE);
    if ((level & (G_LOG_LEVEL_WARNING | G_LOG_LEVEL_CRITICAL | G_LOG_LEVEL_ERROR)) != 0) {
        const std::lock_guard<std::mutex> lock(g_mutex);
        g_glib_reports.emplace_back(text);
    }
    g_free(text);
    return G_LOG_WRITER_HANDLED;
}

const bool g_recording = [] {
    g_log_set_writer_func(RecordGlibReport, nullptr, nullptr);
    return true;
}();

template <typename Condition>
std::vector<LogLine> Filter(Condition condition) {
    std::vector<LogLine> lines;
    for (const LogLine& line : Log()) {
        if (condition(line)) {
            lines.push_back(line);
        }
    }
    return lines;
}

}  // namespace

bool TakeLogLine(int log_id, int priority, const char* tag, const char* text) {
    const LogLine line = TakeApart(log_id, priority, tag, text);
    std::unique_lock<std::mutex> lock(g_mutex);
    g_lines.push_back(line);
    const auto then = g_then;
    lock.unlock();
    if (then) {
        then(line);
    }
    return true;
}

std::ostream& operator<<(std::ostream& out, const LogLine& line) {
    return out << (line.priority == DLOG_ERROR ? "E " : "D ") << line.function << ": "
               << line.message;
}

LogLine Debug(const std::string& function, const std::string& message) {
    return {DLOG_DEBUG, function, message};
}

LogLine Error(const std::string& function, const std::string& message) {
    return {DLOG_ERROR, function, message};
}

std::vector<LogLine> Log() {
    const std::lock_guard<std::mutex> lock(g_mutex);
    return g_lines;
}

std::vector<LogLine> LogOf(const std::string& function) {
    return Filter([&](const LogLine& line) { return line.function == function; });
}

std::vector<LogLine> Errors() {
    return Filter([](const LogLine& line) { return line.priority == DLOG_ERROR; });
}

void ClearLog() {
    const std::lock_guard<std::mutex> lock(g_mutex);
    g_lines.clear();
}

void OnLogLine(std::function<void(const LogLine&)> then) {
    const std::lock_guard<std::mutex> lock(g_mutex);
    g_then = std::move(then);
}

// ---- HeldThread ----

struct HeldThread::State {
    void Pass(const std::string& message) {
        std::unique_lock<std::mutex> lock(mutex);
        if (message == held_at) {
            is_there = true;
            changed.notify_all();
            changed.wait(lock, [&] { return message != held_at; });
        }
    }
    void HoldAt(const std::string& message) {
        const std::lock_guard<std::mutex> lock(mutex);
        held_at = message;
        is_there = false;
        changed.notify_all();
    }
    void AwaitArrival() {
        std::unique_lock<std::mutex> lock(mutex);
        changed.wait(lock, [&] { return is_there; });
    }

    std::mutex mutex;  // guards the two below
    std::string held_at;
    bool is_there = false;
    std::condition_variable changed;
};

HeldThread::HeldThread(const std::string& message) : m_state(std::make_shared<State>()) {
    m_state->HoldAt(message);
    OnLogLine([state = m_state](const LogLine& line) { state->Pass(line.message); });
}

HeldThread::~HeldThread() {
    OnLogLine({});
    GoOn();
}

void HeldThread::GoOnTo(const std::string& message) {
    m_state->HoldAt(message);
    m_state->AwaitArrival();
}

void HeldThread::GoOn() {
    m_state->HoldAt("");
}

std::vector<std::string> TakeGlibReports() {
    const std::lock_guard<std::mutex> lock(g_mutex);
    return std::exchange(g_glib_reports, {});
}
