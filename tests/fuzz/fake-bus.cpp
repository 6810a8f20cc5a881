#include "tests/fuzz/fake-bus.h"

#include <pthread.h>
#include <unistd.h>

#include <cerrno>
#include <utility>

namespace {

using fake_bus::Books;

constexpr pthread_t kThread = 1;

Books g_books;
Choices* g_choices = nullptr;
std::function<void()> g_asleep;
guint g_last_subscription = 0;
guint g_last_watch = 0;
std::vector<GVariant*> g_kept_replies;

std::vector<char> Take(GVariant* floating_payload) {
    g_variant_ref_sink(floating_payload);
    Require(g_variant_is_of_type(floating_payload, G_VARIANT_TYPE("(ay)")) != FALSE,
            "what is sent is (ay)");
    std::vector<char> bytes = BytesOf(floating_payload);
    g_variant_unref(floating_payload);
    return bytes;
}

enum class Outcome { Success, ErrorSet, NullAlone };

// An error is set; or, as GIO does for arguments that it rejects, nothing is returned without one.
Outcome Choose(GError** error) {
    switch (g_choices->Below(8)) {
        case 6:
            g_set_error_literal(error, G_IO_ERROR, G_IO_ERROR_FAILED, "chosen by the fuzzer");
            return Outcome::ErrorSet;
        case 7:
            return Outcome::NullAlone;
        default:
            return Outcome::Success;
    }
}

void ForgetProxy(gpointer, GObject* gone) {
    --g_books.proxies;
    if (g_books.proxy == reinterpret_cast<GDBusProxy*>(gone)) {
        g_books.proxy = nullptr;
    }
}

// RequestName and ReleaseName answer a code; one more of them is what the bus never sends.
GVariant* Code(guint32 code) {
    return g_variant_ref_sink(g_variant_new("(u)", code));
}

void RequireDriverCall(GDBusConnection* connection, const gchar* name, const std::string& method,
                       const std::string& announced) {
    Require(connection == g_books.connection, "announcements go to the channel's bus");
    Require(std::string(name) == "org.freedesktop.DBus", "announcements go to the bus driver");
    Require(announced == "org.ulmar.Tevrol.demo_CLIENT_SYN" ||
                announced == "org.ulmar.Tevrol.demo_CLIENT_SYN_ACK" ||
                announced == "org.ulmar.Tevrol.demo_CLIENT_ACK",
            "only the channel's own names are announced");
    Require(g_books.held_name == (method == "ReleaseName" ? announced : ""),
            "a name is released at once, and nothing else is");
}

}  // namespace

namespace fake_bus {

void Begin(Choices& choices, std::function<void()> asleep) {
    g_books = {};
    g_choices = &choices;
    g_asleep = std::move(asleep);
    g_last_subscription = 0;
    g_last_watch = 0;
}

void End() {
    for (GVariant* reply : std::exchange(g_kept_replies, {})) {
        g_variant_unref(reply);  // the channel keeps its reference for good
    }
    if (g_books.connection != nullptr) {
        g_object_unref(g_books.connection);
    }
    g_choices = nullptr;
    g_asleep = nullptr;
}

Books& State() {
    return g_books;
}

void RunThread() {
    g_books.thread_runs = true;
    g_books.thread_body(g_books.thread_argument);
    g_books.thread = false;
    g_books.thread_runs = false;
}

}  // namespace fake_bus

// The linker's names: __wrap_X is what the channel calls instead of X.
// NOLINTBEGIN(bugprone-reserved-identifier)
extern "C" {

GDBusConnection* __wrap_g_bus_get_sync(GBusType type, GCancellable*, GError** error) {
    Require(type == G_BUS_TYPE_SYSTEM, "the channel lives on the system bus");
    if (Choose(error) != Outcome::Success) {
        return nullptr;
    }
    // Any object will do: nothing looks into it.
    g_books.connection = reinterpret_cast<GDBusConnection*>(g_object_new(G_TYPE_OBJECT, nullptr));
    return static_cast<GDBusConnection*>(g_object_ref(g_books.connection));
}

const gchar* __wrap_g_dbus_connection_get_unique_name(GDBusConnection*) {
    return fake_bus::kOwnName;
}

guint __wrap_g_dbus_connection_register_object(GDBusConnection*, const gchar*, GDBusInterfaceInfo*,
                                               const GDBusInterfaceVTable*, gpointer,
                                               GDestroyNotify, GError** error) {
    return Choose(error) == Outcome::Success ? ++g_books.registrations : 0;
}

guint __wrap_g_dbus_connection_signal_subscribe(GDBusConnection*, const gchar* sender, const gchar*,
                                                const gchar*, const gchar*, const gchar*,
                                                GDBusSignalFlags, GDBusSignalCallback, gpointer,
                                                GDestroyNotify) {
    if (g_dbus_is_name(sender) == FALSE) {
        return 0;
    }
    g_books.subscriptions[++g_last_subscription] = sender;
    return g_last_subscription;
}

void __wrap_g_dbus_connection_signal_unsubscribe(GDBusConnection*, guint id) {
    Require(g_books.subscriptions.erase(id) == 1, "a subscription is given up once");
}

guint __wrap_g_bus_watch_name_on_connection(GDBusConnection*, const gchar* name,
                                            GBusNameWatcherFlags, GBusNameAppearedCallback,
                                            GBusNameVanishedCallback, gpointer, GDestroyNotify) {
    if (g_dbus_is_name(name) == FALSE) {
        return 0;
    }
    g_books.watches[++g_last_watch] = name;
    return g_last_watch;
}

// An id that is none of a watch is only warned about.
void __wrap_g_bus_unwatch_name(guint id) {
    g_books.watches.erase(id);
}

void __wrap_g_bus_unown_name(guint) {
    Require(false, "no name is owned for longer than an announcement");
}

GDBusProxy* __wrap_g_dbus_proxy_new_sync(GDBusConnection*, GDBusProxyFlags, GDBusInterfaceInfo*,
                                         const gchar* name, const gchar*, const gchar*,
                                         GCancellable*, GError** error) {
    if (g_dbus_is_name(name) == FALSE || Choose(error) != Outcome::Success) {
        return nullptr;
    }
    GObject* proxy = G_OBJECT(g_object_new(G_TYPE_OBJECT, nullptr));
    g_object_weak_ref(proxy, ForgetProxy, nullptr);
    ++g_books.proxies;
    g_books.proxy = reinterpret_cast<GDBusProxy*>(proxy);
    return g_books.proxy;
}

GVariant* __wrap_g_dbus_connection_call_sync(GDBusConnection* connection, const gchar* name,
                                             const gchar*, const gchar*, const gchar* method,
                                             GVariant* parameters, const GVariantType*,
                                             GDBusCallFlags, gint, GCancellable*, GError** error) {
    g_variant_ref_sink(parameters);
    const gchar* announced = nullptr;
    g_variant_get_child(parameters, 0, "&s", &announced);
    const std::string text = announced;
    g_variant_unref(parameters);
    RequireDriverCall(connection, name, method, text);
    g_books.held_name.clear();
    if (Choose(error) != Outcome::Success) {
        return nullptr;
    }
    if (std::string(method) == "ReleaseName") {
        return Code(g_choices->Below(5));
    }
    const guint32 code = 1 + g_choices->Below(5);
    g_books.held_name = code == 1 ? text : "";
    return Code(code);
}

GVariant* __wrap_g_dbus_proxy_call_sync(GDBusProxy* proxy, const gchar* method,
                                        GVariant* parameters, GDBusCallFlags, gint, GCancellable*,
                                        GError** error) {
    Require(proxy == g_books.proxy, "requests go to the bound partner");
    Require(std::string(method) == "Send", "a request is a call of Send");
    g_books.requests.push_back(Take(parameters));
    g_books.reply.clear();
    if (Choose(error) != Outcome::Success) {
        return nullptr;
    }
    GVariant* reply = g_variant_ref_sink(AnyBody(*g_choices));
    if (g_variant_is_of_type(reply, G_VARIANT_TYPE("(ay)")) != FALSE) {
        g_books.reply = BytesOf(reply);
        g_kept_replies.push_back(reply);
    }
    return reply;
}

gboolean __wrap_g_dbus_connection_emit_signal(GDBusConnection* connection, const gchar* destination,
                                              const gchar*, const gchar*, const gchar* signal,
                                              GVariant* parameters, GError** error) {
    Require(connection == g_books.connection, "notifications go to the channel's bus");
    Require(std::string(signal) == "SendSignal", "a notification is the signal SendSignal");
    g_books.notifications.push_back(Take(parameters));
    g_books.notified = destination;
    return Choose(error) == Outcome::Success ? TRUE : FALSE;
}

void __wrap_g_dbus_method_invocation_return_value(GDBusMethodInvocation*, GVariant* parameters) {
    g_books.answers.push_back(Take(parameters));
}

int __wrap_pthread_create(pthread_t* thread, const pthread_attr_t*, void* (*body)(void*),
                          void* argument) {
    Require(!g_books.thread, "there is one resend thread at most");
    if (g_choices->OneIn(8)) {
        return EAGAIN;
    }
    *thread = kThread;
    g_books.thread = true;
    g_books.thread_body = body;
    g_books.thread_argument = argument;
    return 0;
}

int __wrap_pthread_join(pthread_t thread, void**) {
    Require(thread == kThread && g_books.thread && !g_books.thread_runs,
            "the thread that is waited for is there");
    fake_bus::RunThread();
    return 0;
}

int __wrap_usleep(useconds_t) {
    g_asleep();
    return 0;
}

}  // extern "C"
// NOLINTEND(bugprone-reserved-identifier)
