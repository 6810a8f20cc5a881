// SPDX-License-Identifier: MIT
// The one sd-bus connection of this process: that of the sd-bus peer, and of the caller under which
// all services are measured.
#pragma once

#include <systemd/sd-bus.h>

#include <string>

namespace bench {

sd_bus* SdBusConnection();
std::string SdBusUniqueName();

}  // namespace bench
