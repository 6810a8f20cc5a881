// SPDX-License-Identifier: MIT
// For ThreadSanitizer's build alone. GLib hands data from one thread to another under locks that
// ThreadSanitizer does not see. It sees the wake-up of a sleeping main loop, and so would report a
// race whenever nobody slept. These functions take the place of GLib's, in all of the program, and
// say that what was written before a hand-over is read after it.
#include <dlfcn.h>
#include <gio/gio.h>
#include <sanitizer/tsan_interface.h>

// The linker is told to look for this name (CMakeLists.txt). Otherwise it would leave this file out
// where GLib comes first.
extern "C" const int kTevrolGlibUnderTsan;
const int kTevrolGlibUnderTsan = 0;

namespace {

template <typename Function>
Function* Original(const char* name) {
    return reinterpret_cast<Function*>(dlsym(RTLD_NEXT, name));
}

template <typename Function>
struct HandOver {
    Function function;
    gpointer data;
    GDestroyNotify destroy;
};

template <typename Function>
HandOver<Function>* Hand(Function function, gpointer data, GDestroyNotify destroy) {
    auto* handed = new HandOver<Function>{function, data, destroy};
    __tsan_release(handed);
    return handed;
}

template <typename Function>
HandOver<Function>* Take(gpointer data) {
    __tsan_acquire(data);
    return static_cast<HandOver<Function>*>(data);
}

template <typename Function>
void Forget(gpointer data) {
    auto* handed = Take<Function>(data);
    if (handed->destroy != nullptr) {
        handed->destroy(handed->data);
    }
    delete handed;
}

gboolean Dispatch(gpointer data) {
    const auto* handed = Take<GSourceFunc>(data);
    return handed->function(handed->data);
}

GDBusMessage* Filter(GDBusConnection* connection, GDBusMessage* message, gboolean incoming,
                     gpointer data) {
    const auto* handed = Take<GDBusMessageFilterFunction>(data);
    return handed->function(connection, message, incoming, handed->data);
}

}  // namespace

extern "C" {

guint g_idle_add_full(gint priority, GSourceFunc function, gpointer data, GDestroyNotify destroy) {
    static auto* const original = Original<decltype(g_idle_add_full)>("g_idle_add_full");
    return original(priority, Dispatch, Hand(function, data, destroy), Forget<GSourceFunc>);
}

// GLib calls its own of the function above.
guint g_idle_add(GSourceFunc function, gpointer data) {
    return g_idle_add_full(G_PRIORITY_DEFAULT_IDLE, function, data, nullptr);
}

guint g_dbus_connection_add_filter(GDBusConnection* connection, GDBusMessageFilterFunction filter,
                                   gpointer data, GDestroyNotify destroy) {
    static auto* const original =
        Original<decltype(g_dbus_connection_add_filter)>("g_dbus_connection_add_filter");
    return original(connection, Filter, Hand(filter, data, destroy),
                    Forget<GDBusMessageFilterFunction>);
}
}
