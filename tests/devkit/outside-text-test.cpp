// SPDX-License-Identifier: MIT
// Text from others as it is printed.
#include "devkit/outside-text.h"

#include <glib.h>
#include <gtest/gtest.h>

#include "devkit/glib.h"

namespace {

using tevrol::IsPrintable;
using tevrol::Printable;
using tevrol::PrintableJson;

std::string Utf8(gunichar character) {
    char bytes[6];
    return std::string(bytes, static_cast<std::size_t>(g_unichar_to_utf8(character, bytes)));
}

std::string Formatted(const char* format, gunichar character) {
    return tevrol::TakeText(g_strdup_printf(format, character));
}

void ExpectEscape(gunichar character, const std::string& escape) {
    const std::string text = "a" + Utf8(character) + "b";
    EXPECT_EQ(Printable(text), "a" + escape + "b");
    EXPECT_FALSE(IsPrintable(text)) << escape;
}

TEST(OutsideText, OfVisibleCharactersStaysAsItIs) {
    for (const std::string text : {"", "plain text ~!\"#", "gr\u00fc\u00dfe", "\u65e5\u672c\u8a9e",
                                   "\U0001f600", "\u00a0", "\u05e9\u05dc\u05d5\u05dd"}) {
        EXPECT_EQ(Printable(text), text);
        EXPECT_TRUE(IsPrintable(text)) << text;
    }
}

TEST(OutsideText, HasEscapesForAllControlsOfTheFirstSet) {
    for (gunichar character = 0; character < 0x20; ++character) {
        const std::string escape = character == '\n'   ? "\\n"
                                   : character == '\r' ? "\\r"
                                   : character == '\t' ? "\\t"
                                                       : Formatted("\\x%02x", character);
        ExpectEscape(character, escape);
    }
    ExpectEscape(0x7f, "\\x7f");
}

TEST(OutsideText, HasEscapesForAllControlsOfTheSecondSet) {
    for (gunichar character = 0x80; character < 0xa0; ++character) {
        ExpectEscape(character, Formatted("\\u%04x", character));
    }
}

TEST(OutsideText, HasEscapesForWhatTurnsTheDirection) {
    for (const gunichar character : {0x061cU, 0x200eU, 0x200fU, 0x202aU, 0x202bU, 0x202cU, 0x202dU,
                                     0x202eU, 0x2066U, 0x2067U, 0x2068U, 0x2069U}) {
        ExpectEscape(character, Formatted("\\u%04x", character));
    }
}

TEST(OutsideText, HasEscapesForWhatEndsALineOrCannotBeSeen) {
    ExpectEscape(0x2028, "\\u2028");
    ExpectEscape(0x2029, "\\u2029");
    ExpectEscape(0x200b, "\\u200b");
    ExpectEscape(0xfeff, "\\ufeff");
    ExpectEscape(0xffff, "\\uffff");
    ExpectEscape(0xe0041, "\\U000e0041");
}

TEST(OutsideText, HasEscapesForEveryByteThatIsNoUtf8) {
    for (int byte = 0x80; byte < 0x100; ++byte) {
        const std::string text = {'a', static_cast<char>(byte), 'b'};
        EXPECT_EQ(Printable(text), "a" + Formatted("\\x%02x", static_cast<guint>(byte)) + "b");
        EXPECT_FALSE(IsPrintable(text));
    }
    EXPECT_EQ(Printable("\xe2\x82"), "\\xe2\\x82") << "cut short at the end";
    EXPECT_EQ(Printable("\xe2\x82z"), "\\xe2\\x82z") << "cut short before another character";
    EXPECT_EQ(Printable("\xc0\xaf"), "\\xc0\\xaf") << "longer than need be";
    EXPECT_EQ(Printable("\xed\xa0\x80"), "\\xed\\xa0\\x80") << "half of a pair";
    EXPECT_EQ(Printable("\xf4\x90\x80\x80"), "\\xf4\\x90\\x80\\x80") << "beyond the last character";
}

TEST(OutsideText, CannotForgeAnEscape) {
    EXPECT_EQ(Printable("\\n"), "\\\\n");
    EXPECT_TRUE(IsPrintable("\\n")) << "it can be seen";
}

TEST(OutsideText, InJsonKeepsItsMeaning) {
    EXPECT_EQ(PrintableJson(R"({"a\n":"gr)"
                            "\u00fc"
                            R"(n\\"})"),
              R"({"a\n":"gr)"
              "\u00fc"
              R"(n\\"})");
    EXPECT_EQ(PrintableJson("\"\u009b\u202e\U000e0041\x7f\xff\""),
              R"("\u009b\u202e\udb40\udc41\u007f\ufffd")");
}

}  // namespace
