// SPDX-License-Identifier: MIT
#include "tests/channel/failures.h"

#include <dlfcn.h>
#include <execinfo.h>
#include <pthread.h>
#include <sys/epoll.h>
#include <sys/eventfd.h>
#include <sys/socket.h>
#include <sys/timerfd.h>
#include <systemd/sd-bus.h>

#include <array>
#include <atomic>
#include <cerrno>
#include <csignal>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <new>
#include <set>

extern "C" char etext;  // the end of the program's code; from the linker

namespace channel_test {
namespace {

constexpr int kMostCallers = 24;

pthread_mutex_t g_mutex = PTHREAD_MUTEX_INITIALIZER;
// All below under it.
Failing g_kind = Failing::Calls;
bool g_armed = false;
unsigned g_share = 0;
unsigned g_shares = 1;
std::set<std::size_t> g_had_their_turn;

// Set before there is a channel.
unsigned g_signal_at = 0;
pid_t g_signalled = 0;
int g_signal = 0;
std::atomic<unsigned> g_calls{0};
std::atomic<bool> g_was_signalled{false};

// The threads of the test call this file's functions before any other does.
thread_local bool t_is_test = false;
thread_local int t_operations = 0;
thread_local int t_handlers = 0;
thread_local bool t_looks = false;  // this file needs memory, too

std::size_t Place() {
    std::array<void*, kMostCallers> callers{};
    const int count = backtrace(callers.data(), kMostCallers);
    std::size_t place = 0;
    for (int i = 0; i < count; ++i) {
        const auto caller = reinterpret_cast<std::size_t>(callers.at(static_cast<std::size_t>(i)));
        // The program's own, which lie at the same addresses in every run.
        if (caller < reinterpret_cast<std::size_t>(&etext)) {
            place = place * 1000003 + caller;
        }
    }
    return place;
}

bool HasItsTurn() {
    const std::size_t place = Place();
    if (place / 64 % g_shares != g_share || !g_had_their_turn.insert(place).second) {
        return false;
    }
    g_armed = false;
    return true;
}

bool Fails(Failing kind) {
    if (t_looks || t_handlers != 0 || (t_is_test && t_operations == 0)) {
        return false;
    }
    t_looks = true;
    pthread_mutex_lock(&g_mutex);
    const bool fails = g_armed && kind == g_kind && HasItsTurn();
    pthread_mutex_unlock(&g_mutex);
    t_looks = false;
    return fails;
}

void SignalIfDue() {
    if (g_signal != 0 && g_calls++ == g_signal_at) {
        kill(g_signalled, g_signal);
        g_was_signalled = true;
    }
}

bool CallFails() {
    SignalIfDue();
    return Fails(Failing::Calls);
}

int FailedSystemCall(int error) {
    errno = error;
    return -1;
}

}  // namespace

void FailAtNextPlace(Failing kind, unsigned share, unsigned shares) {
    t_is_test = true;
    pthread_mutex_lock(&g_mutex);
    g_kind = kind;
    g_share = share;
    g_shares = shares;
    g_armed = true;
    pthread_mutex_unlock(&g_mutex);
}

bool StopFailing() {
    pthread_mutex_lock(&g_mutex);
    const bool failed = !g_armed;
    g_armed = false;
    pthread_mutex_unlock(&g_mutex);
    return failed;
}

void SignalAtCall(unsigned number, pid_t process, int signal) {
    g_signal_at = number;
    g_signalled = process;
    g_signal = signal;
}

bool IsSignalled() {
    return g_was_signalled;
}

InOperation::InOperation() {
    ++t_operations;
}

InOperation::~InOperation() {
    --t_operations;
}

InHandler::InHandler() {
    ++t_handlers;
}

InHandler::~InHandler() {
    --t_handlers;
}

}  // namespace channel_test

using channel_test::CallFails;
using channel_test::FailedSystemCall;

// Not inlined: g++ would take new and delete for a mismatched pair.
__attribute__((noinline)) void* operator new(std::size_t size) {
    void* memory = channel_test::Fails(channel_test::Failing::Memory) ? nullptr : malloc(size);
    if (memory == nullptr) {
        throw std::bad_alloc();
    }
    return memory;
}

__attribute__((noinline)) void operator delete(void* memory) noexcept {
    free(memory);
}

__attribute__((noinline)) void operator delete(void* memory, std::size_t /*size*/) noexcept {
    free(memory);
}

// The linker sends the channel's calls of NAME to __wrap_NAME, and __real_NAME to the original.
// NOLINTBEGIN(bugprone-reserved-identifier,cert-dcl37-c,cert-dcl51-cpp,readability-identifier-naming,cert-dcl50-cpp)
extern "C" {

int __real_sd_bus_new(sd_bus** bus);
int __wrap_sd_bus_new(sd_bus** bus) {
    return CallFails() ? -ENOMEM : __real_sd_bus_new(bus);
}

int __real_sd_bus_open_system(sd_bus** bus);
int __wrap_sd_bus_open_system(sd_bus** bus) {
    return CallFails() ? -ENOENT : __real_sd_bus_open_system(bus);
}

int __real_sd_bus_set_address(sd_bus* bus, const char* address);
int __wrap_sd_bus_set_address(sd_bus* bus, const char* address) {
    return CallFails() ? -ENOMEM : __real_sd_bus_set_address(bus, address);
}

int __real_sd_bus_set_bus_client(sd_bus* bus, int is_client);
int __wrap_sd_bus_set_bus_client(sd_bus* bus, int is_client) {
    return CallFails() ? -EPERM : __real_sd_bus_set_bus_client(bus, is_client);
}

int __real_sd_bus_set_server(sd_bus* bus, int is_server, sd_id128_t id);
int __wrap_sd_bus_set_server(sd_bus* bus, int is_server, sd_id128_t id) {
    return CallFails() ? -EPERM : __real_sd_bus_set_server(bus, is_server, id);
}

int __real_sd_bus_negotiate_fds(sd_bus* bus, int negotiate);
int __wrap_sd_bus_negotiate_fds(sd_bus* bus, int negotiate) {
    return CallFails() ? -EPERM : __real_sd_bus_negotiate_fds(bus, negotiate);
}

int __real_sd_bus_set_fd(sd_bus* bus, int in, int out);
int __wrap_sd_bus_set_fd(sd_bus* bus, int in, int out) {
    return CallFails() ? -EPERM : __real_sd_bus_set_fd(bus, in, out);
}

int __real_sd_bus_start(sd_bus* bus);
int __wrap_sd_bus_start(sd_bus* bus) {
    return CallFails() ? -ECONNREFUSED : __real_sd_bus_start(bus);
}

int __real_sd_id128_randomize(sd_id128_t* id);
int __wrap_sd_id128_randomize(sd_id128_t* id) {
    return CallFails() ? -EIO : __real_sd_id128_randomize(id);
}

int __real_sd_bus_add_filter(sd_bus* bus, sd_bus_slot** slot, sd_bus_message_handler_t handler,
                             void* data);
int __wrap_sd_bus_add_filter(sd_bus* bus, sd_bus_slot** slot, sd_bus_message_handler_t handler,
                             void* data) {
    return CallFails() ? -ENOMEM : __real_sd_bus_add_filter(bus, slot, handler, data);
}

int __real_sd_bus_add_object_vtable(sd_bus* bus, sd_bus_slot** slot, const char* path,
                                    const char* interface, const sd_bus_vtable* table, void* data);
int __wrap_sd_bus_add_object_vtable(sd_bus* bus, sd_bus_slot** slot, const char* path,
                                    const char* interface, const sd_bus_vtable* table, void* data) {
    return CallFails() ? -ENOMEM
                       : __real_sd_bus_add_object_vtable(bus, slot, path, interface, table, data);
}

int __real_sd_bus_process(sd_bus* bus, sd_bus_message** message);
int __wrap_sd_bus_process(sd_bus* bus, sd_bus_message** message) {
    return CallFails() ? -ECONNRESET : __real_sd_bus_process(bus, message);
}

int __real_sd_bus_send(sd_bus* bus, sd_bus_message* message, uint64_t* cookie);
int __wrap_sd_bus_send(sd_bus* bus, sd_bus_message* message, uint64_t* cookie) {
    return CallFails() ? -ENOBUFS : __real_sd_bus_send(bus, message, cookie);
}

int __real_sd_bus_get_unique_name(sd_bus* bus, const char** name);
int __wrap_sd_bus_get_unique_name(sd_bus* bus, const char** name) {
    return CallFails() ? -ENOTCONN : __real_sd_bus_get_unique_name(bus, name);
}

int __real_sd_bus_message_new_method_call(sd_bus* bus, sd_bus_message** message,
                                          const char* destination, const char* path,
                                          const char* interface, const char* member);
int __wrap_sd_bus_message_new_method_call(sd_bus* bus, sd_bus_message** message,
                                          const char* destination, const char* path,
                                          const char* interface, const char* member) {
    return CallFails() ? -ENOMEM
                       : __real_sd_bus_message_new_method_call(bus, message, destination, path,
                                                               interface, member);
}

int __real_sd_bus_message_new_signal(sd_bus* bus, sd_bus_message** message, const char* path,
                                     const char* interface, const char* member);
int __wrap_sd_bus_message_new_signal(sd_bus* bus, sd_bus_message** message, const char* path,
                                     const char* interface, const char* member) {
    return CallFails() ? -ENOMEM
                       : __real_sd_bus_message_new_signal(bus, message, path, interface, member);
}

int __real_sd_bus_message_new_method_return(sd_bus_message* call, sd_bus_message** message);
int __wrap_sd_bus_message_new_method_return(sd_bus_message* call, sd_bus_message** message) {
    return CallFails() ? -ENOMEM : __real_sd_bus_message_new_method_return(call, message);
}

int __wrap_sd_bus_message_new_method_errorf(sd_bus_message* call, sd_bus_message** message,
                                            const char* name, const char* format, ...) {
    if (CallFails()) {
        return -ENOMEM;
    }
    std::array<char, 256> text{};
    va_list arguments;
    va_start(arguments, format);
    vsnprintf(text.data(), text.size(), format, arguments);
    va_end(arguments);
    const sd_bus_error error = {name, text.data(), 0};
    return sd_bus_message_new_method_error(call, message, &error);
}

int __wrap_sd_bus_message_append(sd_bus_message* message, const char* types, ...) {
    if (CallFails()) {
        return -ENOMEM;
    }
    va_list arguments;
    va_start(arguments, types);
    const int result = sd_bus_message_appendv(message, types, arguments);
    va_end(arguments);
    return result;
}

int __real_sd_bus_message_append_array(sd_bus_message* message, char type, const void* data,
                                       size_t size);
int __wrap_sd_bus_message_append_array(sd_bus_message* message, char type, const void* data,
                                       size_t size) {
    return CallFails() ? -ENOMEM : __real_sd_bus_message_append_array(message, type, data, size);
}

int __wrap_sd_bus_message_read(sd_bus_message* message, const char* types, ...) {
    if (CallFails()) {
        return -EBADMSG;
    }
    va_list arguments;
    va_start(arguments, types);
    const int result = sd_bus_message_readv(message, types, arguments);
    va_end(arguments);
    return result;
}

int __real_sd_bus_message_read_array(sd_bus_message* message, char type, const void** data,
                                     size_t* size);
int __wrap_sd_bus_message_read_array(sd_bus_message* message, char type, const void** data,
                                     size_t* size) {
    return CallFails() ? -EBADMSG : __real_sd_bus_message_read_array(message, type, data, size);
}

int __real_sd_bus_message_set_destination(sd_bus_message* message, const char* destination);
int __wrap_sd_bus_message_set_destination(sd_bus_message* message, const char* destination) {
    return CallFails() ? -ENOMEM : __real_sd_bus_message_set_destination(message, destination);
}

int __real_sd_bus_message_enter_container(sd_bus_message* message, char type, const char* contents);
int __wrap_sd_bus_message_enter_container(sd_bus_message* message, char type,
                                          const char* contents) {
    return CallFails() ? -EBADMSG : __real_sd_bus_message_enter_container(message, type, contents);
}

int __real_epoll_create1(int flags);
int __wrap_epoll_create1(int flags) {
    return CallFails() ? FailedSystemCall(EMFILE) : __real_epoll_create1(flags);
}

int __real_epoll_ctl(int epoll, int operation, int fd, epoll_event* event);
int __wrap_epoll_ctl(int epoll, int operation, int fd, epoll_event* event) {
    // What is taken away cannot fail.
    return operation != EPOLL_CTL_DEL && CallFails()
               ? FailedSystemCall(ENOSPC)
               : __real_epoll_ctl(epoll, operation, fd, event);
}

int __real_eventfd(unsigned count, int flags);
int __wrap_eventfd(unsigned count, int flags) {
    return CallFails() ? FailedSystemCall(EMFILE) : __real_eventfd(count, flags);
}

int __real_timerfd_create(int clock, int flags);
int __wrap_timerfd_create(int clock, int flags) {
    return CallFails() ? FailedSystemCall(EMFILE) : __real_timerfd_create(clock, flags);
}

int __real_socketpair(int domain, int type, int protocol, int* sockets);
int __wrap_socketpair(int domain, int type, int protocol, int* sockets) {
    return CallFails() ? FailedSystemCall(EMFILE)
                       : __real_socketpair(domain, type, protocol, sockets);
}

// Of the standard library's threads too: a program's own symbols come first.
int pthread_create(pthread_t* thread, const pthread_attr_t* attributes, void* (*start)(void*),
                   void* data) {
    static const auto real =
        reinterpret_cast<decltype(&pthread_create)>(dlsym(RTLD_NEXT, "pthread_create"));
    return CallFails() ? EAGAIN : real(thread, attributes, start, data);
}

}  // extern "C"
// NOLINTEND(bugprone-reserved-identifier,cert-dcl37-c,cert-dcl51-cpp,readability-identifier-naming,cert-dcl50-cpp)
