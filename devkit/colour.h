// SPDX-License-Identifier: MIT
// Whether output may be coloured.
#pragma once

namespace tevrol {

// Whether output to `descriptor` may be coloured: it is a terminal, and NO_COLOR is empty or not
// set.
bool MayColour(int descriptor);

}  // namespace tevrol
