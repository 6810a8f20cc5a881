#include "tests/faults/stranger.h"

Stranger::Stranger(const std::string& address)
    : m_connection(g_dbus_connection_new_for_address_sync(
          address.c_str(),
          static_cast<GDBusConnectionFlags>(G_DBUS_CONNECTION_FLAGS_AUTHENTICATION_CLIENT |
                                            G_DBUS_CONNECTION_FLAGS_MESSAGE_BUS_CONNECTION),
          nullptr, nullptr, nullptr)) {}

Stranger::~Stranger() {
    g_dbus_connection_close_sync(m_connection, nullptr, nullptr);
    g_object_unref(m_connection);
}

std::string Stranger::UniqueName() const {
    return g_dbus_connection_get_unique_name(m_connection);
}

void Stranger::Acquire(const std::string& name) {
    CallDriver("RequestName", g_variant_new("(su)", name.c_str(), 0U));
}

void Stranger::Release(const std::string& name) {
    CallDriver("ReleaseName", g_variant_new("(s)", name.c_str()));
}

void Stranger::Pulse(const std::string& name) {
    Acquire(name);
    Release(name);
}

void Stranger::Emit(const char* destination, const char* path, const char* interface_name,
                    const char* member, GVariant* body) {
    g_dbus_connection_emit_signal(m_connection, destination, path, interface_name, member, body,
                                  nullptr);
    CallDriver("GetId", nullptr);
}

void Stranger::CallDriver(const char* method, GVariant* parameters) {
    GVariant* reply = g_dbus_connection_call_sync(
        m_connection, "org.freedesktop.DBus", "/org/freedesktop/DBus", "org.freedesktop.DBus",
        method, parameters, nullptr, G_DBUS_CALL_FLAGS_NONE, -1, nullptr, nullptr);
    if (reply != nullptr) {
        g_variant_unref(reply);
    }
}
