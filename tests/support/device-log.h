// SPDX-License-Identifier: MIT
// The device's log as the tests get it: the one definition of __dlog_print for all test programs.
#pragma once

#include <optional>
#include <string>

// What a test program does with each line, filled in. Each program defines it once. False when
// writing the line fails.
bool TakeLogLine(int log_id, int priority, const char* tag, const char* text);

struct LogText {
    std::string file;
    std::string function;
    std::string message;
};

// A line that the channel logs, taken apart. Nothing where it lacks the common prefix
// "FILE: FUNCTION(LINE) > [FUNCTION:LINE] ", with the same function and the same line twice.
std::optional<LogText> ParseLogLine(const std::string& text);
