// SPDX-License-Identifier: MIT
#include "programs/common/bus.h"

#include <chrono>
#include <cstdlib>
#include <iostream>
#include <optional>
#include <stdexcept>

#include "devkit/private-bus.h"
#include "programs/common/failure.h"
#include "programs/common/run.h"
#include "programs/common/time-limit.h"

namespace programs {
namespace {

using tevrol::TakeMessage;

constexpr std::chrono::seconds kPatience(5);

// `limit` has been the one for connecting. (GLib may give no error when it was over.)
GDBusConnection* Connected(GDBusConnection* connection, const TimeLimit& limit, GError* error) {
    if (connection == nullptr) {
        const bool silent = g_cancellable_is_cancelled(limit.Get()) != FALSE;
        const std::string why = TakeMessage(error);
        throw Failure(kExitNoBus, silent ? "no bus: it does not answer within " +
                                               std::to_string(kPatience.count()) + " s"
                                         : "no bus: " + why);
    }
    return connection;
}

}  // namespace

std::string StartPrivateBus() {
    const auto bus = std::make_shared<std::optional<tevrol::PrivateBus>>();
    MakeUntilTheEnd([&] { bus->emplace(); }, [bus] { bus->reset(); });
    return (*bus)->Address();
}

void ChooseBus(const BusOptions& options) {
    if (options.address != nullptr && options.private_bus != FALSE) {
        throw Failure(kExitUsage, "--address and --private-bus exclude each other");
    }
    if (options.address != nullptr) {
        setenv("DBUS_SYSTEM_BUS_ADDRESS", options.address, 1);
    }
    if (options.private_bus != FALSE) {
        try {
            std::cerr << "private bus: --address '" << StartPrivateBus() << "'" << std::endl;
        } catch (const std::runtime_error& failure) {
            throw Failure(kExitNoBus, failure.what());
        }
    }
}

GDBusConnection* SystemBus() {
    const TimeLimit limit(kPatience);
    GError* error = nullptr;
    GDBusConnection* connection =
        Connected(g_bus_get_sync(G_BUS_TYPE_SYSTEM, limit.Get(), &error), limit, error);
    g_dbus_connection_set_exit_on_close(connection, FALSE);
    return connection;
}

Connection PrivateConnection() {
    const TimeLimit limit(kPatience);
    GError* error = nullptr;
    const std::string address =
        tevrol::TakeText(g_dbus_address_get_for_bus_sync(G_BUS_TYPE_SYSTEM, limit.Get(), &error));
    GDBusConnection* connection = nullptr;
    if (!address.empty()) {
        connection = g_dbus_connection_new_for_address_sync(
            address.c_str(),
            static_cast<GDBusConnectionFlags>(G_DBUS_CONNECTION_FLAGS_AUTHENTICATION_CLIENT |
                                              G_DBUS_CONNECTION_FLAGS_MESSAGE_BUS_CONNECTION),
            nullptr, limit.Get(), &error);
    }
    return Connection(Connected(connection, limit, error));
}

}  // namespace programs
