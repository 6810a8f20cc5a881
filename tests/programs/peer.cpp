// SPDX-License-Identifier: MIT
#include "tests/programs/peer.h"

#include <gtest/gtest.h>

#include <cstdlib>

namespace {

constexpr const char* kDriver = "org.freedesktop.DBus";

}  // namespace

GVariant* BodyOf(const tevrol::Bytes& payload) {
    return g_variant_new(
        "(@ay)", g_variant_new_fixed_array(G_VARIANT_TYPE_BYTE, payload.data(), payload.size(), 1));
}

Peer::Peer() {
    GError* error = nullptr;
    m_connection.reset(g_dbus_connection_new_for_address_sync(
        getenv("DBUS_SYSTEM_BUS_ADDRESS"),
        static_cast<GDBusConnectionFlags>(G_DBUS_CONNECTION_FLAGS_AUTHENTICATION_CLIENT |
                                          G_DBUS_CONNECTION_FLAGS_MESSAGE_BUS_CONNECTION),
        nullptr, nullptr, &error));
    EXPECT_EQ(error, nullptr);
}

Peer::~Peer() {
    g_dbus_connection_close_sync(m_connection.get(), nullptr, nullptr);
}

std::string Peer::UniqueName() const {
    return g_dbus_connection_get_unique_name(m_connection.get());
}

guint32 Peer::CallDriver(const char* method, GVariant* parameters) {
    GVariant* reply = g_dbus_connection_call_sync(
        m_connection.get(), kDriver, "/org/freedesktop/DBus", kDriver, method, parameters, nullptr,
        G_DBUS_CALL_FLAGS_NONE, G_MAXINT, nullptr, nullptr);
    guint32 code = 0;
    if (reply != nullptr && g_variant_is_of_type(reply, G_VARIANT_TYPE("(u)")) != FALSE) {
        g_variant_get(reply, "(u)", &code);
    }
    g_clear_pointer(&reply, g_variant_unref);
    return code;
}

guint32 Peer::Acquire(const std::string& name, guint32 flags) {
    return CallDriver("RequestName", g_variant_new("(su)", name.c_str(), flags));
}

void Peer::Release(const std::string& name) {
    CallDriver("ReleaseName", g_variant_new("(s)", name.c_str()));
}

void Peer::Pulse(const std::string& name) {
    Acquire(name);
    Release(name);
}

void Peer::Emit(const std::string& destination, GVariant* body, const std::string& path,
                const char* interface_name, const char* member) {
    GDBusMessage* signal = g_dbus_message_new_signal(path.c_str(), interface_name, member);
    if (!destination.empty()) {
        g_dbus_message_set_destination(signal, destination.c_str());
    }
    Send(signal, body);
}

void Peer::Call(const std::string& destination, GVariant* body, const std::string& path,
                const char* interface_name, const char* member) {
    Send(g_dbus_message_new_method_call(destination.c_str(), path.c_str(), interface_name, member),
         body);
}

void Peer::Send(GDBusMessage* message, GVariant* body) {
    g_dbus_message_set_body(message, body);
    g_dbus_connection_send_message(m_connection.get(), message, G_DBUS_SEND_MESSAGE_FLAGS_NONE,
                                   nullptr, nullptr);
    g_object_unref(message);
    CallDriver("GetId", nullptr);  // the bus has passed it on
}
