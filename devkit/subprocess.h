// SPDX-License-Identifier: MIT
// Child processes that never outlive the program that started them.
#pragma once

#include <gio/gio.h>
#include <sys/types.h>

#include <memory>
#include <string>
#include <vector>

#include "devkit/glib.h"

namespace tevrol {

using Subprocess = std::unique_ptr<GSubprocess, GObjectUnref>;

// Starts `arguments` (the program first, looked up in PATH) with the pipes that `flags` ask for.
// The kernel kills the child when the calling thread ends, so call it on a thread that lives long
// enough. The child's standard error goes to the file `error_output`, or where this process's goes
// if that is empty. Throws std::runtime_error when it cannot be started.
Subprocess StartDyingWithParent(const std::vector<std::string>& arguments, GSubprocessFlags flags,
                                const std::string& error_output = "");
// The same as the leader of a process group of its own, so that what it starts can be ended with
// it.
Subprocess StartGroupDyingWithParent(const std::vector<std::string>& arguments,
                                     GSubprocessFlags flags);

// Its process id; 0 when it has ended.
pid_t PidOf(GSubprocess* child);
// Blocks until a SIGSTOP has stopped it.
void AwaitStop(GSubprocess* child);
// Whether a SIGSTOP has stopped it.
bool IsStopped(GSubprocess* child);

}  // namespace tevrol
