// SPDX-License-Identifier: MIT
// One end of a channel as a process: it meets its partner, sends it a request and a notification,
// and leaves. Before one of its calls it sends a signal, to itself or to the bus.
//
//   channel-victim client|service NUMBER SIGNAL PROCESS    PROCESS 0: itself
//
// Prints "done" when the request is answered, "left" when it has left, and "no such call" where it
// made fewer calls.
#include <unistd.h>

#include <chrono>
#include <iostream>
#include <string>

#include "tests/channel/failures.h"
#include "tevrol/channel.h"

namespace {

constexpr std::chrono::seconds kLong{30};

void MeetAndLeave(tevrol::Role role) {
    tevrol::Handlers handlers;
    handlers.request = [](const tevrol::Bytes& request) { return request; };
    tevrol::Channel channel("demo", role, handlers);
    const auto until = std::chrono::steady_clock::now() + kLong;
    tevrol::Reply reply;
    do {
        channel.WaitReady(kLong);
        reply = channel.Request({'?'}, kLong);
    } while (!reply && std::chrono::steady_clock::now() < until);
    if (reply && !channel.Notify({'!'})) {
        std::cout << "done" << std::endl;
    }
}

}  // namespace

int main(int argc, char** argv) {
    if (argc != 5) {
        return 2;
    }
    const pid_t process = std::stoi(argv[4]);
    channel_test::SignalAtCall(static_cast<unsigned>(std::stoul(argv[2])),
                               process == 0 ? getpid() : process, std::stoi(argv[3]));
    MeetAndLeave(argv[1] == std::string("client") ? tevrol::Role::Client : tevrol::Role::Service);
    std::cout << (channel_test::IsSignalled() ? "left" : "no such call") << std::endl;
}
