// Payloads as people read and type them: text where it is plain, hexadecimal where it is not.
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

// The bytes of `digits`, an even number of hexadecimal digits in either case; nothing if it is
// anything else.
std::optional<Bytes> FromHex(const std::string& digits);

// `bytes` for a line of output: its size, and its content as text in double quotes where all of it
// is printable ASCII, otherwise as "hex:" and digits. Shows `limit` bytes at most and says how many
// it left out.
std::string Describe(const Bytes& bytes, std::size_t limit = 64);

// The same with all of the content, and always as "hex:" and digits.
std::string DescribeInHex(const Bytes& bytes);

// What a person typed: digits after "hex:", otherwise the text as it stands. Nothing if the digits
// are malformed.
std::optional<Bytes> ParsePayload(const std::string& typed);

}  // namespace tevrol
