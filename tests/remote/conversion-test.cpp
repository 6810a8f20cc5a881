// SPDX-License-Identifier: MIT
// The two payload conversions do the same: compared on every size up to 600, on random ones beyond,
// and on values of other types.
#include "tests/support/conversion.h"

#include <gtest/gtest.h>

#include <memory>
#include <random>
#include <string>
#include <vector>

#include "tests/support/log.h"

namespace {

using Bytes = std::vector<char>;

struct VariantUnref {
    void operator()(GVariant* value) const {
        g_variant_unref(value);
    }
};
using Value = std::unique_ptr<GVariant, VariantUnref>;

Value ToValue(const PayloadConversion& conversion, Bytes bytes) {
    GVariant* value = conversion.to_value(bytes);
    EXPECT_TRUE(g_variant_is_floating(value));
    return Value(g_variant_ref_sink(value));
}

// The type and the serialised form: what a receiver can tell apart.
std::string OnTheWire(GVariant* value) {
    const auto* data = static_cast<const char*>(g_variant_get_data(value));
    return std::string(g_variant_get_type_string(value)) + ":" +
           (data == nullptr ? std::string() : std::string(data, g_variant_get_size(value)));
}

class ConversionTest : public testing::Test {
protected:
    Bytes RandomBytes(std::size_t size) {
        Bytes bytes(size);
        for (char& byte : bytes) {
            byte = static_cast<char>(m_byte(m_random));
        }
        return bytes;
    }

    static void ExpectTheSame(const Bytes& bytes) {
        const Value value = ToValue(per_byte, bytes);
        const Value bulk_value = ToValue(bulk, bytes);
        ASSERT_EQ(OnTheWire(value.get()), OnTheWire(bulk_value.get()));
        ASSERT_TRUE(g_variant_equal(value.get(), bulk_value.get()));
        // Each reads what either has made.
        for (GVariant* made : {value.get(), bulk_value.get()}) {
            ASSERT_EQ(per_byte.to_bytes(made), bytes);
            ASSERT_EQ(bulk.to_bytes(made), bytes);
        }
    }

    static const PayloadConversion per_byte;
    static const PayloadConversion bulk;

private:
    std::mt19937 m_random{20240229};  // the same buffers in every run
    std::uniform_int_distribution<int> m_byte{0, 255};
};

const PayloadConversion ConversionTest::per_byte = PerByteConversion();
const PayloadConversion ConversionTest::bulk = BulkConversion();

TEST_F(ConversionTest, BothAgreeOnEverySizeUpTo600) {
    for (std::size_t size = 0; size <= 600; ++size) {
        ExpectTheSame(RandomBytes(size));
    }
}

TEST_F(ConversionTest, BothAgreeOnRandomSizes) {
    std::mt19937 random{42};
    std::uniform_int_distribution<std::size_t> size{601, 50000};
    for (int i = 0; i < 20; ++i) {
        ExpectTheSame(RandomBytes(size(random)));
    }
}

TEST_F(ConversionTest, BothReadAnyAlignment) {
    // As in a message: the array need not begin at an aligned address.
    const Bytes message = RandomBytes(64);
    for (std::size_t offset = 0; offset < 16; ++offset) {
        const Value value(g_variant_ref_sink(
            g_variant_new_from_data(G_VARIANT_TYPE("(ay)"), message.data() + offset,
                                    message.size() - offset, FALSE, nullptr, nullptr)));
        const Bytes expected(message.begin() + static_cast<std::ptrdiff_t>(offset), message.end());
        EXPECT_EQ(per_byte.to_bytes(value.get()), expected);
        EXPECT_EQ(bulk.to_bytes(value.get()), expected);
    }
}

TEST_F(ConversionTest, BothReadNothingFromWrongType) {
    for (const char* other : {"('text',)", "(@ai [1, 2],)", "()", "(@ay [1], 2)", "@ay [1, 2]"}) {
        const Value value(g_variant_ref_sink(g_variant_new_parsed(other)));
        for (const PayloadConversion& conversion : {per_byte, bulk}) {
            TakeGlibReports();
            EXPECT_EQ(conversion.to_bytes(value.get()), Bytes()) << other;
            EXPECT_EQ(TakeGlibReports().size(), 2U) << other;
        }
    }
}

TEST_F(ConversionTest, NeitherKeepsReferenceToValue) {
    for (const PayloadConversion& conversion : {per_byte, bulk}) {
        bool freed = false;
        {
            const Bytes message = RandomBytes(100);
            const Value value(g_variant_ref_sink(g_variant_new_from_data(
                G_VARIANT_TYPE("(ay)"), message.data(), message.size(), FALSE,
                [](gpointer flag) { *static_cast<bool*>(flag) = true; }, &freed)));
            conversion.to_bytes(value.get());
            EXPECT_FALSE(freed);
        }
        EXPECT_TRUE(freed);
    }
}

}  // namespace
