// SPDX-License-Identifier: MIT
// Times and payloads as people read them.
#pragma once

#include <glib.h>

#include <string>

#include "devkit/payload.h"

namespace programs {

// "12:34:56.789", local time, of microseconds since the epoch.
std::string ClockTime(gint64 microseconds);
// "0.42 ms" or "1.50 s".
std::string Duration(gint64 microseconds);

// The payload for a line: as text if it is plain, or always in hexadecimal.
std::string DescribePayload(const tevrol::Bytes& payload, bool hex);

}  // namespace programs
