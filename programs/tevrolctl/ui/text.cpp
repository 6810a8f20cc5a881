// SPDX-License-Identifier: MIT
#include "programs/tevrolctl/ui/text.h"

#include "devkit/glib.h"

namespace programs {

std::string ClockTime(gint64 microseconds) {
    GDateTime* time = g_date_time_new_from_unix_local(microseconds / G_USEC_PER_SEC);
    const std::string seconds = tevrol::TakeText(g_date_time_format(time, "%H:%M:%S"));
    g_date_time_unref(time);
    return tevrol::TakeText(g_strdup_printf(
        "%s.%03d", seconds.c_str(), static_cast<int>(microseconds % G_USEC_PER_SEC / 1000)));
}

std::string Duration(gint64 microseconds) {
    const bool long_one = microseconds >= G_USEC_PER_SEC;
    return tevrol::TakeText(g_strdup_printf(
        "%.2f %s", static_cast<double>(microseconds) / (long_one ? G_USEC_PER_SEC : 1000),
        long_one ? "s" : "ms"));
}

std::string DescribePayload(const tevrol::Bytes& payload, bool hex) {
    return hex ? tevrol::DescribeInHex(payload) : tevrol::Describe(payload);
}

}  // namespace programs
