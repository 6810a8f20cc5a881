// SPDX-License-Identifier: MIT
// A program that uses both classes.
#include <ipc/tevrol-dbus-remote.h>
#include <ipc/tevrol-version.h>
#include <tevrol/channel.h>
#include <tevrol/version.h>

#include <string>

int main() {
    tevrol::Options options;
    options.address = "unix:path=/nonexistent";
    const tevrol::Channel channel("one", tevrol::Role::Service, {}, options);
    // Its constructor and destructor are all that matters here.
    const bool inert = !channel.IsReady() && sizeof(TevrolDbusRemote) > 0;
    const std::string version = std::to_string(TEVROL_VERSION_MAJOR) + "." +
                                std::to_string(TEVROL_VERSION_MINOR) + "." +
                                std::to_string(TEVROL_VERSION_PATCH);
    return inert && version == TEVROL_VERSION && version == PACKAGE_VERSION ? 0 : 1;
}
