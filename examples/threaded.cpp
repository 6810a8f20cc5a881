// SPDX-License-Identifier: MIT
// A complete application with a thread of its own that sends: it reports to the partner every
// second and waits for the answer there, while the loop goes on. Shuts down in order on SIGINT or
// SIGTERM.
#include <glib-unix.h>
#include <ipc/tevrol-dbus-remote.h>

#include <chrono>
#include <condition_variable>
#include <csignal>
#include <iostream>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

class Application : public TevrolDbusRemote {
public:
    Application() : TevrolDbusRemote("demo"), m_sender([this] { Report(); }) {}

    std::vector<char> HandleMessage(std::vector<char>& data) override {
        return data;
    }

    void HandleNotification(std::vector<char>&) override {}

    // While it waits for m_turn, a request that is under way ends: what a request needs of the
    // partner is released only after this has returned.
    void HandleConnectionReady(bool state, const std::string& partner) override {
        const std::lock_guard<std::mutex> lock(m_turn);
        std::cout << (state ? "ready: " : "lost: ") << partner << std::endl;
        m_ready = state;
        m_changed.notify_all();
    }

    // Waits for a request that is under way. Neither handlers nor the loop may call it.
    void Stop() {
        {
            const std::lock_guard<std::mutex> lock(m_turn);
            m_stopped = true;
            m_changed.notify_all();
        }
        m_sender.join();
        std::cout << "stopped" << std::endl;
    }

private:
    // The sending thread's body.
    void Report() {
        std::unique_lock<std::mutex> lock(m_turn);
        for (int count = 1;; ++count) {
            m_changed.wait(lock, [this] { return m_ready || m_stopped; });
            if (m_stopped) {
                return;
            }
            const std::string report = "report " + std::to_string(count);
            std::vector<char> request(report.begin(), report.end());
            const std::vector<char> reply = SendMessage(request);  // m_turn stays held
            std::cout << "reply: " << std::string(reply.begin(), reply.end()) << std::endl;
            m_changed.wait_for(lock, std::chrono::seconds(1), [this] { return m_stopped; });
        }
    }

    std::mutex m_turn;  // held while a request is under way, and for the two below
    bool m_ready = false;
    bool m_stopped = false;
    std::condition_variable m_changed;
    std::thread m_sender;  // last: it uses all of the above
};

gboolean Quit(gpointer loop) {
    g_main_loop_quit(static_cast<GMainLoop*>(loop));
    return G_SOURCE_CONTINUE;
}

int main() {
    GMainLoop* loop = g_main_loop_new(nullptr, FALSE);
    g_unix_signal_add(SIGINT, Quit, loop);
    g_unix_signal_add(SIGTERM, Quit, loop);  // also what GIO sends when the bus goes away
    // Never destroyed: what is registered at the bus points at it as long as the process lives.
    static auto& application = *new Application;
    g_main_loop_run(loop);
    application.Stop();
    return 0;
}
