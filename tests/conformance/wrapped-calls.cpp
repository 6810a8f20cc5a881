// The functions that the channel calls, as the linker redirects them: __wrap_X is what the channel
// gets, __real_X is the function itself. What each one writes and answers is StubWorld's.
#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <utility>

#include "platform/dlog.h"
#include "tests/conformance/stub-world.h"

namespace {

StubWorld& World() {
    return *StubWorld::Current();
}

bool Listening() {
    return StubWorld::Current() != nullptr && World().Recording();
}

std::string Number(long number) {
    return std::to_string(number);
}

std::string Hex(int byte) {
    gchar* text = g_strdup_printf("0x%02x", static_cast<unsigned>(byte));
    std::string hex = text;
    g_free(text);
    return hex;
}

template <typename Function>
std::string Callback(Function function) {
    return World().Of(reinterpret_cast<const void*>(function));
}

std::string OfTable(const GDBusInterfaceVTable* table) {
    const bool calls_the_channel = table->method_call == &TevrolDbusRemote::cb_MethodCall;
    return World().Of(table) + " {" + (calls_the_channel ? "cb_MethodCall" : "another") + ", " +
           Callback(table->get_property) + ", " + Callback(table->set_property) + "}";
}

void Discard(GVariant* floating) {
    if (floating != nullptr) {
        Unref(g_variant_ref_sink(floating));
    }
}

// Ends a failed call: the result in case of failure, with the error where one is set.
void EndFailed(const StubWorld::Outcome& outcome, const std::string& result, GError** error) {
    if (outcome.failure->with_error && error != nullptr) {
        constexpr int kCode = G_IO_ERROR_TIMED_OUT;
        World().SetError(error, kCode);
        World().End(outcome, result + ", " + World().Of(*error) + " [" + Number(kCode) + "] " +
                                 Quoted((*error)->message));
    } else {
        World().End(outcome, result);
    }
}

// A call that holds an id and cannot fail with an error.
guint TakeId(const StubWorld::Outcome& outcome, const std::string& kind) {
    if (outcome.failure) {
        World().End(outcome, "0");
        return 0;
    }
    const guint id = World().NewId(kind);
    World().End(outcome, World().OfId(id));
    return id;
}

// What puts(), putchar() and putc() share: recorded when it comes from the channel.
int Print(const std::string& function, const std::string& argument, int result) {
    const auto outcome = World().Begin(function, {argument}, "", "", true);
    if (outcome.failure) {
        World().End(outcome, "EOF");
        return EOF;
    }
    return result;
}

int PrintByte(int byte) {
    return Print("putchar", Hex(byte), byte);
}

}  // namespace

// NOLINTBEGIN(bugprone-reserved-identifier)
extern "C" {

// ---- The device's log ----

int __dlog_print(int log_id, int priority, const char* tag, const char* format, ...) {
    va_list args;
    va_start(args, format);
    char* text = nullptr;
    const int length = vasprintf(&text, format, args);
    va_end(args);
    const bool written = World().Log(log_id, priority, tag, text);
    free(text);
    return written ? length : -1;
}

// ---- GObject, GError ----

void __wrap_g_type_init() {
    World().Call("g_type_init", {});
}

void __wrap_g_object_unref(gpointer object) {
    World().Call("g_object_unref", {World().Of(object)});
    World().Release(object);
    if (object == StubWorld::Connection()) {
        World().Name(object, "connection");
    }
}

void __real_g_error_free(GError*);
void __wrap_g_error_free(GError* error) {
    World().Call("g_error_free", {World().Of(error)});
    World().Release(error);
    __real_g_error_free(error);
}

void __real_g_clear_error(GError**);
void __wrap_g_clear_error(GError** error) {
    World().Call("g_clear_error", {World().OfError(error)});
    World().Release(*error);
    __real_g_clear_error(error);
}

// ---- GVariant ----

GVariant* __wrap_g_variant_new(const gchar* format, ...) {
    va_list args;
    va_start(args, format);
    GVariant* value = g_variant_new_va(format, nullptr, &args);
    va_end(args);
    World().End(World().Begin("g_variant_new", {Quoted(format)}), World().OfValue(value));
    return value;
}

void __wrap_g_variant_get(GVariant* value, const gchar* format, ...) {
    World().Call("g_variant_get", {World().OfValue(value), Quoted(format)});
    va_list args;
    va_start(args, format);
    va_list outputs;
    va_copy(outputs, args);
    g_variant_get_va(value, format, nullptr, &args);
    va_end(args);
    if (std::string(format) == "(ay)") {
        const auto* iterator = *va_arg(outputs, GVariantIter**);
        if (iterator != nullptr) {
            World().Hold(iterator, World().NewName("iterator"));
        }
    }
    va_end(outputs);
}

void __wrap_g_variant_unref(GVariant* value) {
    World().Call("g_variant_unref", {World().OfValue(value)});
    World().ReleaseReply(value);
    Unref(value);
}

gboolean __real_g_variant_is_of_type(GVariant*, const GVariantType*);
gboolean __wrap_g_variant_is_of_type(GVariant* value, const GVariantType* type) {
    const gboolean is = __real_g_variant_is_of_type(value, type);
    World().End(World().Begin("g_variant_is_of_type",
                              {World().OfValue(value), Quoted(g_variant_type_peek_string(type))}),
                is != FALSE ? "TRUE" : "FALSE");
    return is;
}

const gchar* __real_g_variant_get_type_string(GVariant*);
const gchar* __wrap_g_variant_get_type_string(GVariant* value) {
    const gchar* type = __real_g_variant_get_type_string(value);
    World().End(World().Begin("g_variant_get_type_string", {World().OfValue(value)}), Quoted(type));
    return type;
}

GVariantBuilder* __real_g_variant_builder_new(const GVariantType*);
GVariantBuilder* __wrap_g_variant_builder_new(const GVariantType* type) {
    GVariantBuilder* builder = __real_g_variant_builder_new(type);
    World().Hold(builder, World().NewName("builder"));
    World().End(World().Begin("g_variant_builder_new", {Quoted(g_variant_type_peek_string(type))}),
                World().Of(builder));
    return builder;
}

void __wrap_g_variant_builder_add(GVariantBuilder* builder, const gchar* format, ...) {
    va_list args;
    va_start(args, format);
    GVariant* value = g_variant_new_va(format, nullptr, &args);
    va_end(args);
    World().Call("g_variant_builder_add",
                 {World().Of(builder), Quoted(format), World().OfValue(value)});
    g_variant_builder_add_value(builder, value);
}

void __real_g_variant_builder_unref(GVariantBuilder*);
void __wrap_g_variant_builder_unref(GVariantBuilder* builder) {
    World().Call("g_variant_builder_unref", {World().Of(builder)});
    World().Release(builder);
    __real_g_variant_builder_unref(builder);
}

// Right for formats that own nothing ("y"): nothing is kept from one round to the next.
gboolean __wrap_g_variant_iter_loop(GVariantIter* iterator, const gchar* format, ...) {
    const auto outcome =
        World().Begin("g_variant_iter_loop", {World().Of(iterator), Quoted(format)});
    GVariant* value = g_variant_iter_next_value(iterator);
    if (value == nullptr) {
        World().End(outcome, "FALSE");
        return FALSE;
    }
    va_list args;
    va_start(args, format);
    g_variant_get_va(value, format, nullptr, &args);
    va_end(args);
    World().End(outcome, "TRUE, " + World().OfValue(value));
    Unref(value);
    return TRUE;
}

void __real_g_variant_iter_free(GVariantIter*);
void __wrap_g_variant_iter_free(GVariantIter* iterator) {
    World().Call("g_variant_iter_free", {World().Of(iterator)});
    World().Release(iterator);
    __real_g_variant_iter_free(iterator);
}

// ---- GIO ----

GDBusNodeInfo* __real_g_dbus_node_info_new_for_xml(const gchar*, GError**);
GDBusNodeInfo* __wrap_g_dbus_node_info_new_for_xml(const gchar* xml, GError** error) {
    const auto outcome =
        World().Begin("g_dbus_node_info_new_for_xml", {Quoted(xml), World().OfError(error)});
    GDBusNodeInfo* node = __real_g_dbus_node_info_new_for_xml(xml, error);
    World().Hold(node, "node");
    World().Name(node->interfaces[0], "node.interfaces[0]");
    World().End(outcome, "node");
    return node;
}

void __real_g_dbus_node_info_unref(GDBusNodeInfo*);
void __wrap_g_dbus_node_info_unref(GDBusNodeInfo* node) {
    World().Call("g_dbus_node_info_unref", {World().Of(node)});
    World().Release(node);
    __real_g_dbus_node_info_unref(node);
}

GDBusConnection* __wrap_g_bus_get_sync(GBusType type, GCancellable* cancellable, GError** error) {
    const auto outcome =
        World().Begin("g_bus_get_sync",
                      {type == G_BUS_TYPE_SYSTEM ? "G_BUS_TYPE_SYSTEM" : "bus type " + Number(type),
                       World().Of(cancellable), World().OfError(error)},
                      "", "", true, true);
    if (outcome.failure) {
        EndFailed(outcome, "null", error);
        return nullptr;
    }
    World().Hold(StubWorld::Connection(), "connection");
    World().End(outcome, "connection");
    return StubWorld::Connection();
}

const gchar* __wrap_g_dbus_connection_get_unique_name(GDBusConnection* connection) {
    constexpr const char* kOwnName = ":1.1";
    World().End(World().Begin("g_dbus_connection_get_unique_name", {World().Of(connection)}),
                Quoted(kOwnName));
    return kOwnName;
}

guint __wrap_g_dbus_connection_register_object(GDBusConnection* connection, const gchar* path,
                                               GDBusInterfaceInfo* interface_info,
                                               const GDBusInterfaceVTable* vtable,
                                               gpointer user_data, GDestroyNotify free_func,
                                               GError** error) {
    const auto outcome = World().Begin(
        "g_dbus_connection_register_object",
        {World().Of(connection), Quoted(path), World().Of(interface_info), OfTable(vtable),
         World().Of(user_data), Callback(free_func), World().OfError(error)},
        "", "", true, true);
    if (outcome.failure) {
        EndFailed(outcome, "0", error);
        return 0;
    }
    return TakeId(outcome, "registration");
}

guint __wrap_g_dbus_connection_signal_subscribe(GDBusConnection* connection, const gchar* sender,
                                                const gchar* interface_name, const gchar* member,
                                                const gchar* path, const gchar* arg0,
                                                GDBusSignalFlags flags,
                                                GDBusSignalCallback callback, gpointer user_data,
                                                GDestroyNotify free_func) {
    return TakeId(
        World().Begin("g_dbus_connection_signal_subscribe",
                      {World().Of(connection), Quoted(sender), Quoted(interface_name),
                       Quoted(member), Quoted(path), Quoted(arg0), "flags " + Number(flags),
                       Callback(callback), World().Of(user_data), Callback(free_func)},
                      "", "", true),
        "subscription");
}

void __wrap_g_dbus_connection_signal_unsubscribe(GDBusConnection* connection, guint id) {
    World().Call("g_dbus_connection_signal_unsubscribe",
                 {World().Of(connection), World().OfId(id)});
    World().ReleaseId(id);
}

guint __wrap_g_bus_watch_name_on_connection(GDBusConnection* connection, const gchar* name,
                                            GBusNameWatcherFlags flags,
                                            GBusNameAppearedCallback appeared,
                                            GBusNameVanishedCallback vanished, gpointer user_data,
                                            GDestroyNotify free_func) {
    const guint id =
        TakeId(World().Begin("g_bus_watch_name_on_connection",
                             {World().Of(connection), Quoted(name), "flags " + Number(flags),
                              Callback(appeared), Callback(vanished), World().Of(user_data),
                              Callback(free_func)},
                             "", "", true),
               "watch");
    if (id != 0) {
        World().watched[id] = name;
    }
    return id;
}

// Ends a watch, and nothing else: to GIO the id of a subscription is unknown.
void __wrap_g_bus_unwatch_name(guint id) {
    World().Call("g_bus_unwatch_name", {World().OfId(id)});
    if (World().watched.erase(id) != 0) {
        World().ReleaseId(id);
    }
}

void __wrap_g_bus_unown_name(guint id) {
    World().Call("g_bus_unown_name", {World().OfId(id)});
}

GDBusProxy* __wrap_g_dbus_proxy_new_sync(GDBusConnection* connection, GDBusProxyFlags flags,
                                         GDBusInterfaceInfo* info, const gchar* name,
                                         const gchar* path, const gchar* interface_name,
                                         GCancellable* cancellable, GError** error) {
    const auto outcome =
        World().Begin("g_dbus_proxy_new_sync",
                      {World().Of(connection),
                       flags == G_DBUS_PROXY_FLAGS_DO_NOT_LOAD_PROPERTIES
                           ? "G_DBUS_PROXY_FLAGS_DO_NOT_LOAD_PROPERTIES"
                           : "flags " + Number(flags),
                       World().Of(info), Quoted(name), Quoted(path), Quoted(interface_name),
                       World().Of(cancellable), World().OfError(error)},
                      "", "", true, true);
    if (outcome.failure) {
        EndFailed(outcome, "null", error);
        return nullptr;
    }
    static char proxies[16];
    static std::size_t next = 0;
    void* proxy = &proxies[next++ % sizeof proxies];
    World().Hold(proxy, World().NewName("proxy"));
    World().End(outcome, World().Of(proxy));
    return static_cast<GDBusProxy*>(proxy);
}

GVariant* __wrap_g_dbus_connection_call_sync(GDBusConnection* connection, const gchar* name,
                                             const gchar* path, const gchar* interface_name,
                                             const gchar* method, GVariant* parameters,
                                             const GVariantType* reply_type, GDBusCallFlags flags,
                                             gint timeout, GCancellable* cancellable,
                                             GError** error) {
    GVariant* subject = g_variant_get_child_value(parameters, 0);
    const auto outcome =
        World().Begin("g_dbus_connection_call_sync",
                      {World().Of(connection), Quoted(name), Quoted(path), Quoted(interface_name),
                       Quoted(method), World().OfValue(parameters),
                       Quoted(g_variant_type_peek_string(reply_type)), "flags " + Number(flags),
                       Number(timeout), World().Of(cancellable), World().OfError(error)},
                      method, g_variant_get_string(subject, nullptr), true, true);
    Unref(subject);
    Discard(parameters);
    if (outcome.failure && !outcome.failure->code) {
        EndFailed(outcome, "null", error);
        return nullptr;
    }
    const guint32 code = outcome.failure ? *outcome.failure->code : 1;
    GVariant* reply = g_variant_new_parsed("(%u,)", code);
    GVariant* held = World().Reply(reply);
    World().End(outcome, World().Of(reply) + " (uint32 " + std::to_string(code) + ",)");
    return held;
}

GVariant* __wrap_g_dbus_proxy_call_sync(GDBusProxy* proxy, const gchar* method,
                                        GVariant* parameters, GDBusCallFlags flags, gint timeout,
                                        GCancellable* cancellable, GError** error) {
    const auto outcome = World().Begin(
        "g_dbus_proxy_call_sync",
        {World().Of(proxy), Quoted(method), World().OfValue(parameters), "flags " + Number(flags),
         Number(timeout), World().Of(cancellable), World().OfError(error)},
        "", "", true, true);
    if (outcome.failure) {
        Discard(parameters);
        EndFailed(outcome, "null", error);
        return nullptr;
    }
    GVariant* value = World().answer != nullptr ? World().answer : parameters;
    const std::string content = World().OfValue(value);
    GVariant* held = World().Reply(value);
    if (value != parameters) {
        Discard(parameters);
    }
    World().End(outcome, World().Of(value) + " " + content);
    return held;
}

gboolean __wrap_g_dbus_connection_emit_signal(GDBusConnection* connection, const gchar* destination,
                                              const gchar* path, const gchar* interface_name,
                                              const gchar* signal, GVariant* parameters,
                                              GError** error) {
    const auto outcome = World().Begin(
        "g_dbus_connection_emit_signal",
        {World().Of(connection), Quoted(destination), Quoted(path), Quoted(interface_name),
         Quoted(signal), World().OfValue(parameters), World().OfError(error)},
        "", "", true, true);
    Discard(parameters);
    if (outcome.failure) {
        EndFailed(outcome, "FALSE", error);
        return FALSE;
    }
    World().End(outcome, "TRUE");
    return TRUE;
}

void __wrap_g_dbus_method_invocation_return_value(GDBusMethodInvocation* invocation,
                                                  GVariant* value) {
    World().Call("g_dbus_method_invocation_return_value",
                 {World().Of(invocation), World().OfValue(value)});
    Discard(value);
}

// ---- Threads ----

// Starts nothing: a thread's work is done when somebody joins it.
int __wrap_pthread_create(pthread_t* thread, const pthread_attr_t* attributes,
                          void* (*start)(void*), void* argument) {
    const auto outcome = World().Begin(
        "pthread_create",
        {World().Of(thread), World().Of(attributes), Callback(start), World().Of(argument)}, "", "",
        true);
    if (outcome.failure) {
        World().End(outcome, "EAGAIN");
        return EAGAIN;
    }
    *thread = World().threads.size() + 1;
    World().threads[*thread] = {start, argument};
    World().End(outcome, "0");
    return 0;
}

int __wrap_pthread_join(pthread_t thread, void** result) {
    World().Call("pthread_join", {"thread#" + std::to_string(thread), World().Of(result)});
    const auto found = World().threads.find(thread);
    if (found != World().threads.end()) {
        found->second.start(found->second.argument);
    }
    return 0;
}

int __wrap_usleep(useconds_t microseconds) {
    const auto outcome = World().Begin("usleep", {Number(microseconds)}, "", "", true);
    ++World().sleeps;
    if (World().on_sleep) {
        World().on_sleep(World().sleeps);
    }
    if (outcome.failure) {
        World().End(outcome, "-1");
        errno = EINTR;
        return -1;
    }
    return 0;
}

int __real_pthread_mutex_init(pthread_mutex_t*, const pthread_mutexattr_t*);
int __wrap_pthread_mutex_init(pthread_mutex_t* mutex, const pthread_mutexattr_t* attributes) {
    if (StubWorld::Current() == nullptr || !World().OwnsMutex(mutex)) {
        return __real_pthread_mutex_init(mutex, attributes);
    }
    World().Call("pthread_mutex_init", {World().Of(mutex), World().Of(attributes)});
    return 0;
}

int __real_pthread_mutex_destroy(pthread_mutex_t*);
int __wrap_pthread_mutex_destroy(pthread_mutex_t* mutex) {
    if (StubWorld::Current() == nullptr || !World().OwnsMutex(mutex)) {
        return __real_pthread_mutex_destroy(mutex);
    }
    // The channel's map is gone by now, its other members are not.
    World().NoteState(false);
    World().EndChannel();
    World().Call("pthread_mutex_destroy", {World().Of(mutex)});
    World().Release(mutex);
    return 0;
}

int __real_pthread_mutex_lock(pthread_mutex_t*);
int __wrap_pthread_mutex_lock(pthread_mutex_t* mutex) {
    if (StubWorld::Current() == nullptr || !World().OwnsMutex(mutex)) {
        return __real_pthread_mutex_lock(mutex);
    }
    const auto outcome = World().Begin("pthread_mutex_lock", {World().Of(mutex)});
    if (!World().LockMutex(mutex)) {
        World().End(outcome, "never: it is held");
    }
    return 0;
}

int __real_pthread_mutex_trylock(pthread_mutex_t*);
int __wrap_pthread_mutex_trylock(pthread_mutex_t* mutex) {
    if (StubWorld::Current() == nullptr || !World().OwnsMutex(mutex)) {
        return __real_pthread_mutex_trylock(mutex);
    }
    const auto outcome = World().Begin("pthread_mutex_trylock", {World().Of(mutex)});
    const bool taken = World().LockMutex(mutex);
    World().End(outcome, taken ? "0" : "EBUSY");
    return taken ? 0 : EBUSY;
}

int __real_pthread_mutex_unlock(pthread_mutex_t*);
int __wrap_pthread_mutex_unlock(pthread_mutex_t* mutex) {
    if (StubWorld::Current() == nullptr || !World().OwnsMutex(mutex)) {
        return __real_pthread_mutex_unlock(mutex);
    }
    const auto outcome = World().Begin("pthread_mutex_unlock", {World().Of(mutex)});
    if (!World().UnlockMutex(mutex)) {
        World().End(outcome, "refused: it is not held");
    }
    return 0;
}

// ---- Standard output ----

int __real_puts(const char*);
int __wrap_puts(const char* text) {
    return Listening() ? Print("puts", Quoted(text), 1) : __real_puts(text);
}

int __real_putchar(int);
int __wrap_putchar(int byte) {
    return Listening() ? PrintByte(byte) : __real_putchar(byte);
}

// What an optimising compiler makes of putchar().
int __real_putc(int, FILE*);
int __wrap_putc(int byte, FILE* stream) {
    return Listening() && stream == stdout ? PrintByte(byte) : __real_putc(byte, stream);
}

}  // extern "C"
// NOLINTEND(bugprone-reserved-identifier)
