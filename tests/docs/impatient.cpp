// SPDX-License-Identifier: MIT
// Takes the place of GIO's call in an application: what it waits for 25 seconds, it waits for half
// a second here, so that its timeout can be seen in a test.
#include <dlfcn.h>
#include <gio/gio.h>

extern "C" GVariant* g_dbus_proxy_call_sync(GDBusProxy* proxy, const gchar* method,
                                            GVariant* parameters, GDBusCallFlags flags,
                                            gint timeout, GCancellable* cancellable,
                                            GError** error) {
    constexpr gint kHalfASecond = 500;
    static const auto original = reinterpret_cast<decltype(&g_dbus_proxy_call_sync)>(
        dlsym(RTLD_NEXT, "g_dbus_proxy_call_sync"));
    return original(proxy, method, parameters, flags, timeout == -1 ? kHalfASecond : timeout,
                    cancellable, error);
}
