// SPDX-License-Identifier: MIT
// The lines of a tevrol::Channel in the device's log.
#pragma once

#include <string>

#include "platform/dlog.h"

namespace tevrol {

constexpr const char* kLogTag = "sandrel";

inline void LogLine(int priority, const std::string& channel, const std::string& text) {
    __dlog_print(LOG_ID_MAIN, priority, kLogTag, "tevrol::Channel %s: %s\n", channel.c_str(),
                 text.c_str());
}

// The course of events.
inline void LogDebug(const std::string& channel, const std::string& text) {
    LogLine(DLOG_DEBUG, channel, text);
}

// Failures.
inline void LogError(const std::string& channel, const std::string& text) {
    LogLine(DLOG_ERROR, channel, text);
}

// The same where there may be no memory for a text.
inline void LogError(const std::string& channel, const char* text, const char* detail) noexcept {
    __dlog_print(LOG_ID_MAIN, DLOG_ERROR, kLogTag, "tevrol::Channel %s: %s: %s\n", channel.c_str(),
                 text, detail);
}

}  // namespace tevrol
