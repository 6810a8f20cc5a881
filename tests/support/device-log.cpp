// SPDX-License-Identifier: MIT
#include "tests/support/device-log.h"

#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <regex>

#include "platform/dlog.h"

// Takes the place of the stand-in. Formats every line, so that its arguments are read.
// NOLINTNEXTLINE(bugprone-reserved-identifier)
extern "C" int __dlog_print(int log_id, int priority, const char* tag, const char* format, ...) {
    va_list args;
    va_start(args, format);
    char* text = nullptr;
    const int length = vasprintf(&text, format, args);
    va_end(args);
    const bool written = TakeLogLine(log_id, priority, tag, text);
    free(text);
    return written ? length : -1;
}

std::optional<LogText> ParseLogLine(const std::string& text) {
    static const std::regex prefix(R"(^([\w.-]+): (\w+)\(([1-9]\d*)\) > \[(\w+):(\d+)\] )");
    std::smatch found;
    if (!std::regex_search(text, found, prefix) || found[2] != found[4] || found[3] != found[5]) {
        return std::nullopt;
    }
    return LogText{found[1], found[2], found.suffix()};
}
