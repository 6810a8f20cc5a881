// SPDX-License-Identifier: MIT
// Searches all states that a world can come to, breadth first, without a limit of depth.
#pragma once

#include <cstddef>
#include <string>
#include <vector>

#include "tests/handshake/world.h"

namespace tevrol::model {

struct Finding {
    std::size_t states = 0;
    // Which statement does not hold, and the shortest run that shows it, a line for each step;
    // empty when all hold.
    std::string refuted;
    std::vector<std::string> run;
    // The most timeouts, of all ends together, that a run without further faults takes until its
    // ends are paired for good; the shortest run to where it takes that many.
    unsigned timeouts = 0;
    std::vector<std::string> slowest;
};

// Searched for:
//   - a state with a Violation();
//   - a complete state from which a run without further faults does not end up paired for good.
Finding Search(const World& start);

}  // namespace tevrol::model
