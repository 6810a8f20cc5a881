// SPDX-License-Identifier: MIT
#include "bench/bare-end.h"

#include "bench/peer.h"

namespace bench {
namespace {

constexpr const char* kDriver = "org.freedesktop.DBus";
constexpr const char* kDriverPath = "/org/freedesktop/DBus";
constexpr guint32 kDoNotQueue = 4;

void Ignore(GDBusConnection* /*connection*/, const gchar* /*sender*/, const gchar* /*path*/,
            const gchar* /*interface*/, const gchar* /*signal*/, GVariant* /*parameters*/,
            gpointer /*self*/) {}

}  // namespace

BareEnd::BareEnd(const std::string& channel)
    : m_connection(g_bus_get_sync(G_BUS_TYPE_SYSTEM, nullptr, nullptr)),
      m_path(ObjectPath(channel)),
      m_syn(BusName(channel, "_CLIENT_SYN")),
      m_syn_ack(BusName(channel, "_CLIENT_SYN_ACK")),
      m_ack(BusName(channel, "_CLIENT_ACK")) {
    static const GDBusInterfaceVTable vtable = {};
    GDBusNodeInfo* node = g_dbus_node_info_new_for_xml(kIntrospection, nullptr);
    g_dbus_connection_register_object(m_connection, m_path.c_str(), node->interfaces[0], &vtable,
                                      this, nullptr, nullptr);
    const auto subscribe = [&](const char* suffix, GDBusSignalCallback callback) {
        g_dbus_connection_signal_subscribe(m_connection, kDriver, kDriver, "NameOwnerChanged",
                                           kDriverPath, BusName(channel, suffix).c_str(),
                                           G_DBUS_SIGNAL_FLAGS_NONE, callback, this, nullptr);
    };
    subscribe("_SERVICE_SYN", OnOwnerChanged<&BareEnd::OnSyn>);
    subscribe("_SERVICE_SYN_ACK", OnOwnerChanged<&BareEnd::OnSynAck>);
    subscribe("_SERVICE_ACK", OnOwnerChanged<&BareEnd::OnAck>);
    Pulse(m_syn);
}

template <BareEnd::OnRelease handler>
void BareEnd::OnOwnerChanged(GDBusConnection* /*connection*/, const gchar* /*sender*/,
                             const gchar* /*path*/, const gchar* /*interface*/,
                             const gchar* /*signal*/, GVariant* parameters, gpointer self) {
    const gchar* old_owner = nullptr;
    const gchar* new_owner = nullptr;
    g_variant_get(parameters, "(&s&s&s)", nullptr, &old_owner, &new_owner);
    if (*new_owner == '\0') {
        (static_cast<BareEnd*>(self)->*handler)(old_owner);
    }
}

void BareEnd::OnSyn(const char* partner) {
    if (m_watch == 0) {
        Bind(partner);
        Pulse(m_syn_ack);
    }
}

void BareEnd::OnSynAck(const char* partner) {
    if (m_watch == 0) {
        Bind(partner);
        Pulse(m_ack);
        m_ready = true;
    }
}

void BareEnd::OnAck(const char* /*partner*/) {
    m_ready = m_watch != 0;
}

void BareEnd::Bind(const char* partner) {
    m_watch = g_bus_watch_name_on_connection(
        m_connection, partner, G_BUS_NAME_WATCHER_FLAGS_NONE, nullptr,
        [](GDBusConnection*, const gchar*, gpointer self) {
            static_cast<BareEnd*>(self)->Unbind();
        },
        this, nullptr);
    m_proxy = g_dbus_proxy_new_sync(m_connection, G_DBUS_PROXY_FLAGS_DO_NOT_LOAD_PROPERTIES,
                                    nullptr, partner, m_path.c_str(), kInterface, nullptr, nullptr);
    m_signals = g_dbus_connection_signal_subscribe(m_connection, partner, kInterface, nullptr,
                                                   m_path.c_str(), nullptr,
                                                   G_DBUS_SIGNAL_FLAGS_NONE, Ignore, this, nullptr);
}

void BareEnd::Unbind() {
    g_bus_unwatch_name(m_watch);
    g_object_unref(m_proxy);
    g_dbus_connection_signal_unsubscribe(m_connection, m_signals);
    m_watch = 0;
    m_ready = false;
}

void BareEnd::Pulse(const std::string& name) const {
    const auto call = [&](const char* method, GVariant* parameters) {
        g_variant_unref(g_dbus_connection_call_sync(m_connection, kDriver, kDriverPath, kDriver,
                                                    method, parameters, G_VARIANT_TYPE("(u)"),
                                                    G_DBUS_CALL_FLAGS_NONE, -1, nullptr, nullptr));
    };
    call("RequestName", g_variant_new("(su)", name.c_str(), kDoNotQueue));
    call("ReleaseName", g_variant_new("(s)", name.c_str()));
}

}  // namespace bench
