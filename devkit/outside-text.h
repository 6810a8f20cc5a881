// SPDX-License-Identifier: MIT
// Text that others wrote (error messages, names, payloads), made safe to print: on one line,
// without anything that a terminal obeys, hides or turns round.
#pragma once

#include <string>

namespace tevrol {

// Whether `text` is UTF-8 of visible characters and spaces alone.
bool IsPrintable(const std::string& text);

// `text` without its last bytes if they are the beginning of a character.
std::string WithoutCutCharacter(const std::string& text);

// `text` with every other character as an escape: "\n", "\x1b", "\u202e", and "\xff" for a byte
// that is no UTF-8. A backslash becomes two, so that no escape can be forged.
std::string Printable(const std::string& text);

// The same for JSON, which keeps its meaning: its other characters become escapes of JSON. It must
// be UTF-8 without line breaks between its elements.
std::string PrintableJson(const std::string& json);

}  // namespace tevrol
