// SPDX-License-Identifier: MIT
// The GIO and thread calls that the channel makes, recorded and, on demand, failed. Works by
// link-time wrapping (see tests/CMakeLists.txt), so it sees only what is linked into the test
// program itself, not what GIO does inside.
#pragma once

#include <glib.h>
#include <pthread.h>

#include <functional>
#include <string>
#include <vector>

namespace gio_calls {

// Each call as its function and what identifies it: "g_bus_unwatch_name 3",
// "g_dbus_connection_call_sync RequestName org.ulmar.Tevrol.demo_CLIENT_SYN".
std::vector<std::string> All();
// Those whose text begins with `beginning`.
std::vector<std::string> Of(const std::string& beginning);
void Clear();

// The calls of g_dbus_connection_call_sync and g_dbus_proxy_call_sync that have not returned yet.
std::vector<std::string> UnderWay();

enum class Failure { WithError, WithoutError };

// The next `times` calls whose text begins with `beginning` return null (g_bus_get_sync,
// g_dbus_proxy_new_sync, ..._call_sync), false (emit_signal), 0 (register_object) or EAGAIN
// (pthread_create), with the error set to G_IO_ERROR_FAILED "failed on purpose" or not. With the
// error pthread_create writes a handle, as glibc does where there is memory for the thread's stack.
void Fail(const std::string& beginning, int times = 1, Failure failure = Failure::WithError);

// The handle that a failed pthread_create writes: of no thread, so that pthread_join ends at once.
constexpr pthread_t kHandleOfNoThread = 1;

// The next call of the bus driver's `method` answers `code` without reaching the bus.
void AnswerCode(const std::string& method, guint32 code);

// The replies that g_dbus_proxy_call_sync has returned, without those that nothing refers to any
// more. The channel keeps them by design, without a pointer to them: to the search for leaks they
// are none because they are remembered here.
std::vector<GVariant*> KeptReplies();

// Runs `action` once, on the calling thread, before the `count`-th call from now on (1: the next)
// is recorded and goes ahead.
void BeforeCall(std::size_t count, std::function<void()> action);

}  // namespace gio_calls
