// SPDX-License-Identifier: MIT
// The partner as a command: options choose its faults, lines on standard input steer it, each event
// is a line on standard output.
#pragma once

#include <string>

namespace programs {

// Runs until the command "quit", or until a signal ends the process. `command` is what was typed,
// "tevrol-partner" or "tevrolctl partner". Returns the exit status or throws Failure.
int RunPartner(const std::string& command, int argc, char** argv);

}  // namespace programs
