// SPDX-License-Identifier: MIT
// Payloads as people read and type them.
#include "devkit/payload.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace {

using testing::Eq;
using testing::Optional;
using tevrol::AllByteValues;
using tevrol::Bytes;
using tevrol::Describe;
using tevrol::DescribeBeginning;
using tevrol::DescribeInHex;
using tevrol::FromHex;
using tevrol::ParsePayload;
using tevrol::ToBytes;
using tevrol::ToHex;

TEST(Payload, OfAllByteValuesHasEachOfThemInOrder) {
    const Bytes all = AllByteValues();
    ASSERT_EQ(all.size(), 256U);
    for (std::size_t i = 0; i < all.size(); ++i) {
        EXPECT_EQ(static_cast<unsigned char>(all[i]), i);
    }
}

TEST(Payload, IsTwoLowerCaseDigitsForEachByteInHex) {
    EXPECT_EQ(ToHex({}), "");
    EXPECT_EQ(ToHex({'\x00', '\x09', '\x0a', '\x7f', '\x80', '\xff'}), "00090a7f80ff");
}

TEST(Payload, OfEveryByteValueComesBackFromHex) {
    EXPECT_THAT(FromHex(ToHex(AllByteValues())), Optional(AllByteValues()));
}

TEST(Payload, InHexMayBeInEitherCaseOrEmpty) {
    EXPECT_THAT(FromHex("aBCdEf"), Optional(Bytes{'\xab', '\xcd', '\xef'}));
    EXPECT_THAT(FromHex(""), Optional(Bytes()));
}

TEST(Payload, InHexOfAnOddNumberOfDigitsOrOfOtherCharactersIsNone) {
    for (const char* text : {"0", "123", "0g", "g0", "0x", " 00", "00 ", "0 ", "+1", "-1", "/0",
                             ":0", "@0", "G0", "`0", "\xff\xff"}) {
        EXPECT_THAT(FromHex(text), Eq(std::nullopt)) << text;
    }
}

TEST(Payload, OfPrintableUtf8IsDescribedAsText) {
    EXPECT_EQ(Describe(ToBytes("hello")), "5 bytes \"hello\"");
    EXPECT_EQ(Describe(ToBytes(" ~")), "2 bytes \" ~\"");
    EXPECT_EQ(Describe(ToBytes("gr\u00fcn \u65e5")), "9 bytes \"gr\u00fcn \u65e5\"");
}

TEST(Payload, OfAnythingElseIsDescribedInHex) {
    EXPECT_EQ(Describe({'a', '\0', 'b'}), "3 bytes hex:610062");
    EXPECT_EQ(Describe({'\x1f'}), "1 byte hex:1f");
    EXPECT_EQ(Describe({'\x7f'}), "1 byte hex:7f");
    EXPECT_EQ(Describe({'\xa4', '\xc3'}), "2 bytes hex:a4c3");
    EXPECT_EQ(Describe({'a', '\xc3'}), "2 bytes hex:61c3");
    EXPECT_EQ(Describe(ToBytes("a\u009b")), "3 bytes hex:61c29b");
    EXPECT_EQ(Describe(ToBytes("a\u202e")), "4 bytes hex:61e280ae");
}

TEST(Payload, OfOneByteAndOfNoneAreDescribedAsThat) {
    EXPECT_EQ(Describe(ToBytes("x")), "1 byte \"x\"");
    EXPECT_EQ(Describe({}), "0 bytes");
}

TEST(Payload, OverTheLimitIsDescribedByItsBeginAndHowMuchIsLeftOut) {
    EXPECT_EQ(Describe(ToBytes("abcdef"), 6), "6 bytes \"abcdef\"");
    EXPECT_EQ(Describe(ToBytes("abcdef"), 4), "6 bytes \"abcd\" (+2 more)");
    EXPECT_EQ(Describe({'a', 'b', '\0'}, 2), "3 bytes \"ab\" (+1 more)");
    EXPECT_EQ(Describe({'a', '\0', 'b'}, 2), "3 bytes hex:6100 (+1 more)");
    EXPECT_EQ(Describe(Bytes(65, 'x')), "65 bytes \"" + std::string(64, 'x') + "\" (+1 more)");
}

TEST(Payload, IsNeverCutWithinACharacter) {
    const Bytes text = ToBytes("a\u00fc\u65e5\U0001f600");
    EXPECT_EQ(Describe(text, 10), "10 bytes \"a\u00fc\u65e5\U0001f600\"");
    for (std::size_t limit : {6U, 7U, 8U, 9U}) {
        EXPECT_EQ(Describe(text, limit), "10 bytes \"a\u00fc\u65e5\" (+4 more)");
    }
    EXPECT_EQ(Describe(text, 5), "10 bytes \"a\u00fc\" (+7 more)");
    EXPECT_EQ(Describe(text, 2), "10 bytes \"a\" (+9 more)");
}

TEST(Payload, OfWhichOnlyTheBeginningIsKnownIsDescribedWithItsSize) {
    EXPECT_EQ(DescribeBeginning(ToBytes("ab"), 5), "5 bytes \"ab\" (+3 more)");
    EXPECT_EQ(DescribeBeginning({'\xff'}, 5), "5 bytes hex:ff (+4 more)");
    EXPECT_EQ(DescribeBeginning({}, 0), "0 bytes");
}

TEST(Payload, IsDescribedInHexAsAWholeWhateverItIs) {
    EXPECT_EQ(DescribeInHex(ToBytes("a~")), "2 bytes hex:617e");
    EXPECT_EQ(DescribeInHex({'\xff'}), "1 byte hex:ff");
    EXPECT_EQ(DescribeInHex({}), "0 bytes");
    EXPECT_EQ(DescribeInHex(AllByteValues()), "256 bytes hex:" + ToHex(AllByteValues()));
}

TEST(Payload, TypedAsTextIsThatText) {
    EXPECT_THAT(ParsePayload("hello world"), Optional(ToBytes("hello world")));
    EXPECT_THAT(ParsePayload(""), Optional(Bytes()));
    EXPECT_THAT(ParsePayload("HEX:00"), Optional(ToBytes("HEX:00")));
    EXPECT_THAT(ParsePayload(" hex:00"), Optional(ToBytes(" hex:00")));
    EXPECT_THAT(ParsePayload("hex"), Optional(ToBytes("hex")));
}

TEST(Payload, TypedAsHexIsThoseBytesOrNone) {
    EXPECT_THAT(ParsePayload("hex:00ff"), Optional(Bytes{'\x00', '\xff'}));
    EXPECT_THAT(ParsePayload("hex:"), Optional(Bytes()));
    EXPECT_THAT(ParsePayload("hex:0"), Eq(std::nullopt));
    EXPECT_THAT(ParsePayload("hex:zz"), Eq(std::nullopt));
    EXPECT_THAT(ParsePayload("hex: 00"), Eq(std::nullopt));
}

}  // namespace
