// SPDX-License-Identifier: MIT
// A stand-in for the device's log where the platform provides none: syslog(3). Two variables of the
// environment change what it writes, TEVROL_LOG_LEVEL and TEVROL_LOG_STDERR (docs/device.md).
#include <syslog.h>

#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <mutex>
#include <string>

#include "platform/dlog.h"

namespace {

std::string Format(const char* format, va_list args) {
    va_list measured;
    va_copy(measured, args);
    // The analyzer does not follow va_copy.
    // NOLINTNEXTLINE(clang-analyzer-valist.Uninitialized)
    const int length = vsnprintf(nullptr, 0, format, measured);
    va_end(measured);
    if (length < 0) {
        return {};
    }
    std::string text(static_cast<std::size_t>(length) + 1, '\0');
    vsnprintf(text.data(), text.size(), format, args);
    text.pop_back();
    return text;
}

void FoldTrailingNewlines(std::string& text) {
    text.erase(text.find_last_not_of('\n') + 1);
}

std::string Variable(const char* name) {
    const char* value = std::getenv(name);
    return value == nullptr ? "" : value;
}

// Where the lines go, and which. The environment is read once.
class Output {
public:
    Output() {
        const std::string level = Variable("TEVROL_LOG_LEVEL");
        if (level == "error") {
            m_least = DLOG_ERROR;
        } else if (level == "none") {
            m_least = DLOG_ERROR + 1;
        } else if (!level.empty() && level != "debug") {
            syslog(LOG_USER | LOG_ERR,
                   R"(TEVROL_LOG_LEVEL is "%s" instead of "debug", "error" or "none")",
                   level.c_str());
        }
        m_options = Variable("TEVROL_LOG_STDERR") == "yes" ? LOG_PERROR : 0;
    }
    bool Takes(int priority) const {
        return priority >= m_least;
    }
    void Write(int priority, const char* tag, const std::string& text) {
        // openlog() keeps one identifier for the process, so it is named anew for each line.
        const std::lock_guard<std::mutex> lock(m_identifier_and_line);
        openlog(tag, m_options, LOG_USER);
        syslog(priority >= DLOG_ERROR ? LOG_ERR : LOG_DEBUG, "%s", text.c_str());
    }

private:
    int m_least = DLOG_DEBUG;
    int m_options = 0;
    std::mutex m_identifier_and_line;
};

}  // namespace

// Weak, so that a program's own definition wins in every kind of link.
// NOLINTNEXTLINE(bugprone-reserved-identifier)
extern "C" __attribute__((weak, visibility("default"))) int __dlog_print(int /*log_id*/,
                                                                         int priority,
                                                                         const char* tag,
                                                                         const char* format, ...) {
    // Never destroyed: lines may still come from other threads while the process ends.
    static Output& output = *new Output;
    if (!output.Takes(priority)) {
        return 0;
    }
    va_list args;
    va_start(args, format);
    std::string text = Format(format, args);
    va_end(args);
    FoldTrailingNewlines(text);
    output.Write(priority, tag, text);
    return static_cast<int>(text.size());
}
