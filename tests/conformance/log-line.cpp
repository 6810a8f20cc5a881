#include "tests/conformance/log-line.h"

#include <regex>

std::optional<LogLine> ParseLogLine(const std::string& text) {
    static const std::regex prefix(R"(^([\w.-]+): (\w+)\(([1-9]\d*)\) > \[(\w+):(\d+)\] )");
    std::smatch found;
    if (!std::regex_search(text, found, prefix) || found[2] != found[4] || found[3] != found[5]) {
        return std::nullopt;
    }
    return LogLine{found[1], found[2], found.suffix()};
}
