// SPDX-License-Identifier: MIT
// channel-starts COUNT: starts the two ends of a channel together, COUNT times in each order, and
// counts how often they are not ready for each other within a second. For every pair of programs
// that can be the two ends. Fails when that happens to a pair that has an end of tevrol::Channel.
#include <chrono>
#include <cstdlib>
#include <future>
#include <iomanip>
#include <iostream>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "devkit/partner-process.h"
#include "devkit/private-bus.h"

namespace {

using Clock = std::chrono::steady_clock;
using Command = std::vector<std::string>;
using Process = std::unique_ptr<tevrol::PartnerProcess>;

constexpr std::chrono::seconds kLimit(1);

struct Pair {
    const char* name;
    Command client;
    Command service;
    bool heals;
};

const std::vector<Pair>& Pairs() {
    static const Command channel_client = {TEVROL_CHANNEL_END, "demo", "client"};
    static const Command channel_service = {TEVROL_CHANNEL_END, "demo", "service"};
    static const Command remote = {TEVROL_EXAMPLE_PROGRAM};
    static const Command partner = {TEVROL_PARTNER_PROGRAM, "demo"};
    static const std::vector<Pair> pairs = {
        {"Channel and Channel", channel_client, channel_service, true},
        {"TevrolDbusRemote and Channel", remote, channel_service, true},
        {"Channel and tevrol-partner", channel_client, partner, true},
        {"TevrolDbusRemote and tevrol-partner", remote, partner, false},
    };
    return pairs;
}

enum class Order { ClientFirst, ServiceFirst, AtTheSameMoment };

Process Start(const Command& command) {
    return std::make_unique<tevrol::PartnerProcess>(command);
}

bool AreReadyInTime(const Process& client, const Process& service) {
    const auto limit = Clock::now() + kLimit;
    while (!client->Find("ready") || !service->Find("ready")) {
        if (Clock::now() > limit) {
            return false;
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(1));  // looks again
    }
    return true;
}

// A process ends with the thread that has started it, so that thread waits here.
bool TryAtTheSameMoment(const Pair& pair) {
    std::promise<Process> started;
    std::promise<void> tried;
    std::thread other([&] {
        started.set_value(Start(pair.client));
        tried.get_future().wait();
    });
    const Process service = Start(pair.service);
    const Process client = started.get_future().get();
    const bool ready = AreReadyInTime(client, service);
    tried.set_value();
    other.join();
    return ready;
}

bool Try(const Pair& pair, Order order) {
    if (order == Order::AtTheSameMoment) {
        return TryAtTheSameMoment(pair);
    }
    const bool client_first = order == Order::ClientFirst;
    const Process first = Start(client_first ? pair.client : pair.service);
    const Process second = Start(client_first ? pair.service : pair.client);
    return AreReadyInTime(first, second);
}

int CountLate(const Pair& pair, Order order, int count) {
    int late = 0;
    for (int i = 0; i < count; ++i) {
        const tevrol::PrivateBus bus;
        late += Try(pair, order) ? 0 : 1;
    }
    return late;
}

}  // namespace

int main(int argc, char** argv) {
    const int count = argc == 2 ? std::atoi(argv[1]) : 0;
    if (count <= 0) {
        std::cerr << "Usage: channel-starts COUNT\n";
        return 2;
    }
    bool all_in_time = true;
    std::cout << "not ready within a second, of " << count
              << " starts: client first, service first, at the same moment\n";
    for (const Pair& pair : Pairs()) {
        std::cout << std::left << std::setw(36) << pair.name << std::right;
        for (const Order order :
             {Order::ClientFirst, Order::ServiceFirst, Order::AtTheSameMoment}) {
            const int late = CountLate(pair, order, count);
            all_in_time = all_in_time && (late == 0 || !pair.heals);
            std::cout << std::setw(5) << late << std::flush;
        }
        std::cout << '\n';
    }
    return all_in_time ? 0 : 1;
}
