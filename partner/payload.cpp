#include "partner/payload.h"

#include <algorithm>

namespace tevrol {
namespace {

constexpr const char* kHexMark = "hex:";
constexpr const char* kHexDigits = "0123456789abcdef";

std::string Size(const Bytes& bytes) {
    return std::to_string(bytes.size()) + (bytes.size() == 1 ? " byte" : " bytes");
}

std::string MarkedHex(const Bytes& bytes) {
    return kHexMark + ToHex(bytes);
}

std::string Quoted(const Bytes& bytes) {
    std::string text = "\"";
    text.append(bytes.begin(), bytes.end());
    return text + "\"";
}

bool IsPlain(char byte) {
    return byte >= 0x20 && byte <= 0x7e;
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
    if (bytes.empty()) {
        return Size(bytes);
    }
    const auto shown = static_cast<std::ptrdiff_t>(std::min(bytes.size(), limit));
    const Bytes head(bytes.begin(), bytes.begin() + shown);
    const bool plain = std::all_of(bytes.begin(), bytes.end(), IsPlain);
    std::string line = Size(bytes) + " ";
    line += plain ? Quoted(head) : MarkedHex(head);
    if (head.size() < bytes.size()) {
        line += " (+" + std::to_string(bytes.size() - head.size()) + " more)";
    }
    return line;
}

std::string DescribeInHex(const Bytes& bytes) {
    return bytes.empty() ? Size(bytes) : Size(bytes) + " " + MarkedHex(bytes);
}

std::optional<Bytes> ParsePayload(const std::string& typed) {
    const std::string mark = kHexMark;
    if (typed.compare(0, mark.size(), mark) == 0) {
        return FromHex(typed.substr(mark.size()));
    }
    return ToBytes(typed);
}

}  // namespace tevrol
