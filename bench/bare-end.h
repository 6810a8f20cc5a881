// SPDX-License-Identifier: MIT
// The client end of the handshake as bare GIO calls, which the channel's handshake is compared
// with: the same calls in the same order, without log, lock, resending or names built twice.
#pragma once

#include <gio/gio.h>

#include <string>

namespace bench {

class BareEnd {
public:
    // Exports the object, subscribes and announces the SYN. Not destroyed before the process ends.
    explicit BareEnd(const std::string& channel);

    bool IsReady() const {
        return m_ready;
    }

private:
    using OnRelease = void (BareEnd::*)(const char* releaser);
    template <OnRelease handler>
    static void OnOwnerChanged(GDBusConnection* connection, const gchar* sender, const gchar* path,
                               const gchar* interface, const gchar* signal, GVariant* parameters,
                               gpointer self);
    void OnSyn(const char* partner);
    void OnSynAck(const char* partner);
    void OnAck(const char* partner);
    void Bind(const char* partner);
    void Unbind();
    void Pulse(const std::string& name) const;

    GDBusConnection* const m_connection;
    const std::string m_path;
    const std::string m_syn;
    const std::string m_syn_ack;
    const std::string m_ack;
    guint m_watch = 0;
    guint m_signals = 0;
    GDBusProxy* m_proxy = nullptr;
    bool m_ready = false;
};

}  // namespace bench
