// SPDX-License-Identifier: MIT
// Options and arguments of a command, by GOption.
#pragma once

#include <glib.h>

#include <chrono>
#include <string>
#include <vector>

#include "programs/common/bus.h"

namespace programs {

// The text of an option, which GOption allocates. Its kind is G_OPTION_ARG_FILENAME: any bytes,
// whatever the locale.
class OptionText {
public:
    OptionText() = default;
    ~OptionText() {
        g_free(m_text);
    }
    OptionText(const OptionText&) = delete;
    OptionText& operator=(const OptionText&) = delete;

    gchar** Place() {
        return &m_text;
    }
    bool Given() const {
        return m_text != nullptr;
    }
    // Empty when it was not given.
    std::string Value() const {
        return m_text == nullptr ? "" : m_text;
    }

private:
    gchar* m_text = nullptr;
};

class CommandLine {
public:
    // `command` is what was typed ("tevrolctl open"). `arguments`, `summary` and `details` are for
    // the help.
    CommandLine(const std::string& command, const char* arguments, const char* summary,
                const std::string& details);
    ~CommandLine();
    CommandLine(const CommandLine&) = delete;
    CommandLine& operator=(const CommandLine&) = delete;

    // `entries` end with an empty one. Parse() fills in what they point to.
    void Add(const GOptionEntry* entries);
    // Chooses the bus and returns the arguments, from `least` to `most` of them. Throws Failure.
    std::vector<std::string> Parse(int argc, char** argv, std::size_t least, std::size_t most);

private:
    GOptionContext* const m_context;
    const std::string m_help_hint;
    BusOptions m_bus;
};

// Frees the texts of an option that may be given several times, and returns them.
std::vector<std::string> TakeTexts(gchar** texts);

// Seconds as typed for an option. Throws Failure when they are negative or more than a day.
std::chrono::milliseconds Seconds(double seconds);

}  // namespace programs
