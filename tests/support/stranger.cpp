// SPDX-License-Identifier: MIT
#include "tests/support/stranger.h"

Stranger::Stranger(const std::string& address) : m_connection(OpenConnection(address)) {}

Stranger::~Stranger() {
    g_dbus_connection_close_sync(m_connection.get(), nullptr, nullptr);
}

std::string Stranger::UniqueName() const {
    return g_dbus_connection_get_unique_name(m_connection.get());
}

void Stranger::Acquire(const std::string& name) {
    Ask("RequestName", g_variant_new("(su)", name.c_str(), 0U));
}

void Stranger::Release(const std::string& name) {
    Ask("ReleaseName", g_variant_new("(s)", name.c_str()));
}

void Stranger::Pulse(const std::string& name) {
    Acquire(name);
    Release(name);
}

void Stranger::Emit(const char* destination, const char* path, const char* interface_name,
                    const char* member, GVariant* body) {
    g_dbus_connection_emit_signal(m_connection.get(), destination, path, interface_name, member,
                                  body, nullptr);
    Ask("GetId", nullptr);
}

void Stranger::Ask(const char* method, GVariant* parameters) {
    GVariant* reply = CallDriver(m_connection.get(), method, parameters);
    if (reply != nullptr) {
        g_variant_unref(reply);
    }
}
