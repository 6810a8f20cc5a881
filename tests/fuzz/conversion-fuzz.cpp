// SPDX-License-Identifier: MIT
// Payload conversion, both ways and by both conversions, over any bytes and any value. The
// channel's source is included for its check of types, which is local there.
#include "ipc/tevrol-dbus-remote.cpp"  // NOLINT(bugprone-suspicious-include)
#include "tests/fuzz/choices.h"
#include "tests/support/conversion.h"
#include "tests/support/device-log.h"

namespace {

const PayloadConversion kConversions[] = {PerByteConversion(), BulkConversion()};

GVariant* ToValue(const PayloadConversion& conversion, const std::vector<char>& bytes) {
    std::vector<char> given = bytes;
    GVariant* value = g_variant_ref_sink(conversion.to_value(given));
    Require(given == bytes, "the bytes are left as they were");
    return value;
}

void ConvertThereAndBack(Choices& choices) {
    const std::vector<char> bytes = choices.Bytes();
    GVariant* first = ToValue(kConversions[0], bytes);
    for (const PayloadConversion& making : kConversions) {
        GVariant* payload = ToValue(making, bytes);
        Require(g_variant_is_of_type(payload, G_VARIANT_TYPE("(ay)")) != FALSE,
                "the value is (ay)");
        Require(BytesOf(payload) == bytes, "the value holds the bytes");
        Require(g_variant_equal(payload, first) != FALSE, "both make the same value");
        for (const PayloadConversion& reading : kConversions) {
            Require(reading.to_bytes(payload) == bytes, "the value gives the bytes back");
        }
        g_variant_unref(payload);
    }
    g_variant_unref(first);
}

void ConvertAnyValue(Choices& choices) {
    GVariant* value = g_variant_ref_sink(AnyBody(choices));
    const bool is_payload = g_variant_is_of_type(value, G_VARIANT_TYPE("(ay)")) != FALSE;
    Require(HasType(value, "(ay)", __func__) == is_payload, "another type is told apart");
    const std::vector<char> expected = is_payload ? BytesOf(value) : std::vector<char>();
    for (const PayloadConversion& conversion : kConversions) {
        Require(conversion.to_bytes(value) == expected,
                "a payload gives its bytes, another value none");
    }
    g_variant_unref(value);
}

}  // namespace

// The log is not looked at here.
bool TakeLogLine(int, int, const char*, const char*) {
    return true;
}

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    // GLib reports a value that is not "(ay)" as critical.
    static const bool quiet = [] {
        g_log_set_writer_func(
            [](GLogLevelFlags, const GLogField*, gsize, gpointer) { return G_LOG_WRITER_HANDLED; },
            nullptr, nullptr);
        return true;
    }();
    Require(quiet, "GLib is quiet");
    Choices choices(data, size);
    while (choices.AreLeft()) {
        if (choices.OneIn(2)) {
            ConvertAnyValue(choices);
        } else {
            ConvertThereAndBack(choices);
        }
    }
    return 0;
}
