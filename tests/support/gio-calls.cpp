// SPDX-License-Identifier: MIT
#include "tests/support/gio-calls.h"

#include <gio/gio.h>
#include <pthread.h>

#include <algorithm>
#include <cerrno>
#include <list>
#include <mutex>
#include <optional>
#include <utility>

namespace {

struct PlannedFailure {
    std::string beginning;
    int times;
    gio_calls::Failure failure;
};

std::mutex g_mutex;  // guards all below
std::vector<std::string> g_calls;
std::list<std::string> g_under_way;
std::list<PlannedFailure> g_failures;
std::list<std::pair<std::string, guint32>> g_codes;
std::size_t g_calls_to_action = 0;
std::function<void()> g_action;

// A reply in the guise in which its end can be seen.
struct WatchedReply {
    GVariant* original;
    GVariant* handed_out;
};
std::mutex g_reply_mutex;  // guards the one below
// Never destroyed: the search for leaks, when all else is over, finds here what the channel keeps.
auto& g_replies = *new std::vector<WatchedReply>;

bool BeginsWith(const std::string& text, const std::string& beginning) {
    return text.compare(0, beginning.size(), beginning) == 0;
}

// The planned action, when it is due at this call.
std::function<void()> TakeDueAction() {
    const std::lock_guard<std::mutex> lock(g_mutex);
    return g_calls_to_action > 0 && --g_calls_to_action == 0 ? std::exchange(g_action, {})
                                                             : std::function<void()>();
}

// Records a call; true when it is to fail, with `error` set if that was planned.
bool RecordAndFail(const std::string& call, GError** error = nullptr) {
    if (const auto action = TakeDueAction()) {
        action();
    }
    const std::lock_guard<std::mutex> lock(g_mutex);
    g_calls.push_back(call);
    for (auto planned = g_failures.begin(); planned != g_failures.end(); ++planned) {
        if (!BeginsWith(call, planned->beginning)) {
            continue;
        }
        if (planned->failure == gio_calls::Failure::WithError && error != nullptr) {
            g_set_error_literal(error, G_IO_ERROR, G_IO_ERROR_FAILED, "failed on purpose");
        }
        if (--planned->times == 0) {
            g_failures.erase(planned);
        }
        return true;
    }
    return false;
}

// A synchronous call, for as long as it waits for its answer.
class Wait {
public:
    explicit Wait(const std::string& call) {
        const std::lock_guard<std::mutex> lock(g_mutex);
        m_place = g_under_way.insert(g_under_way.end(), call);
    }
    ~Wait() {
        const std::lock_guard<std::mutex> lock(g_mutex);
        g_under_way.erase(m_place);
    }
    Wait(const Wait&) = delete;
    Wait& operator=(const Wait&) = delete;

private:
    std::list<std::string>::iterator m_place;
};

std::optional<guint32> TakeCode(const std::string& method) {
    const std::lock_guard<std::mutex> lock(g_mutex);
    for (auto code = g_codes.begin(); code != g_codes.end(); ++code) {
        if (code->first == method) {
            const guint32 value = code->second;
            g_codes.erase(code);
            return value;
        }
    }
    return std::nullopt;
}

void ForgetReply(gpointer original) {
    {
        const std::lock_guard<std::mutex> lock(g_reply_mutex);
        g_replies.erase(
            std::find_if(g_replies.begin(), g_replies.end(),
                         [=](const WatchedReply& reply) { return reply.original == original; }));
    }
    g_variant_unref(static_cast<GVariant*>(original));
}

// The same value as `reply`, which it takes over, in memory that tells when it is given up: a
// GVariant has no count of references to look at.
GVariant* Watch(GVariant* reply) {
    GBytes* content = g_bytes_new_with_free_func(g_variant_get_data(reply),
                                                 g_variant_get_size(reply), ForgetReply, reply);
    GVariant* handed_out =
        g_variant_ref_sink(g_variant_new_from_bytes(g_variant_get_type(reply), content, TRUE));
    {
        const std::lock_guard<std::mutex> lock(g_reply_mutex);
        g_replies.push_back({reply, handed_out});
    }
    g_bytes_unref(content);
    return handed_out;
}

void Discard(GVariant* floating) {
    if (floating != nullptr) {
        g_variant_unref(g_variant_ref_sink(floating));
    }
}

// " NAME" where the first parameter is a name, as in RequestName and ReleaseName.
std::string FirstName(GVariant* parameters) {
    if (parameters == nullptr || g_variant_get_type_string(parameters)[1] != 's') {
        return {};
    }
    const gchar* name = nullptr;
    g_variant_get_child(parameters, 0, "&s", &name);
    return std::string(" ") + name;
}

std::string OrNull(const char* text) {
    return text == nullptr ? "(null)" : text;
}

}  // namespace

namespace gio_calls {

std::vector<std::string> All() {
    return Of("");
}

std::vector<std::string> Of(const std::string& beginning) {
    const std::lock_guard<std::mutex> lock(g_mutex);
    std::vector<std::string> calls;
    for (const std::string& call : g_calls) {
        if (BeginsWith(call, beginning)) {
            calls.push_back(call);
        }
    }
    return calls;
}

void Clear() {
    const std::lock_guard<std::mutex> lock(g_mutex);
    g_calls.clear();
}

std::vector<std::string> UnderWay() {
    const std::lock_guard<std::mutex> lock(g_mutex);
    return {g_under_way.begin(), g_under_way.end()};
}

void Fail(const std::string& beginning, int times, Failure failure) {
    const std::lock_guard<std::mutex> lock(g_mutex);
    g_failures.push_back({beginning, times, failure});
}

void AnswerCode(const std::string& method, guint32 code) {
    const std::lock_guard<std::mutex> lock(g_mutex);
    g_codes.emplace_back(method, code);
}

std::vector<GVariant*> KeptReplies() {
    const std::lock_guard<std::mutex> lock(g_reply_mutex);
    std::vector<GVariant*> kept;
    kept.reserve(g_replies.size());
    for (const WatchedReply& reply : g_replies) {
        kept.push_back(reply.handed_out);
    }
    return kept;
}

void BeforeCall(std::size_t count, std::function<void()> action) {
    const std::lock_guard<std::mutex> lock(g_mutex);
    g_calls_to_action = count;
    g_action = std::move(action);
}

}  // namespace gio_calls

// The linker's names: __real_X is the function, __wrap_X is what the channel calls instead.
// NOLINTBEGIN(bugprone-reserved-identifier)
extern "C" {

GDBusConnection* __real_g_bus_get_sync(GBusType, GCancellable*, GError**);
GDBusConnection* __wrap_g_bus_get_sync(GBusType type, GCancellable* cancellable, GError** error) {
    if (RecordAndFail("g_bus_get_sync " + std::to_string(type), error)) {
        return nullptr;
    }
    return __real_g_bus_get_sync(type, cancellable, error);
}

guint __real_g_dbus_connection_register_object(GDBusConnection*, const gchar*, GDBusInterfaceInfo*,
                                               const GDBusInterfaceVTable*, gpointer,
                                               GDestroyNotify, GError**);
guint __wrap_g_dbus_connection_register_object(GDBusConnection* connection, const gchar* path,
                                               GDBusInterfaceInfo* interface_info,
                                               const GDBusInterfaceVTable* vtable,
                                               gpointer user_data, GDestroyNotify free_func,
                                               GError** error) {
    if (RecordAndFail("g_dbus_connection_register_object " + OrNull(path), error)) {
        return 0;
    }
    return __real_g_dbus_connection_register_object(connection, path, interface_info, vtable,
                                                    user_data, free_func, error);
}

guint __real_g_dbus_connection_signal_subscribe(GDBusConnection*, const gchar*, const gchar*,
                                                const gchar*, const gchar*, const gchar*,
                                                GDBusSignalFlags, GDBusSignalCallback, gpointer,
                                                GDestroyNotify);
guint __wrap_g_dbus_connection_signal_subscribe(GDBusConnection* connection, const gchar* sender,
                                                const gchar* interface_name, const gchar* member,
                                                const gchar* path, const gchar* arg0,
                                                GDBusSignalFlags flags,
                                                GDBusSignalCallback callback, gpointer user_data,
                                                GDestroyNotify free_func) {
    if (RecordAndFail("g_dbus_connection_signal_subscribe " + OrNull(sender) + " " +
                      OrNull(member) + " " + OrNull(arg0))) {
        return 0;
    }
    return __real_g_dbus_connection_signal_subscribe(connection, sender, interface_name, member,
                                                     path, arg0, flags, callback, user_data,
                                                     free_func);
}

void __real_g_dbus_connection_signal_unsubscribe(GDBusConnection*, guint);
void __wrap_g_dbus_connection_signal_unsubscribe(GDBusConnection* connection, guint id) {
    RecordAndFail("g_dbus_connection_signal_unsubscribe " + std::to_string(id));
    __real_g_dbus_connection_signal_unsubscribe(connection, id);
}

guint __real_g_bus_watch_name_on_connection(GDBusConnection*, const gchar*, GBusNameWatcherFlags,
                                            GBusNameAppearedCallback, GBusNameVanishedCallback,
                                            gpointer, GDestroyNotify);
guint __wrap_g_bus_watch_name_on_connection(GDBusConnection* connection, const gchar* name,
                                            GBusNameWatcherFlags flags,
                                            GBusNameAppearedCallback appeared,
                                            GBusNameVanishedCallback vanished, gpointer user_data,
                                            GDestroyNotify free_func) {
    if (RecordAndFail("g_bus_watch_name_on_connection " + OrNull(name))) {
        return 0;
    }
    return __real_g_bus_watch_name_on_connection(connection, name, flags, appeared, vanished,
                                                 user_data, free_func);
}

void __real_g_bus_unwatch_name(guint);
void __wrap_g_bus_unwatch_name(guint id) {
    RecordAndFail("g_bus_unwatch_name " + std::to_string(id));
    __real_g_bus_unwatch_name(id);
}

void __real_g_bus_unown_name(guint);
void __wrap_g_bus_unown_name(guint id) {
    RecordAndFail("g_bus_unown_name " + std::to_string(id));
    __real_g_bus_unown_name(id);
}

GDBusProxy* __real_g_dbus_proxy_new_sync(GDBusConnection*, GDBusProxyFlags, GDBusInterfaceInfo*,
                                         const gchar*, const gchar*, const gchar*, GCancellable*,
                                         GError**);
GDBusProxy* __wrap_g_dbus_proxy_new_sync(GDBusConnection* connection, GDBusProxyFlags flags,
                                         GDBusInterfaceInfo* info, const gchar* name,
                                         const gchar* path, const gchar* interface_name,
                                         GCancellable* cancellable, GError** error) {
    if (RecordAndFail("g_dbus_proxy_new_sync " + OrNull(name) + " " + OrNull(path), error)) {
        return nullptr;
    }
    return __real_g_dbus_proxy_new_sync(connection, flags, info, name, path, interface_name,
                                        cancellable, error);
}

GVariant* __real_g_dbus_connection_call_sync(GDBusConnection*, const gchar*, const gchar*,
                                             const gchar*, const gchar*, GVariant*,
                                             const GVariantType*, GDBusCallFlags, gint,
                                             GCancellable*, GError**);
GVariant* __wrap_g_dbus_connection_call_sync(GDBusConnection* connection, const gchar* name,
                                             const gchar* path, const gchar* interface_name,
                                             const gchar* method, GVariant* parameters,
                                             const GVariantType* reply_type, GDBusCallFlags flags,
                                             gint timeout, GCancellable* cancellable,
                                             GError** error) {
    const std::string call =
        "g_dbus_connection_call_sync " + OrNull(method) + FirstName(parameters);
    if (RecordAndFail(call, error)) {
        Discard(parameters);
        return nullptr;
    }
    if (const auto code = TakeCode(method)) {
        Discard(parameters);
        return g_variant_ref_sink(g_variant_new("(u)", *code));
    }
    const Wait wait(call);
    return __real_g_dbus_connection_call_sync(connection, name, path, interface_name, method,
                                              parameters, reply_type, flags, timeout, cancellable,
                                              error);
}

GVariant* __real_g_dbus_proxy_call_sync(GDBusProxy*, const gchar*, GVariant*, GDBusCallFlags, gint,
                                        GCancellable*, GError**);
GVariant* __wrap_g_dbus_proxy_call_sync(GDBusProxy* proxy, const gchar* method,
                                        GVariant* parameters, GDBusCallFlags flags, gint timeout,
                                        GCancellable* cancellable, GError** error) {
    const std::string call = "g_dbus_proxy_call_sync " + OrNull(method);
    if (RecordAndFail(call, error)) {
        Discard(parameters);
        return nullptr;
    }
    const Wait wait(call);
    GVariant* reply = __real_g_dbus_proxy_call_sync(proxy, method, parameters, flags, timeout,
                                                    cancellable, error);
    return reply == nullptr ? nullptr : Watch(reply);
}

gboolean __real_g_dbus_connection_emit_signal(GDBusConnection*, const gchar*, const gchar*,
                                              const gchar*, const gchar*, GVariant*, GError**);
gboolean __wrap_g_dbus_connection_emit_signal(GDBusConnection* connection, const gchar* destination,
                                              const gchar* path, const gchar* interface_name,
                                              const gchar* signal, GVariant* parameters,
                                              GError** error) {
    if (RecordAndFail(
            "g_dbus_connection_emit_signal " + OrNull(signal) + " to " + OrNull(destination),
            error)) {
        Discard(parameters);
        return FALSE;
    }
    const gboolean sent = __real_g_dbus_connection_emit_signal(
        connection, destination, path, interface_name, signal, parameters, error);
    // GIO takes over no parameters of a call that it refuses as a programming error. The channel
    // keeps calling, by design, and leaves them; here they would be a leak of every such test.
    if (sent == FALSE && (error == nullptr || *error == nullptr)) {
        Discard(parameters);
    }
    return sent;
}

int __real_pthread_create(pthread_t*, const pthread_attr_t*, void* (*)(void*), void*);
int __wrap_pthread_create(pthread_t* thread, const pthread_attr_t* attributes,
                          void* (*start)(void*), void* argument) {
    GError* error = nullptr;
    if (RecordAndFail("pthread_create", &error)) {
        if (error != nullptr) {
            g_error_free(error);
            *thread = gio_calls::kHandleOfNoThread;
        }
        return EAGAIN;
    }
    return __real_pthread_create(thread, attributes, start, argument);
}

int __real_pthread_join(pthread_t, void**);
int __wrap_pthread_join(pthread_t thread, void** result) {
    RecordAndFail("pthread_join");
    if (thread == gio_calls::kHandleOfNoThread) {
        return ESRCH;
    }
    return __real_pthread_join(thread, result);
}

}  // extern "C"
// NOLINTEND(bugprone-reserved-identifier)
