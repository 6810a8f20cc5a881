// SPDX-License-Identifier: MIT
// The channel's two ways of converting payloads, side by side: the one call of the bus library for
// each byte, and the one copy that TEVROL_BULK_PAYLOADS selects.
#pragma once

#include <glib.h>

#include <vector>

struct PayloadConversion {
    GVariant* (*to_value)(std::vector<char>& bytes);
    std::vector<char> (*to_bytes)(GVariant* value);
};

PayloadConversion PerByteConversion();
PayloadConversion BulkConversion();
