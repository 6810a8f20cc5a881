// SPDX-License-Identifier: MIT
// The bus that a command uses: chosen by options, then opened.
#pragma once

#include <gio/gio.h>

#include <memory>
#include <string>

#include "devkit/glib.h"

namespace programs {

using Connection = std::unique_ptr<GDBusConnection, tevrol::GObjectUnref>;
using Variant = std::unique_ptr<GVariant, tevrol::GVariantUnref>;

// The options that pick the bus, in every command.
struct BusOptions {
    gchar* address = nullptr;
    gboolean private_bus = FALSE;
};

// Starts a bus for as long as this process lives, whatever ends it, and returns its address, which
// DBUS_SYSTEM_BUS_ADDRESS has from then on. Throws std::runtime_error.
std::string StartPrivateBus();

// Sets DBUS_SYSTEM_BUS_ADDRESS to the chosen bus. A private one ends with the process. Throws
// Failure.
void ChooseBus(const BusOptions& options);

// The connection that the whole process shares, the library included. The process goes on when the
// bus closes it. Throws Failure, after some seconds where the bus does not answer.
GDBusConnection* SystemBus();
// A new connection. Throws Failure likewise.
Connection PrivateConnection();

}  // namespace programs
