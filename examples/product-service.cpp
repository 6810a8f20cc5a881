// SPDX-License-Identifier: MIT
// One process of a product: the thermostat. It answers requests for the temperature and tells the
// display of every change. Its partner is product-client.cpp.
#include <tevrol/channel.h>

#include <atomic>
#include <chrono>
#include <iostream>
#include <stdexcept>
#include <string>
#include <thread>

namespace {

tevrol::Bytes ToBytes(const std::string& text) {
    return {text.begin(), text.end()};
}

}  // namespace

int main() {
    std::atomic<int> degrees{20};

    tevrol::Handlers handlers;
    handlers.request = [&](const tevrol::Bytes& request) {
        if (request != ToBytes("temperature")) {
            throw std::invalid_argument("only the temperature can be asked for");
        }
        return ToBytes(std::to_string(degrees));
    };
    handlers.ready = [](const std::string&) { std::cout << "the display is there" << std::endl; };
    handlers.lost = [](const std::string&) { std::cout << "the display is gone" << std::endl; };
    tevrol::Channel display("thermostat", tevrol::Role::Service, handlers);

    for (;;) {
        std::this_thread::sleep_for(std::chrono::milliseconds(200));
        ++degrees;
        // Without a display this fails. It asks when it comes.
        display.Notify(ToBytes(std::to_string(degrees)));
    }
}
