// SPDX-License-Identifier: MIT
#include "programs/tevrolctl/bus/end.h"

#include <deque>

#include "devkit/thread-safety.h"

namespace programs {
namespace {

using Task = std::function<void()>;

// In C++'s hands, so that a lock that ThreadSanitizer knows passes them on.
struct Tasks {
    tevrol::Mutex mutex;
    std::deque<Task> waiting TEVROL_GUARDED_BY(mutex);
};

// Never destroyed: other threads go on while the process ends.
Tasks& AllTasks() {
    static auto& tasks = *new Tasks;
    return tasks;
}

gboolean RunNextTask(gpointer /*nothing*/) {
    Task task;
    {
        Tasks& tasks = AllTasks();
        const tevrol::Lock lock(tasks.mutex);
        task = std::move(tasks.waiting.front());
        tasks.waiting.pop_front();
    }
    task();
    return G_SOURCE_REMOVE;
}

}  // namespace

void Post(Task task) {
    Tasks& tasks = AllTasks();
    const tevrol::Lock lock(tasks.mutex);
    tasks.waiting.push_back(std::move(task));
    g_idle_add_full(G_PRIORITY_DEFAULT, RunNextTask, nullptr, nullptr);
}

void PostLater(std::chrono::milliseconds delay, Task task) {
    const auto run = [](gpointer data) -> gboolean {
        (*static_cast<Task*>(data))();
        return G_SOURCE_REMOVE;
    };
    const auto destroy = [](gpointer data) { delete static_cast<Task*>(data); };
    g_timeout_add_full(G_PRIORITY_DEFAULT, static_cast<guint>(delay.count()), run,
                       new Task(std::move(task)), destroy);
}

}  // namespace programs
