// SPDX-License-Identifier: MIT
// The display of product-client.cpp on a loop of its own, that of GLib: all handlers run on the
// thread of the loop.
#include <glib.h>
#include <tevrol/channel.h>

#include <functional>
#include <iostream>
#include <string>

namespace {

using Work = std::function<void()>;

// From any thread: the default main context calls it soon.
void RunOnLoop(Work work) {
    g_idle_add_full(
        G_PRIORITY_DEFAULT,
        [](gpointer data) {
            (*static_cast<Work*>(data))();
            return G_SOURCE_REMOVE;
        },
        new Work(std::move(work)), [](gpointer data) { delete static_cast<Work*>(data); });
}

}  // namespace

int main() {
    tevrol::Options options;
    options.run = RunOnLoop;
    tevrol::Handlers handlers;
    handlers.lost = [](const std::string&) { std::cout << "no thermostat" << std::endl; };
    handlers.notification = [](const tevrol::Bytes& degrees) {
        std::cout << "now " << std::string(degrees.begin(), degrees.end()) << std::endl;
    };
    const tevrol::Channel thermostat("thermostat", tevrol::Role::Client, handlers, options);
    g_main_loop_run(g_main_loop_new(nullptr, FALSE));
}
