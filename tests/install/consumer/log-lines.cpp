// SPDX-License-Identifier: MIT
// Has the channel log a few lines.
#include <ipc/tevrol-dbus-remote.h>

int main() {
    const TevrolDbusRemote channel("demo");
    return 0;
}
