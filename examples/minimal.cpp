// SPDX-License-Identifier: MIT
// A complete application: one end of the channel "demo". It answers every request with the bytes
// in reverse and greets the partner when it appears.
#include <ipc/tevrol-dbus-remote.h>

#include <iostream>
#include <string>
#include <vector>

class Application : public TevrolDbusRemote {
public:
    Application() : TevrolDbusRemote("demo") {}

    std::vector<char> HandleMessage(std::vector<char>& data) override {
        return std::vector<char>(data.rbegin(), data.rend());
    }

    void HandleNotification(std::vector<char>& data) override {
        std::cout << "notified: " << std::string(data.begin(), data.end()) << std::endl;
    }

    void HandleConnectionReady(bool state, const std::string& partner) override {
        std::cout << (state ? "ready: " : "lost: ") << partner << std::endl;
        if (state) {
            std::vector<char> greeting = {'h', 'e', 'l', 'l', 'o'};
            SendNotification(greeting);
        }
    }
};

int main() {
    Application application;
    GMainLoop* loop = g_main_loop_new(nullptr, FALSE);
    g_main_loop_run(loop);
    g_main_loop_unref(loop);
    return 0;
}
