// A stand-in for the device's log where the platform provides none: syslog(3).
#include <syslog.h>

#include <cstdarg>
#include <cstdio>
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

}  // namespace

// Weak, so that a program's own definition wins in every kind of link.
// NOLINTNEXTLINE(bugprone-reserved-identifier)
extern "C" __attribute__((weak, visibility("default"))) int __dlog_print(int /*log_id*/,
                                                                         int priority,
                                                                         const char* tag,
                                                                         const char* format, ...) {
    va_list args;
    va_start(args, format);
    std::string text = Format(format, args);
    va_end(args);
    FoldTrailingNewlines(text);

    // openlog() keeps one identifier for the process, so it is named anew for each line. Never
    // destroyed: lines may still come from other threads while the process ends.
    static std::mutex& identifier_and_line = *new std::mutex;
    const std::lock_guard<std::mutex> lock(identifier_and_line);
    openlog(tag, 0, LOG_USER);
    syslog(priority >= DLOG_ERROR ? LOG_ERR : LOG_DEBUG, "%s", text.c_str());
    return static_cast<int>(text.size());
}
