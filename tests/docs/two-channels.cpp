// SPDX-License-Identifier: MIT
// A mistake: two channels of one name in one process.
#include <ipc/tevrol-dbus-remote.h>

int main() {
    static auto& first = *new TevrolDbusRemote("demo");
    static auto& second = *new TevrolDbusRemote("demo");
    return first.IsConnectionReady() || second.IsConnectionReady() ? 1 : 0;
}
