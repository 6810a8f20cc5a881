// SPDX-License-Identifier: MIT
#include "devkit/outside-text.h"

#include <glib.h>

#include <algorithm>
#include <functional>

#include "devkit/glib.h"

namespace tevrol {
namespace {

// What GLib returns instead of a character.
constexpr auto kInvalid = static_cast<gunichar>(-1);
constexpr auto kIncomplete = static_cast<gunichar>(-2);

// Controls of both sets and of the direction are no printable characters to GLib; what ends a line
// is.
bool IsVisible(gunichar character) {
    const GUnicodeType type = g_unichar_type(character);
    return g_unichar_isprint(character) != FALSE && type != G_UNICODE_LINE_SEPARATOR &&
           type != G_UNICODE_PARAGRAPH_SEPARATOR;
}

std::string Hexadecimal(const char* format, guint value) {
    return TakeText(g_strdup_printf(format, value));
}

std::string EscapeByte(char byte) {
    return Hexadecimal("\\x%02x", static_cast<unsigned char>(byte));
}

std::string Escape(gunichar character) {
    switch (character) {
        case '\n':
            return "\\n";
        case '\r':
            return "\\r";
        case '\t':
            return "\\t";
        default:
            return Hexadecimal(character < 0x80      ? "\\x%02x"
                               : character < 0x10000 ? "\\u%04x"
                                                     : "\\U%08x",
                               character);
    }
}

// JSON writes a character beyond 16 bits as a pair.
std::string EscapeForJson(gunichar character) {
    if (character < 0x10000) {
        return Hexadecimal("\\u%04x", character);
    }
    const gunichar rest = character - 0x10000;
    return Hexadecimal("\\u%04x", 0xd800 + (rest >> 10)) +
           Hexadecimal("\\u%04x", 0xdc00 + (rest & 0x3ff));
}

// Calls `character` with each character and its bytes, and `byte` with each byte that is part of
// none.
void Walk(const std::string& text,
          const std::function<void(gunichar, const std::string&)>& character,
          const std::function<void(char)>& byte) {
    const char* const end = text.data() + text.size();
    for (const char* at = text.data(); at < end;) {
        const gunichar next = g_utf8_get_char_validated(at, end - at);
        const bool is_nul = *at == '\0';  // which GLib counts as an end
        if (!is_nul && (next == kInvalid || next == kIncomplete)) {
            byte(*at);
            ++at;
            continue;
        }
        const char* const behind = is_nul ? at + 1 : g_utf8_next_char(at);
        character(is_nul ? 0 : next, std::string(at, behind));
        at = behind;
    }
}

}  // namespace

bool IsPrintable(const std::string& text) {
    bool printable = true;
    Walk(
        text,
        [&](gunichar character, const std::string&) {
            printable = printable && IsVisible(character);
        },
        [&](char) { printable = false; });
    return printable;
}

std::string WithoutCutCharacter(const std::string& text) {
    constexpr std::size_t kLongestCut = 3;
    for (std::size_t bytes = std::min(kLongestCut, text.size()); bytes > 0; --bytes) {
        const char* const tail = text.data() + text.size() - bytes;
        const bool begins = (*tail & 0xc0) == 0xc0;
        if (begins && g_utf8_get_char_validated(tail, static_cast<gssize>(bytes)) == kIncomplete) {
            return text.substr(0, text.size() - bytes);
        }
    }
    return text;
}

std::string Printable(const std::string& text) {
    std::string line;
    Walk(
        text,
        [&](gunichar character, const std::string& bytes) {
            line += character == '\\' ? "\\\\" : IsVisible(character) ? bytes : Escape(character);
        },
        [&](char byte) { line += EscapeByte(byte); });
    return line;
}

std::string PrintableJson(const std::string& json) {
    std::string line;
    Walk(
        json,
        [&](gunichar character, const std::string& bytes) {
            line += IsVisible(character) ? bytes : EscapeForJson(character);
        },
        // No text for JSON: what the reader of the original would be given, too.
        [&](char) { line += EscapeForJson(0xfffd); });
    return line;
}

}  // namespace tevrol
