// A line that the channel logs, taken apart.
#pragma once

#include <optional>
#include <string>

struct LogLine {
    std::string file;
    std::string function;
    std::string message;
};

// Nothing where the line has not the common prefix: "FILE: FUNCTION(LINE) > [FUNCTION:LINE] ", with
// the same function and the same line twice.
std::optional<LogLine> ParseLogLine(const std::string& text);
