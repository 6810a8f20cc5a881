// SPDX-License-Identifier: MIT
// The option --version, which all programs and commands have.
#pragma once

#include <cstring>
#include <iostream>

#include "ipc/tevrol-version.h"

namespace programs {

// Where --version is the first argument: prints the version and returns true.
inline bool PrintVersionIfAsked(int argc, char** argv) {
    const bool asked = argc > 1 && std::strcmp(argv[1], "--version") == 0;
    if (asked) {
        std::cout << "tevrol-dbus-remote " TEVROL_VERSION << std::endl;
    }
    return asked;
}

}  // namespace programs
