// SPDX-License-Identifier: MIT
#include "devkit/colour.h"

#include <unistd.h>

#include <cstdlib>

namespace tevrol {

bool MayColour(int descriptor) {
    const char* refusal = getenv("NO_COLOR");
    return isatty(descriptor) != 0 && (refusal == nullptr || *refusal == '\0');
}

}  // namespace tevrol
