// SPDX-License-Identifier: MIT
// What ThreadSanitizer must report, and what it must not although it cannot see into GLib: a worker
// thread leaves a number to the loop's thread, handed over through the main context to a loop that
// sleeps ("hand-off") or does not run yet ("early-hand-off"), or not at all ("race").
#include <glib.h>

#include <atomic>
#include <iostream>
#include <string>
#include <thread>

namespace {

struct Work {
    GMainLoop* loop;
    bool hand_over;
    int number;
    std::thread worker;
    std::atomic<bool> left{false};  // without an order that ThreadSanitizer would go by
};

gboolean TakeNumber(gpointer data) {
    auto& work = *static_cast<Work*>(data);
    std::cout << work.number << std::endl;
    g_main_loop_quit(work.loop);
    return G_SOURCE_REMOVE;
}

void LeaveNumber(Work& work) {
    work.number = 42;
    if (work.hand_over) {
        g_idle_add(TakeNumber, &work);
    }
    work.left.store(true, std::memory_order_relaxed);
}

// In the loop, so that it is running when the number is handed over.
gboolean Start(gpointer data) {
    auto& work = *static_cast<Work*>(data);
    work.worker = std::thread([&work] { LeaveNumber(work); });
    if (!work.hand_over) {
        TakeNumber(&work);
    }
    return G_SOURCE_REMOVE;
}

}  // namespace

int main(int argc, char** argv) {
    const std::string kind = argc < 2 ? "hand-off" : argv[1];
    Work work{g_main_loop_new(nullptr, FALSE), kind != "race", 0, {}};
    if (kind == "early-hand-off") {
        Start(&work);
        while (!work.left.load(std::memory_order_relaxed)) {
            std::this_thread::yield();
        }
    } else {
        g_idle_add(Start, &work);
    }
    g_main_loop_run(work.loop);
    work.worker.join();
    g_main_loop_unref(work.loop);
    return 0;
}
