// SPDX-License-Identifier: MIT
#include "programs/common/command-line.h"

#include <algorithm>

#include "devkit/glib.h"
#include "programs/common/failure.h"

namespace programs {

CommandLine::CommandLine(const std::string& command, const char* arguments, const char* summary,
                         const std::string& details)
    : m_context(g_option_context_new(arguments)), m_help_hint("; see " + command + " --help") {
    g_set_prgname(command.c_str());
    g_option_context_set_summary(m_context, summary);
    g_option_context_set_description(m_context, (details + "\n\n" + kExitStatuses + "\n").c_str());
    const GOptionEntry bus[] = {
        {"address", 0, 0, G_OPTION_ARG_FILENAME, &m_bus.address,
         "Use the bus at this address, not the system bus", "ADDRESS"},
        {"private-bus", 0, 0, G_OPTION_ARG_NONE, &m_bus.private_bus,
         "Start a bus for this command and name its address on standard error", nullptr},
        {}};
    Add(bus);
}

CommandLine::~CommandLine() {
    g_option_context_free(m_context);
    g_free(m_bus.address);
}

void CommandLine::Add(const GOptionEntry* entries) {
    g_option_context_add_main_entries(m_context, entries, nullptr);
}

std::vector<std::string> CommandLine::Parse(int argc, char** argv, std::size_t least,
                                            std::size_t most) {
    GError* error = nullptr;
    if (g_option_context_parse(m_context, &argc, &argv, &error) == FALSE) {
        throw Failure(kExitUsage, tevrol::TakeMessage(error) + m_help_hint);
    }
    std::vector<std::string> arguments(argv + 1, argv + argc);
    // GOption keeps the "--" that ends the options if an argument with a dash follows.
    const auto end_of_options = std::find(arguments.begin(), arguments.end(), "--");
    if (end_of_options != arguments.end()) {
        arguments.erase(end_of_options);
    }
    if (arguments.size() < least || arguments.size() > most) {
        throw Failure(
            kExitUsage,
            (arguments.size() < least ? "too few arguments" : "too many arguments") + m_help_hint);
    }
    ChooseBus(m_bus);
    return arguments;
}

std::vector<std::string> TakeTexts(gchar** texts) {
    std::vector<std::string> all;
    for (gchar** text = texts; text != nullptr && *text != nullptr; ++text) {
        all.emplace_back(*text);
    }
    g_strfreev(texts);
    return all;
}

std::chrono::milliseconds Seconds(double seconds) {
    constexpr double kMost = 86400;
    if (!(seconds >= 0 && seconds <= kMost)) {
        throw Failure(kExitUsage, "a time must be from 0 to 86400 seconds");
    }
    return std::chrono::milliseconds(static_cast<int>(seconds * 1000));
}

}  // namespace programs
