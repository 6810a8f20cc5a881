// SPDX-License-Identifier: MIT
// A command of the shell that answers a request.
#pragma once

#include <string>

#include "devkit/payload.h"

namespace programs {

struct CommandOutcome {
    tevrol::Bytes output;
    std::string problem;  // why that is no answer; empty if it is one
};

// Runs `command` with `input` as its standard input, which it need not read, and waits for its end,
// at most as long as a requester waits for the answer. The command goes with this process.
CommandOutcome RunShellCommand(const std::string& command, const tevrol::Bytes& input);

}  // namespace programs
