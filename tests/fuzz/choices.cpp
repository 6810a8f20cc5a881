// SPDX-License-Identifier: MIT
#include "tests/fuzz/choices.h"

#include <cstdio>
#include <cstdlib>

// NOLINTBEGIN(misc-no-recursion): values nest, as deep as `depth` allows
namespace {

GVariant* AnyTuple(Choices& choices, int depth) {
    std::vector<GVariant*> members;
    for (unsigned left = choices.Below(5); left > 0; --left) {
        members.push_back(AnyValue(choices, depth));
    }
    return g_variant_new_tuple(members.data(), members.size());
}

// Members of one type each: copies of the first.
GVariant* AnyArray(Choices& choices, int depth) {
    GVariant* member = g_variant_ref_sink(AnyValue(choices, depth));
    const std::vector<GVariant*> members(choices.Below(4), member);
    GVariant* array =
        g_variant_new_array(g_variant_get_type(member), members.data(), members.size());
    g_variant_unref(member);
    return array;
}

GVariant* ByteArray(const std::vector<char>& bytes) {
    return g_variant_new_fixed_array(G_VARIANT_TYPE_BYTE, bytes.data(), bytes.size(), 1);
}

}  // namespace

GVariant* AnyValue(Choices& choices, int depth) {
    const unsigned simple = 14;
    const unsigned nested = 4;
    switch (choices.Below(depth > 0 ? simple + nested : simple)) {
        case 0:
            return ByteArray(choices.Bytes());
        case 1:
            return g_variant_new_string(choices.Text().c_str());
        case 2:
            return g_variant_new_byte(static_cast<guint8>(choices.Below(256)));
        case 3:
            return g_variant_new_boolean(choices.OneIn(2) ? TRUE : FALSE);
        case 4:
            return g_variant_new_int16(static_cast<gint16>(choices.Below(256)));
        case 5:
            return g_variant_new_uint16(static_cast<guint16>(choices.Below(256)));
        case 6:
            return g_variant_new_int32(static_cast<gint32>(choices.Below(256)) - 128);
        case 7:
            return g_variant_new_uint32(choices.Below(256));
        case 8:
            return g_variant_new_int64(static_cast<gint64>(choices.Below(256)) - 128);
        case 9:
            return g_variant_new_uint64(choices.Below(256));
        case 10:
            return g_variant_new_double(choices.Below(256));
        case 11:
            return g_variant_new_object_path("/any/path");
        case 12:
            return g_variant_new_signature("(ay)");
        case 13:
            return g_variant_new_handle(static_cast<gint32>(choices.Below(256)));
        case 14:
            return AnyTuple(choices, depth - 1);
        case 15:
            return AnyArray(choices, depth - 1);
        case 16:
            return g_variant_new_variant(AnyValue(choices, depth - 1));
        default:
            return g_variant_new_dict_entry(g_variant_new_string(choices.Text().c_str()),
                                            AnyValue(choices, depth - 1));
    }
}
// NOLINTEND(misc-no-recursion)

GVariant* AnyPayload(Choices& choices) {
    const std::vector<char> bytes = choices.Bytes();
    if (!choices.OneIn(4)) {
        return g_variant_new("(@ay)", ByteArray(bytes));
    }
    // Whatever the bytes mean in GVariant's own serialisation, normal form or not.
    GBytes* serialised = g_bytes_new(bytes.data(), bytes.size());
    GVariant* payload = g_variant_new_from_bytes(G_VARIANT_TYPE("(ay)"), serialised, FALSE);
    g_bytes_unref(serialised);
    return payload;
}

GVariant* AnyBody(Choices& choices) {
    return choices.OneIn(2) ? AnyTuple(choices, 3) : AnyPayload(choices);
}

std::vector<char> BytesOf(GVariant* payload) {
    GVariant* array = g_variant_get_child_value(payload, 0);
    gsize size = 0;
    const auto* bytes = static_cast<const char*>(g_variant_get_fixed_array(array, &size, 1));
    std::vector<char> copy(bytes, bytes + size);
    g_variant_unref(array);
    return copy;
}

void Require(bool holds, const char* what) {
    if (!holds) {
        fprintf(stderr, "does not hold: %s\n", what);
        abort();
    }
}
