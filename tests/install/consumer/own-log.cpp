// A device's log, in a program or in a platform's library: lines go to standard output.
#include <platform/dlog.h>

#include <cstdarg>
#include <cstdio>

// NOLINTNEXTLINE(bugprone-reserved-identifier)
extern "C" int __dlog_print(int /*log_id*/, int /*priority*/, const char* tag, const char* format,
                            ...) {
    printf("own log: %s: ", tag);
    va_list args;
    va_start(args, format);
    const int length = vprintf(format, args);
    va_end(args);
    return length;
}
