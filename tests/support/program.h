// SPDX-License-Identifier: MIT
// A program run to its end.
#pragma once

#include <string>
#include <vector>

struct ProgramResult {
    int status;  // as a shell has it: 128 and the signal where one ended it
    std::string output;
    std::string errors;
};

// Runs `arguments` (the program first) with `input` as its standard input, which it must read.
ProgramResult RunProgram(const std::vector<std::string>& arguments, const std::string& input = "");
