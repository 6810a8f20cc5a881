// SPDX-License-Identifier: MIT
// Which end of a channel a command is, and how patient: what open, send and notify share.
#pragma once

#include <tevrol/channel.h>

#include <chrono>
#include <memory>
#include <optional>
#include <string>

#include "programs/common/command-line.h"
#include "programs/tevrolctl/bus/end.h"

namespace programs {

// For the help of each command.
constexpr const char* kEndHelp =
    "By default it is the client end as TevrolDbusRemote is: it announces itself once. With\n"
    "--as it is a tevrol::Channel in that role: it finds its partner whatever the order of\n"
    "starts, waits for its turn where there is another of the role, lives on when the bus goes,\n"
    "and talks to another tevrol::Channel over a direct link.";

class EndOptions {
public:
    // `wait` and `wait_help` are for the option --wait.
    EndOptions(double wait, const char* wait_help) : m_wait(wait), m_wait_help(wait_help) {}

    void AddTo(CommandLine& line);
    // Looks at what was given. Throws Failure.
    void Read();

    std::chrono::milliseconds Wait() const {
        return Seconds(m_wait);
    }
    // Nothing for the client end that TevrolDbusRemote is.
    const std::optional<tevrol::Role>& Role() const {
        return m_role;
    }
    // Opens the end. From here on only Print() reaches standard output. Throws Failure without a
    // bus.
    std::shared_ptr<End> Open(const std::string& channel, const End::Functions& functions) const;

private:
    double m_wait;
    const char* const m_wait_help;
    double m_timeout = 25;
    gboolean m_verbose = FALSE;
    OptionText m_as;
    std::optional<tevrol::Role> m_role;
};

}  // namespace programs
