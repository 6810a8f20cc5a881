// SPDX-License-Identifier: MIT
// A device's log, in a program or in a platform's library: each line's form goes to standard
// output.
#include <platform/dlog.h>

#include <cstdio>

// NOLINTNEXTLINE(bugprone-reserved-identifier)
extern "C" int __dlog_print(int /*log_id*/, int /*priority*/, const char* tag, const char* format,
                            ...) {
    return printf("own log: %s: %s", tag, format);
}
