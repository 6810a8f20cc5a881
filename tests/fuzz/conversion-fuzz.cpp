// Payload conversion, both ways, over any bytes and any value. The channel's source is included
// because its conversions are inline there.
#include "ipc/tevrol-dbus-remote.cpp"
#include "tests/fuzz/choices.h"

namespace {

void ConvertThereAndBack(Choices& choices) {
    std::vector<char> bytes = choices.Bytes();
    const std::vector<char> original = bytes;
    GVariant* payload = g_variant_ref_sink(TevrolDbusRemote::ConvertBytes(bytes));
    Require(bytes == original, "the bytes are left as they were");
    Require(g_variant_is_of_type(payload, G_VARIANT_TYPE("(ay)")) != FALSE, "the value is (ay)");
    Require(BytesOf(payload) == original, "the value holds the bytes");
    Require(TevrolDbusRemote::ConvertBytes(payload) == original, "the value gives the bytes back");
    g_variant_unref(payload);
}

void ConvertAnyValue(Choices& choices) {
    GVariant* value = g_variant_ref_sink(AnyBody(choices));
    const bool is_payload = g_variant_is_of_type(value, G_VARIANT_TYPE("(ay)")) != FALSE;
    Require(HasType(value, "(ay)", __func__) == is_payload, "another type is told apart");
    Require(TevrolDbusRemote::ConvertBytes(value) ==
                (is_payload ? BytesOf(value) : std::vector<char>()),
            "a payload gives its bytes, another value none");
    g_variant_unref(value);
}

}  // namespace

// The log is not looked at here.
// NOLINTNEXTLINE(bugprone-reserved-identifier)
extern "C" int __dlog_print(int, int, const char*, const char*, ...) {
    return 0;
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
