// Child processes that never outlive the program that started them.
#pragma once

#include <gio/gio.h>
#include <sys/types.h>

#include <memory>
#include <string>
#include <vector>

namespace tevrol {

struct GObjectUnref {
    void operator()(gpointer object) const {
        g_object_unref(object);
    }
};
using Subprocess = std::unique_ptr<GSubprocess, GObjectUnref>;

// Starts `arguments` (the program first, looked up in PATH) with the pipes that `flags` ask for.
// The kernel kills the child when the calling thread ends, so call it on a thread that lives as
// long as the child shall. Its standard error goes to the file `error_output`, or where this
// process's goes if that is empty. Throws std::runtime_error when it cannot be started.
Subprocess StartDyingWithParent(const std::vector<std::string>& arguments, GSubprocessFlags flags,
                                const std::string& error_output = "");

// Its process id; 0 when it has ended.
pid_t PidOf(GSubprocess* child);
// Blocks until a SIGSTOP holds it, whoever sends it.
void AwaitStop(GSubprocess* child);
// Whether one does.
bool IsStopped(GSubprocess* child);

}  // namespace tevrol
