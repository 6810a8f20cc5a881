// SPDX-License-Identifier: MIT
// The functions that the channel calls, as the linker redirects them: __wrap_X is what the channel
// gets, __real_X is the function itself. What each one writes and answers is StubWorld's. This file
// is the list of these functions, too: CMake reads their names from it.
#include <cerrno>
#include <cstdarg>
#include <cstdio>

#include "tests/conformance/stub-world.h"

namespace {

StubWorld& World() {
    return *StubWorld::Current();
}

bool Listening() {
    return StubWorld::Current() != nullptr && World().Recording();
}

// ---- How arguments and results are written down, by their type ----

struct Word {
    const char* text;
};
struct Id {
    guint id;
};
struct Flags {
    int flags;
};
struct Byte {
    int byte;
};
struct Handle {
    pthread_t thread;
};

std::string Shown(Word word) {
    return word.text;
}
std::string Shown(Id id) {
    return World().OfId(id.id);
}
std::string Shown(Flags flags) {
    return "flags " + std::to_string(flags.flags);
}
std::string Shown(Byte byte) {
    gchar* text = g_strdup_printf("0x%02x", static_cast<unsigned>(byte.byte));
    std::string hex = text;
    g_free(text);
    return hex;
}
std::string Shown(Handle handle) {
    return "thread#" + std::to_string(handle.thread);
}
std::string Shown(long number) {
    return std::to_string(number);
}
std::string Shown(const char* text) {
    return Quoted(text);
}
std::string Shown(const void* object) {
    return World().Of(object);
}
std::string Shown(GVariant* value) {
    return World().OfValue(value);
}
std::string Shown(const GVariantType* type) {
    return Quoted(g_variant_type_peek_string(type));
}
std::string Shown(GError** error) {
    return World().OfError(error);
}
template <typename Result, typename... Parameters>
std::string Shown(Result (*function)(Parameters...)) {
    return World().Of(reinterpret_cast<const void*>(function));
}
std::string Shown(const GDBusInterfaceVTable* table) {
    const bool calls_the_channel = table->method_call == &TevrolDbusRemote::cb_MethodCall;
    return World().Of(table) + " {" + (calls_the_channel ? "cb_MethodCall" : "another") + ", " +
           Shown(table->get_property) + ", " + Shown(table->set_property) + "}";
}

// Nothing is put into words unless it is recorded.
template <typename... Arguments>
StubWorld::Outcome Try(const MadeCall& call, Ending ending, Arguments... arguments) {
    return World().Begin(call, ending,
                         [&] { return std::vector<std::string>{Shown(arguments)...}; });
}

// A call that cannot fail.
template <typename... Arguments>
StubWorld::Outcome Call(const char* function, Arguments... arguments) {
    return Try({function}, Ending::Succeeds, arguments...);
}

template <typename... Parts>
void End(const StubWorld::Outcome& outcome, Parts... result) {
    World().End(outcome, [&] { return (Shown(result) + ...); });
}

void EndFailed(const StubWorld::Outcome& outcome, const char* result, GError** error) {
    if (!outcome.failure->with_error || error == nullptr) {
        End(outcome, Word{result});
        return;
    }
    constexpr int kCode = G_IO_ERROR_TIMED_OUT;
    World().SetError(error, kCode);
    const void* set = *error;
    End(outcome, Word{result}, Word{", "}, set, Word{" ["}, long{kCode}, Word{"] "},
        static_cast<const char*>((*error)->message));
}

// GIO refuses what is no bus name.
Ending UnlessRefused(const char* name, Ending ending) {
    return g_dbus_is_name(name) != FALSE ? ending : Ending::IsRefused;
}

void Discard(GVariant* floating) {
    if (floating != nullptr) {
        Unref(g_variant_ref_sink(floating));
    }
}

// What puts(), putchar() and putc() share.
template <typename Argument>
int Print(const char* function, Argument argument, int result) {
    const auto outcome = Try({function}, Ending::MayFail, argument);
    if (outcome.failure) {
        End(outcome, Word{"EOF"});
        return EOF;
    }
    return result;
}

}  // namespace

// NOLINTBEGIN(bugprone-reserved-identifier)
extern "C" {

// ---- GObject, GError ----

void __wrap_g_type_init() {
    Call("g_type_init");
}

void __wrap_g_object_unref(gpointer object) {
    Call("g_object_unref", object);
    World().Release(object);
    if (object == StubWorld::Connection()) {
        World().Name(object, "connection");
    }
}

void __real_g_error_free(GError*);
void __wrap_g_error_free(GError* error) {
    Call("g_error_free", error);
    World().Release(error);
    __real_g_error_free(error);
}

void __real_g_clear_error(GError**);
void __wrap_g_clear_error(GError** error) {
    Call("g_clear_error", error);
    World().Release(*error);
    __real_g_clear_error(error);
}

// ---- GVariant ----

GVariant* __wrap_g_variant_new(const gchar* format, ...) {
    va_list args;
    va_start(args, format);
    GVariant* value = g_variant_new_va(format, nullptr, &args);
    va_end(args);
    End(Call("g_variant_new", format), value);
    return value;
}

void __wrap_g_variant_get(GVariant* value, const gchar* format, ...) {
    Call("g_variant_get", value, format);
    va_list args;
    va_start(args, format);
    va_list outputs;
    va_copy(outputs, args);
    g_variant_get_va(value, format, nullptr, &args);
    va_end(args);
    if (std::string(format) == "(ay)") {
        const auto* iterator = *va_arg(outputs, GVariantIter**);
        if (iterator != nullptr) {
            World().Hold(iterator, "iterator");
        }
    }
    va_end(outputs);
}

void __wrap_g_variant_unref(GVariant* value) {
    Call("g_variant_unref", value);
    World().ReleaseReply(value);
    Unref(value);
}

gboolean __real_g_variant_is_of_type(GVariant*, const GVariantType*);
gboolean __wrap_g_variant_is_of_type(GVariant* value, const GVariantType* type) {
    const gboolean is = __real_g_variant_is_of_type(value, type);
    End(Call("g_variant_is_of_type", value, type), Word{is != FALSE ? "TRUE" : "FALSE"});
    return is;
}

const gchar* __real_g_variant_get_type_string(GVariant*);
const gchar* __wrap_g_variant_get_type_string(GVariant* value) {
    const gchar* type = __real_g_variant_get_type_string(value);
    End(Call("g_variant_get_type_string", value), type);
    return type;
}

GVariantBuilder* __real_g_variant_builder_new(const GVariantType*);
GVariantBuilder* __wrap_g_variant_builder_new(const GVariantType* type) {
    GVariantBuilder* builder = __real_g_variant_builder_new(type);
    World().Hold(builder, "builder");
    End(Call("g_variant_builder_new", type), builder);
    return builder;
}

void __wrap_g_variant_builder_add(GVariantBuilder* builder, const gchar* format, ...) {
    va_list args;
    va_start(args, format);
    GVariant* value = g_variant_new_va(format, nullptr, &args);
    va_end(args);
    Call("g_variant_builder_add", builder, format, value);
    g_variant_builder_add_value(builder, value);
}

void __real_g_variant_builder_unref(GVariantBuilder*);
void __wrap_g_variant_builder_unref(GVariantBuilder* builder) {
    Call("g_variant_builder_unref", builder);
    World().Release(builder);
    __real_g_variant_builder_unref(builder);
}

// Right for formats that own nothing ("y"): nothing is kept from one round to the next.
gboolean __wrap_g_variant_iter_loop(GVariantIter* iterator, const gchar* format, ...) {
    const auto outcome = Call("g_variant_iter_loop", iterator, format);
    GVariant* value = g_variant_iter_next_value(iterator);
    if (value == nullptr) {
        End(outcome, Word{"FALSE"});
        return FALSE;
    }
    va_list args;
    va_start(args, format);
    g_variant_get_va(value, format, nullptr, &args);
    va_end(args);
    End(outcome, Word{"TRUE, "}, value);
    Unref(value);
    return TRUE;
}

void __real_g_variant_iter_free(GVariantIter*);
void __wrap_g_variant_iter_free(GVariantIter* iterator) {
    Call("g_variant_iter_free", iterator);
    World().Release(iterator);
    __real_g_variant_iter_free(iterator);
}

// ---- GIO ----

GDBusNodeInfo* __real_g_dbus_node_info_new_for_xml(const gchar*, GError**);
GDBusNodeInfo* __wrap_g_dbus_node_info_new_for_xml(const gchar* xml, GError** error) {
    const auto outcome = Call("g_dbus_node_info_new_for_xml", xml, error);
    GDBusNodeInfo* node = __real_g_dbus_node_info_new_for_xml(xml, error);
    World().HoldAs(node, "node");
    World().Name(node->interfaces[0], "node.interfaces[0]");
    End(outcome, Word{"node"});
    return node;
}

void __real_g_dbus_node_info_unref(GDBusNodeInfo*);
void __wrap_g_dbus_node_info_unref(GDBusNodeInfo* node) {
    Call("g_dbus_node_info_unref", node);
    World().Release(node);
    __real_g_dbus_node_info_unref(node);
}

GDBusConnection* __wrap_g_bus_get_sync(GBusType type, GCancellable* cancellable, GError** error) {
    const bool is_system = type == G_BUS_TYPE_SYSTEM;
    World().Demand(is_system, "the channel lives on the system bus");
    const auto outcome =
        Try({"g_bus_get_sync"}, Ending::MayFailWithError,
            Word{is_system ? "G_BUS_TYPE_SYSTEM" : "another bus"}, cancellable, error);
    if (outcome.failure) {
        EndFailed(outcome, "null", error);
        return nullptr;
    }
    World().HoldAs(StubWorld::Connection(), "connection");
    End(outcome, Word{"connection"});
    return StubWorld::Connection();
}

const gchar* __wrap_g_dbus_connection_get_unique_name(GDBusConnection* connection) {
    constexpr const char* kOwnName = ":1.1";
    End(Call("g_dbus_connection_get_unique_name", connection), kOwnName);
    return kOwnName;
}

guint __wrap_g_dbus_connection_register_object(GDBusConnection* connection, const gchar* path,
                                               GDBusInterfaceInfo* interface_info,
                                               const GDBusInterfaceVTable* vtable,
                                               gpointer user_data, GDestroyNotify free_func,
                                               GError** error) {
    const auto outcome = Try({"g_dbus_connection_register_object"}, Ending::MayFailWithError,
                             connection, path, interface_info, vtable, user_data, free_func, error);
    if (outcome.failure) {
        EndFailed(outcome, "0", error);
        return 0;
    }
    const guint id = World().Register();
    End(outcome, Id{id});
    return id;
}

guint __wrap_g_dbus_connection_signal_subscribe(GDBusConnection* connection, const gchar* sender,
                                                const gchar* interface_name, const gchar* member,
                                                const gchar* path, const gchar* arg0,
                                                GDBusSignalFlags flags,
                                                GDBusSignalCallback callback, gpointer user_data,
                                                GDestroyNotify free_func) {
    const auto outcome =
        Try({"g_dbus_connection_signal_subscribe", "", sender},
            UnlessRefused(sender, Ending::MayFail), connection, sender, interface_name, member,
            path, arg0, Flags{flags}, callback, user_data, free_func);
    const guint id = outcome.failure ? 0 : World().Subscribe(sender);
    End(outcome, Id{id});
    return id;
}

void __wrap_g_dbus_connection_signal_unsubscribe(GDBusConnection* connection, guint id) {
    Call("g_dbus_connection_signal_unsubscribe", connection, Id{id});
    World().Unsubscribe(id);
}

guint __wrap_g_bus_watch_name_on_connection(GDBusConnection* connection, const gchar* name,
                                            GBusNameWatcherFlags flags,
                                            GBusNameAppearedCallback appeared,
                                            GBusNameVanishedCallback vanished, gpointer user_data,
                                            GDestroyNotify free_func) {
    const auto outcome =
        Try({"g_bus_watch_name_on_connection", "", name}, UnlessRefused(name, Ending::MayFail),
            connection, name, Flags{flags}, appeared, vanished, user_data, free_func);
    const guint id = outcome.failure ? 0 : World().Watch(name);
    End(outcome, Id{id});
    return id;
}

// Ends a watch, and nothing else: to GIO the id of a subscription is unknown.
void __wrap_g_bus_unwatch_name(guint id) {
    Call("g_bus_unwatch_name", Id{id});
    World().Unwatch(id);
}

void __wrap_g_bus_unown_name(guint id) {
    Call("g_bus_unown_name", Id{id});
}

GDBusProxy* __wrap_g_dbus_proxy_new_sync(GDBusConnection* connection, GDBusProxyFlags flags,
                                         GDBusInterfaceInfo* info, const gchar* name,
                                         const gchar* path, const gchar* interface_name,
                                         GCancellable* cancellable, GError** error) {
    const bool plain = flags == G_DBUS_PROXY_FLAGS_DO_NOT_LOAD_PROPERTIES;
    const auto outcome =
        Try({"g_dbus_proxy_new_sync", "", name}, UnlessRefused(name, Ending::MayFailWithError),
            connection, Word{plain ? "G_DBUS_PROXY_FLAGS_DO_NOT_LOAD_PROPERTIES" : "other flags"},
            info, name, path, interface_name, cancellable, error);
    if (outcome.failure) {
        EndFailed(outcome, "null", error);
        return nullptr;
    }
    static char proxies[16];
    static std::size_t next = 0;
    void* proxy = &proxies[next++ % sizeof proxies];
    World().Hold(proxy, "proxy");
    End(outcome, static_cast<const void*>(proxy));
    return static_cast<GDBusProxy*>(proxy);
}

GVariant* __wrap_g_dbus_connection_call_sync(GDBusConnection* connection, const gchar* name,
                                             const gchar* path, const gchar* interface_name,
                                             const gchar* method, GVariant* parameters,
                                             const GVariantType* reply_type, GDBusCallFlags flags,
                                             gint timeout, GCancellable* cancellable,
                                             GError** error) {
    GVariant* subject = g_variant_get_child_value(parameters, 0);
    World().Demand(connection == StubWorld::Connection(), "the bus is called that was given");
    const auto outcome =
        Try({"g_dbus_connection_call_sync", method, g_variant_get_string(subject, nullptr)},
            Ending::MayFailWithError, connection, name, path, interface_name, method, parameters,
            reply_type, Flags{flags}, long{timeout}, cancellable, error);
    Unref(subject);
    Discard(parameters);
    if (outcome.failure && !outcome.failure->code) {
        EndFailed(outcome, "null", error);
        return nullptr;
    }
    const guint32 code = outcome.failure ? *outcome.failure->code : 1;
    GVariant* reply = g_variant_new_parsed("(%u,)", code);
    GVariant* held = World().Reply(reply);
    End(outcome, reply, Word{" (uint32 "}, long{code}, Word{",)"});
    return held;
}

GVariant* __wrap_g_dbus_proxy_call_sync(GDBusProxy* proxy, const gchar* method,
                                        GVariant* parameters, GDBusCallFlags flags, gint timeout,
                                        GCancellable* cancellable, GError** error) {
    World().Demand(World().Holds(proxy), "a request goes through the proxy that is held");
    const auto outcome =
        Try({"g_dbus_proxy_call_sync", method, "", parameters}, Ending::MayFailWithError, proxy,
            method, parameters, Flags{flags}, long{timeout}, cancellable, error);
    if (outcome.failure) {
        Discard(parameters);
        EndFailed(outcome, "null", error);
        return nullptr;
    }
    GVariant* value = World().answer != nullptr ? World().answer : parameters;
    const std::string content = World().Recording() ? World().OfValue(value) : "";
    GVariant* held = World().Reply(value);
    if (value != parameters) {
        Discard(parameters);
    }
    End(outcome, value, Word{" "}, Word{content.c_str()});
    return held;
}

gboolean __wrap_g_dbus_connection_emit_signal(GDBusConnection* connection, const gchar* destination,
                                              const gchar* path, const gchar* interface_name,
                                              const gchar* signal, GVariant* parameters,
                                              GError** error) {
    World().Demand(connection == StubWorld::Connection(), "the bus is called that was given");
    const auto outcome = Try({"g_dbus_connection_emit_signal", signal, destination, parameters},
                             Ending::MayFailWithError, connection, destination, path,
                             interface_name, signal, parameters, error);
    Discard(parameters);
    if (outcome.failure) {
        EndFailed(outcome, "FALSE", error);
        return FALSE;
    }
    End(outcome, Word{"TRUE"});
    return TRUE;
}

void __wrap_g_dbus_method_invocation_return_value(GDBusMethodInvocation* invocation,
                                                  GVariant* value) {
    Try({"g_dbus_method_invocation_return_value", "", "", value}, Ending::Succeeds, invocation,
        value);
    Discard(value);
}

// ---- Threads ----

// Starts nothing: a thread's work is done when somebody joins it.
int __wrap_pthread_create(pthread_t* thread, const pthread_attr_t* attributes,
                          void* (*start)(void*), void* argument) {
    World().Demand(*thread == 0, "a thread is started where none is recorded");
    const auto outcome =
        Try({"pthread_create"}, Ending::MayFail, thread, attributes, start, argument);
    if (outcome.failure) {
        if (outcome.failure->writes_handle) {
            *thread = World().HandleOfNoThread();
        }
        End(outcome, Word{"EAGAIN"});
        return EAGAIN;
    }
    *thread = World().StartThread(start, argument);
    End(outcome, Word{"0"});
    return 0;
}

int __wrap_pthread_join(pthread_t thread, void** result) {
    const auto outcome = Call("pthread_join", Handle{thread}, result);
    if (World().Threads().count(thread) == 0) {
        End(outcome, Word{"ESRCH"});
        return ESRCH;
    }
    World().RunThread(thread);
    return 0;
}

int __wrap_usleep(useconds_t microseconds) {
    const auto outcome = Try({"usleep"}, Ending::MayFail, long{microseconds});
    ++World().sleeps;
    if (World().on_sleep) {
        World().on_sleep(World().sleeps);
    }
    if (outcome.failure) {
        End(outcome, Word{"-1"});
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
    Call("pthread_mutex_init", mutex, attributes);
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
    Call("pthread_mutex_destroy", mutex);
    World().Release(mutex);
    return 0;
}

int __real_pthread_mutex_lock(pthread_mutex_t*);
int __wrap_pthread_mutex_lock(pthread_mutex_t* mutex) {
    if (StubWorld::Current() == nullptr || !World().OwnsMutex(mutex)) {
        return __real_pthread_mutex_lock(mutex);
    }
    const auto outcome = Call("pthread_mutex_lock", mutex);
    if (!World().LockMutex(mutex)) {
        End(outcome, Word{"never: it is held"});
    }
    return 0;
}

int __real_pthread_mutex_trylock(pthread_mutex_t*);
int __wrap_pthread_mutex_trylock(pthread_mutex_t* mutex) {
    if (StubWorld::Current() == nullptr || !World().OwnsMutex(mutex)) {
        return __real_pthread_mutex_trylock(mutex);
    }
    const auto outcome = Call("pthread_mutex_trylock", mutex);
    const bool taken = World().LockMutex(mutex);
    End(outcome, Word{taken ? "0" : "EBUSY"});
    return taken ? 0 : EBUSY;
}

int __real_pthread_mutex_unlock(pthread_mutex_t*);
int __wrap_pthread_mutex_unlock(pthread_mutex_t* mutex) {
    if (StubWorld::Current() == nullptr || !World().OwnsMutex(mutex)) {
        return __real_pthread_mutex_unlock(mutex);
    }
    const auto outcome = Call("pthread_mutex_unlock", mutex);
    if (!World().UnlockMutex(mutex)) {
        End(outcome, Word{"refused: it is not held"});
    }
    return 0;
}

// ---- Standard output ----

int __real_puts(const char*);
int __wrap_puts(const char* text) {
    return Listening() ? Print("puts", text, 1) : __real_puts(text);
}

int __real_putchar(int);
int __wrap_putchar(int byte) {
    return Listening() ? Print("putchar", Byte{byte}, byte) : __real_putchar(byte);
}

// What an optimising compiler makes of putchar().
int __real_putc(int, FILE*);
int __wrap_putc(int byte, FILE* stream) {
    return Listening() && stream == stdout ? Print("putchar", Byte{byte}, byte)
                                           : __real_putc(byte, stream);
}

}  // extern "C"
// NOLINTEND(bugprone-reserved-identifier)
