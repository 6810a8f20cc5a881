// SPDX-License-Identifier: MIT
// What a program prints, in colour on a terminal.
#pragma once

#include <string>

namespace programs {

constexpr const char* kDim = "\033[2m";
constexpr const char* kRed = "\033[31m";
constexpr const char* kGreen = "\033[32m";
constexpr const char* kYellow = "\033[33m";
constexpr const char* kCyan = "\033[36m";
constexpr const char* kPlain = "\033[0m";

// From here on only Print() reaches standard output. What others print there goes to standard
// error; the library prints in two places.
void KeepOutputClean();

// Writes all of `text` to standard output at once, from any thread. Ends the process with a message
// when that fails.
void Print(const std::string& text);
void PrintLine(const std::string& line);
// A line on standard error that begins with the program's name.
void PrintError(const std::string& message);

// `text` in that colour if standard output may be coloured.
std::string Coloured(const char* colour, const std::string& text);

}  // namespace programs
