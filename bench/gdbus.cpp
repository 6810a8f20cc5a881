// SPDX-License-Identifier: MIT
// The peer that a GLib program would write by hand: a proxy and one GVariant call for a buffer.
#include <gio/gio.h>

#include <stdexcept>

#include "bench/peer.h"

namespace bench {
namespace {

GVariant* ToValue(const Bytes& bytes) {
    GVariant* array = g_variant_new_fixed_array(G_VARIANT_TYPE_BYTE, bytes.data(), bytes.size(), 1);
    return g_variant_new_tuple(&array, 1);
}

Bytes ToBytes(GVariant* value) {
    GVariant* array = g_variant_get_child_value(value, 0);
    gsize size = 0;
    const auto* data = static_cast<const char*>(g_variant_get_fixed_array(array, &size, 1));
    Bytes bytes(data, data + size);
    g_variant_unref(array);
    return bytes;
}

// The same, byte by byte, which the channel's default conversion is compared with.
GVariant* ToValuePerByte(const Bytes& bytes) {
    GVariantBuilder* builder = g_variant_builder_new(G_VARIANT_TYPE_BYTESTRING);
    for (const char byte : bytes) {
        g_variant_builder_add(builder, "y", static_cast<guchar>(byte));
    }
    GVariant* value = g_variant_new("(ay)", builder);
    g_variant_builder_unref(builder);
    return value;
}

Bytes ToBytesPerByte(GVariant* value) {
    Bytes bytes;
    GVariantIter* iter = nullptr;
    g_variant_get(value, "(ay)", &iter);
    guchar byte = 0;
    while (g_variant_iter_loop(iter, "y", &byte) != FALSE) {
        bytes.push_back(static_cast<char>(byte));
    }
    g_variant_iter_free(iter);
    return bytes;
}

GDBusConnection* SystemBus() {
    return g_bus_get_sync(G_BUS_TYPE_SYSTEM, nullptr, nullptr);
}

class GDBusPeer : public Peer {
public:
    GDBusPeer(const Address& service, Conversion conversion, Replies replies)
        : m_service(service.unique_name),
          m_path(ObjectPath(service.channel)),
          m_per_byte(conversion == Conversion::PerByte),
          m_keeps(replies == Replies::Kept),
          m_connection(SystemBus()),
          m_proxy(g_dbus_proxy_new_sync(m_connection, G_DBUS_PROXY_FLAGS_DO_NOT_LOAD_PROPERTIES,
                                        nullptr, m_service.c_str(), m_path.c_str(), kInterface,
                                        nullptr, nullptr)) {}
    ~GDBusPeer() override {
        g_object_unref(m_proxy);
        g_object_unref(m_connection);
    }

    Bytes Request(Bytes& data) override {
        GVariant* reply = g_dbus_proxy_call_sync(m_proxy, kMethod, Convert(data),
                                                 G_DBUS_CALL_FLAGS_NONE, -1, nullptr, nullptr);
        if (reply == nullptr) {
            throw std::runtime_error("GDBus: the request failed");
        }
        Bytes bytes = m_per_byte ? ToBytesPerByte(reply) : ToBytes(reply);
        if (!m_keeps) {
            g_variant_unref(reply);
        }
        return bytes;
    }

    void Notify(Bytes& data) override {
        g_dbus_connection_emit_signal(m_connection, m_service.c_str(), m_path.c_str(), kInterface,
                                      kSignal, Convert(data), nullptr);
    }

private:
    GVariant* Convert(const Bytes& data) const {
        return m_per_byte ? ToValuePerByte(data) : ToValue(data);
    }

    const std::string m_service;
    const std::string m_path;
    const bool m_per_byte;
    const bool m_keeps;
    GDBusConnection* const m_connection;
    GDBusProxy* const m_proxy;
};

template <Bytes (*to_bytes)(GVariant*), GVariant* (*to_value)(const Bytes&)>
void Echo(GDBusConnection* /*connection*/, const gchar* /*sender*/, const gchar* /*path*/,
          const gchar* /*interface*/, const gchar* /*method*/, GVariant* parameters,
          GDBusMethodInvocation* invocation, gpointer /*data*/) {
    g_dbus_method_invocation_return_value(invocation, to_value(to_bytes(parameters)));
}

template <Bytes (*to_bytes)(GVariant*)>
void Drop(GDBusConnection* /*connection*/, const gchar* /*sender*/, const gchar* /*path*/,
          const gchar* /*interface*/, const gchar* /*signal*/, GVariant* parameters,
          gpointer /*data*/) {
    const Bytes taken = to_bytes(parameters);
}

}  // namespace

std::string ProcessUniqueName() {
    return g_dbus_connection_get_unique_name(SystemBus());
}

std::unique_ptr<Peer> MakeGDBusPeer(const Address& service, Conversion conversion,
                                    Replies replies) {
    return std::make_unique<GDBusPeer>(service, conversion, replies);
}

void ServeGDBus(const std::string& channel, const std::string& caller, Conversion conversion,
                const Ready& ready) {
    const bool per_byte = conversion == Conversion::PerByte;
    static const GDBusInterfaceVTable vtable = {
        per_byte ? Echo<ToBytesPerByte, ToValuePerByte> : Echo<ToBytes, ToValue>,
        nullptr,
        nullptr,
        {}};
    GDBusConnection* connection = SystemBus();
    const std::string path = ObjectPath(channel);
    GDBusNodeInfo* node = g_dbus_node_info_new_for_xml(kIntrospection, nullptr);
    g_dbus_connection_register_object(connection, path.c_str(), node->interfaces[0], &vtable,
                                      nullptr, nullptr, nullptr);
    // It can call its caller, as the channel can. The proxy receives all signals of the caller,
    // too.
    g_dbus_proxy_new_sync(connection, G_DBUS_PROXY_FLAGS_DO_NOT_LOAD_PROPERTIES, nullptr,
                          caller.c_str(), path.c_str(), kInterface, nullptr, nullptr);
    g_dbus_connection_signal_subscribe(connection, caller.c_str(), kInterface, nullptr,
                                       path.c_str(), nullptr, G_DBUS_SIGNAL_FLAGS_NONE,
                                       per_byte ? Drop<ToBytesPerByte> : Drop<ToBytes>, nullptr,
                                       nullptr);
    ready(g_dbus_connection_get_unique_name(connection));
    g_main_loop_run(g_main_loop_new(nullptr, FALSE));
}

}  // namespace bench
