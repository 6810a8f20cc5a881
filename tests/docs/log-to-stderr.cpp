// SPDX-License-Identifier: MIT
// The channel's log on standard error: D or E, and the line.
#include <platform/dlog.h>

#include <cstdarg>
#include <cstdio>

// NOLINTNEXTLINE(bugprone-reserved-identifier)
extern "C" int __dlog_print(int /*log_id*/, int priority, const char* /*tag*/, const char* format,
                            ...) {
    char line[1000];
    va_list args;
    va_start(args, format);
    vsnprintf(line, sizeof line, format, args);
    va_end(args);
    return fprintf(stderr, "%c %s", priority >= DLOG_ERROR ? 'E' : 'D', line);
}
