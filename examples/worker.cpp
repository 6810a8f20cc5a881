// SPDX-License-Identifier: MIT
// A complete application whose channel lives on a thread of its own: requests, notifications and
// the loss of the partner are handled there, while the main thread does something else. Each line
// of output begins with the name of the thread that prints it.
#include <glib-unix.h>
#include <ipc/tevrol-dbus-remote.h>
#include <pthread.h>

#include <csignal>
#include <iostream>
#include <string>
#include <thread>
#include <vector>

void Print(const std::string& what) {
    char thread[16] = "";
    pthread_getname_np(pthread_self(), thread, sizeof thread);
    std::cout << thread + (": " + what) << std::endl;
}

class Application : public TevrolDbusRemote {
public:
    Application() : TevrolDbusRemote("demo") {}

    std::vector<char> HandleMessage(std::vector<char>& data) override {
        Print("request: " + std::string(data.begin(), data.end()));
        return std::vector<char>(data.rbegin(), data.rend());
    }

    void HandleNotification(std::vector<char>& data) override {
        Print("notified: " + std::string(data.begin(), data.end()));
    }

    void HandleConnectionReady(bool state, const std::string& partner) override {
        Print((state ? "ready: " : "lost: ") + partner);
        if (state) {
            std::vector<char> greeting = {'h', 'e', 'l', 'l', 'o'};
            SendNotification(greeting);
        }
    }
};

// The body of the channel's thread, until `loop` is told to quit.
void RunChannel(GMainLoop* loop) {
    pthread_setname_np(pthread_self(), "channel");
    GMainContext* context = g_main_loop_get_context(loop);
    // Handshake and requests come by the context that is the thread's default when the channel is
    // constructed. Notifications and the loss come by the one that is the default when the partner
    // is bound. So this context stays the default as long as it is iterated.
    g_main_context_push_thread_default(context);
    // Never destroyed: what is registered at the bus points at it as long as the process lives.
    [[maybe_unused]] static auto& application = *new Application;
    Print("waiting");
    g_main_loop_run(loop);
    g_main_context_pop_thread_default(context);
}

gboolean Quit(gpointer loop) {
    g_main_loop_quit(static_cast<GMainLoop*>(loop));
    return G_SOURCE_CONTINUE;
}

int main() {
    GMainContext* context = g_main_context_new();
    GMainLoop* channel_loop = g_main_loop_new(context, FALSE);
    std::thread channel(RunChannel, channel_loop);

    GMainLoop* loop = g_main_loop_new(nullptr, FALSE);
    g_unix_signal_add(SIGINT, Quit, loop);
    g_unix_signal_add(SIGTERM, Quit, loop);  // also what GIO sends when the bus goes away
    g_main_loop_run(loop);
    g_main_loop_unref(loop);

    // A source of that loop does it, so that it holds where the loop does not run yet.
    GSource* quit = g_idle_source_new();
    g_source_set_callback(quit, Quit, channel_loop, nullptr);
    g_source_attach(quit, context);
    g_source_unref(quit);
    channel.join();
    g_main_loop_unref(channel_loop);
    g_main_context_unref(context);
    Print("stopped");
    return 0;
}
