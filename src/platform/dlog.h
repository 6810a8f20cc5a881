// SPDX-License-Identifier: MIT
// The part of the device's system log that the channel needs.
//
// On a device the platform's own library provides __dlog_print (TEVROL_DLOG_LIBRARY tells the build
// its name). Elsewhere dlog-syslog.cpp stands in. A program that defines __dlog_print itself
// receives every line instead, whether it links the channel statically or dynamically.
#pragma once

// The log buffer that every line goes to.
enum { LOG_ID_MAIN = 0 };

// Priorities: the course of events, and failures.
enum { DLOG_DEBUG = 3, DLOG_ERROR = 6 };

extern "C" {
// Writes one line to the log buffer `log_id` with a priority of the enumeration above. `tag` names
// the origin and must never be freed; `format` and the arguments after it are as in printf(3).
// Callable from any thread. Returns a negative number on failure, which the channel ignores. The
// reserved name is the platform's.
// NOLINTNEXTLINE(bugprone-reserved-identifier)
__attribute__((format(printf, 4, 5))) int __dlog_print(int log_id, int priority, const char* tag,
                                                       const char* format, ...);
}
