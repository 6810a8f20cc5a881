// SPDX-License-Identifier: MIT
// Payloads as people read and type them: plain text as it is, everything else in hexadecimal.
#pragma once

#include <cstddef>
#include <optional>
#include <string>
#include <vector>

namespace tevrol {

using Bytes = std::vector<char>;

Bytes ToBytes(const std::string& text);

// Every byte value once, in order.
Bytes AllByteValues();

// Every byte as two lower-case hexadecimal digits.
std::string ToHex(const Bytes& bytes);

// The bytes that `digits` stand for. Nothing if they are not an even number of hexadecimal digits.
std::optional<Bytes> FromHex(const std::string& digits);

// `bytes` for a line of output: the size, then the content, `limit` bytes at most, and how many
// more there are. The content is text in double quotes if what is shown is printable UTF-8,
// otherwise "hex:" and digits.
std::string Describe(const Bytes& bytes, std::size_t limit = 64);
// The same for a payload of `size` bytes of which these are the first.
std::string DescribeBeginning(const Bytes& beginning, std::size_t size);

// The same with all of the content, always as "hex:" and digits.
std::string DescribeInHex(const Bytes& bytes);

// The bytes of what a person typed: "hex:" and digits, or text as it is. Nothing if the digits are
// malformed.
std::optional<Bytes> ParsePayload(const std::string& typed);

}  // namespace tevrol
