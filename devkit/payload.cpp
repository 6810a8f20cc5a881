// SPDX-License-Identifier: MIT
#include "devkit/payload.h"

#include <algorithm>

#include "devkit/outside-text.h"

namespace tevrol {
namespace {

constexpr const char* kHexMark = "hex:";
constexpr const char* kHexDigits = "0123456789abcdef";

std::string Size(std::size_t size) {
    return std::to_string(size) + (size == 1 ? " byte" : " bytes");
}

std::optional<int> DigitValue(char digit) {
    if (digit >= '0' && digit <= '9') {
        return digit - '0';
    }
    if (digit >= 'a' && digit <= 'f') {
        return digit - 'a' + 10;
    }
    if (digit >= 'A' && digit <= 'F') {
        return digit - 'A' + 10;
    }
    return std::nullopt;
}

}  // namespace

Bytes ToBytes(const std::string& text) {
    return Bytes(text.begin(), text.end());
}

Bytes AllByteValues() {
    Bytes bytes;
    for (int value = 0; value < 256; ++value) {
        bytes.push_back(static_cast<char>(value));
    }
    return bytes;
}

std::string ToHex(const Bytes& bytes) {
    std::string hex;
    hex.reserve(bytes.size() * 2);
    for (const char byte : bytes) {
        const auto value = static_cast<unsigned char>(byte);
        hex += kHexDigits[value >> 4];
        hex += kHexDigits[value & 0xf];
    }
    return hex;
}

std::optional<Bytes> FromHex(const std::string& digits) {
    if (digits.size() % 2 != 0) {
        return std::nullopt;
    }
    Bytes bytes;
    bytes.reserve(digits.size() / 2);
    for (std::size_t i = 0; i < digits.size(); i += 2) {
        const auto high = DigitValue(digits[i]);
        const auto low = DigitValue(digits[i + 1]);
        if (!high || !low) {
            return std::nullopt;
        }
        bytes.push_back(static_cast<char>(*high * 16 + *low));
    }
    return bytes;
}

std::string Describe(const Bytes& bytes, std::size_t limit) {
    const auto shown = static_cast<std::ptrdiff_t>(std::min(bytes.size(), limit));
    return DescribeBeginning(Bytes(bytes.begin(), bytes.begin() + shown), bytes.size());
}

std::string DescribeBeginning(const Bytes& beginning, std::size_t size) {
    if (size == 0) {
        return Size(size);
    }
    const std::string all(beginning.begin(), beginning.end());
    const std::string text = beginning.size() < size ? WithoutCutCharacter(all) : all;
    const bool plain = IsPrintable(text);
    const std::size_t shown = plain ? text.size() : beginning.size();
    std::string line = Size(size) + " ";
    line += plain ? "\"" + text + "\"" : kHexMark + ToHex(beginning);
    if (shown < size) {
        line += " (+" + std::to_string(size - shown) + " more)";
    }
    return line;
}

std::string DescribeInHex(const Bytes& bytes) {
    return Size(bytes.size()) + (bytes.empty() ? "" : ' ' + (kHexMark + ToHex(bytes)));
}

std::optional<Bytes> ParsePayload(const std::string& typed) {
    const std::string mark = kHexMark;
    if (typed.compare(0, mark.size(), mark) == 0) {
        return FromHex(typed.substr(mark.size()));
    }
    return ToBytes(typed);
}

}  // namespace tevrol
