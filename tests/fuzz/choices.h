// SPDX-License-Identifier: MIT
// What a fuzzer's bytes decide: each choice takes the next of them.
#pragma once

#include <gio/gio.h>

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

class Choices {
public:
    Choices(const std::uint8_t* data, std::size_t size) : m_next(data), m_end(data + size) {}

    bool AreLeft() const {
        return m_next != m_end;
    }

    // 0 to `count` - 1; always 0 once the bytes are used up.
    unsigned Below(unsigned count) {
        return AreLeft() ? *m_next++ % count : 0;
    }

    bool OneIn(unsigned count) {
        return Below(count) == count - 1;
    }

    std::vector<char> Bytes() {
        const std::size_t wanted = Below(64);
        const auto size =
            static_cast<std::ptrdiff_t>(std::min(wanted, static_cast<std::size_t>(m_end - m_next)));
        std::vector<char> bytes(m_next, m_next + size);
        m_next += size;
        return bytes;
    }

    // Valid UTF-8 without a zero byte, as every string on the bus.
    std::string Text() {
        std::string text;
        for (const char byte : Bytes()) {
            text += static_cast<char>('!' + static_cast<unsigned char>(byte) % 94);
        }
        return text;
    }

private:
    const std::uint8_t* m_next;
    const std::uint8_t* m_end;
};

// A value of any type, simple or nested to `depth`; floating.
GVariant* AnyValue(Choices& choices, int depth = 3);

// A "(ay)" value, as it may have been serialised by anybody; floating.
GVariant* AnyPayload(Choices& choices);

// A tuple as the body of a message: often a payload, else of any type; floating.
GVariant* AnyBody(Choices& choices);

// The bytes of a "(ay)" value, read otherwise than the channel reads them.
std::vector<char> BytesOf(GVariant* payload);

// Ends the program with a message unless `holds`: a fuzzer takes that for a finding.
void Require(bool holds, const char* what);
