// SPDX-License-Identifier: MIT
// The other process of the product: the display. It asks for the temperature when the thermostat
// appears, and shows every change. Its partner is product-service.cpp.
#include <tevrol/channel.h>
#include <unistd.h>

#include <iostream>
#include <string>

namespace {

class Display {
private:
    tevrol::Handlers MakeHandlers() {
        tevrol::Handlers handlers;
        handlers.ready = [this](const std::string&) { Ask(); };
        handlers.lost = [](const std::string&) { std::cout << "no thermostat" << std::endl; };
        handlers.notification = [](const tevrol::Bytes& degrees) {
            std::cout << "now " << std::string(degrees.begin(), degrees.end()) << std::endl;
        };
        return handlers;
    }

    void Ask() {
        const std::string question = "temperature";
        const tevrol::Reply reply =
            m_thermostat.Request({question.begin(), question.end()}, std::chrono::seconds(1));
        if (reply) {
            std::cout << "it is " << std::string(reply.payload.begin(), reply.payload.end())
                      << std::endl;
        } else {
            std::cout << "cannot ask: " << reply.error.message() << ' ' << reply.text << std::endl;
        }
    }

    tevrol::Channel m_thermostat{"thermostat", tevrol::Role::Client, MakeHandlers()};
};

}  // namespace

int main() {
    const Display display;
    for (;;) {
        pause();
    }
}
