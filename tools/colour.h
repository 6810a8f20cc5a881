// Whether output may be coloured.
#pragma once

namespace tevrol {

// Whether what goes to `descriptor` may be coloured: a terminal, and NO_COLOR, if not empty, does
// not forbid it.
bool MayColour(int descriptor);

}  // namespace tevrol
