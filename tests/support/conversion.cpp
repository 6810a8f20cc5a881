// SPDX-License-Identifier: MIT
// Compiled once for each conversion, with the class and the function below renamed by the build.
// The source is included because the conversions are inline.
#include "tests/support/conversion.h"

#include "ipc/tevrol-dbus-remote.cpp"  // NOLINT(bugprone-suspicious-include)

PayloadConversion Conversion() {
    return {TevrolDbusRemote::ConvertBytes, TevrolDbusRemote::ConvertBytes};
}
