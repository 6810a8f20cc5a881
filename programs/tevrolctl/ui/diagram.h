// SPDX-License-Identifier: MIT
// A recording as a sequence diagram.
#pragma once

#include <cstddef>
#include <string>
#include <vector>

#include "programs/tevrolctl/bus/event.h"

namespace programs {

// Of a payload so many bytes are drawn.
constexpr std::size_t kDrawnBytes = 16;

// SVG pages of `rows` events each, on white, in their natural size: one row for each event, and one
// lane for each process, which a later process takes over when that has left the bus. `left_out` is
// how many earlier events there were.
std::vector<std::string> Diagram(const std::vector<Event>& events, std::size_t rows,
                                 std::size_t left_out);

}  // namespace programs
