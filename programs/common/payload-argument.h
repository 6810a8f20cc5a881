// SPDX-License-Identifier: MIT
// Payloads as people type them in commands and arguments.
#pragma once

#include <cstddef>
#include <string>

#include "devkit/payload.h"

namespace programs {

// D-Bus carries no longer array, whatever the limits of a bus.
constexpr std::size_t kLargestPayload = std::size_t{64} << 20;

// What a payload argument stands for. Throws Failure, also when it is over the limit.
tevrol::Bytes ReadPayload(const std::string& typed);
// All of standard input, likewise.
tevrol::Bytes ReadStandardInput();

}  // namespace programs
