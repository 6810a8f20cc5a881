// SPDX-License-Identifier: MIT
// One end of a channel as a process: channel-end NAME client|service [bus]. It echoes requests,
// prints what happens, a line each, and obeys lines on standard input:
//   request TEXT, notify TEXT    to the partner; prints "reply TEXT" or "error MESSAGE"
//   count N                      sends N notifications that hold their number
//   direct                       prints whether there is a direct link, "direct yes" or "direct no"
//   quit
// With "bus" it does without the direct link. The request "sleep" is never answered.
#include <unistd.h>

#include <algorithm>
#include <iostream>
#include <mutex>
#include <string>

#include "tevrol/channel.h"

namespace {

using tevrol::Bytes;

std::string Text(const Bytes& bytes) {
    return {bytes.begin(), bytes.end()};
}

Bytes ToBytes(const std::string& text) {
    return {text.begin(), text.end()};
}

void Print(const std::string& line) {
    static std::mutex output;
    const std::lock_guard<std::mutex> lock(output);
    std::cout << line << std::endl;
}

tevrol::Handlers MakeHandlers() {
    tevrol::Handlers handlers;
    handlers.request = [](const Bytes& request) {
        Print("request " + Text(request));
        if (Text(request) == "sleep") {
            for (;;) {
                pause();
            }
        }
        return request;
    };
    handlers.notification = [](const Bytes& notification) {
        Print("notification " + Text(notification));
    };
    handlers.ready = [](const std::string& partner) { Print("ready " + partner); };
    handlers.lost = [](const std::string& partner) { Print("lost " + partner); };
    return handlers;
}

void Count(tevrol::Channel& channel, int count) {
    for (int i = 0; i < count; ++i) {
        if (const auto error = channel.Notify(ToBytes(std::to_string(i)))) {
            Print("error " + error.message());
            return;
        }
    }
    Print("counted");
}

}  // namespace

int main(int argc, char** argv) {
    const bool client = std::string(argv[2]) == "client";
    tevrol::Options options;
    options.direct = argc < 4;
    tevrol::Channel channel(argv[1], client ? tevrol::Role::Client : tevrol::Role::Service,
                            MakeHandlers(), options);
    std::string line;
    while (std::getline(std::cin, line) && line != "quit") {
        const std::string command = line.substr(0, line.find(' '));
        const std::string argument = line.substr(std::min(line.size(), command.size() + 1));
        if (command == "request") {
            const tevrol::Reply reply = channel.Request(ToBytes(argument));
            Print(reply ? "reply " + Text(reply.payload) : "error " + reply.error.message());
        } else if (command == "notify") {
            const auto error = channel.Notify(ToBytes(argument));
            Print(error ? "error " + error.message() : "notified");
        } else if (command == "count") {
            Count(channel, std::stoi(argument));
        } else if (command == "direct") {
            Print(channel.IsDirect() ? "direct yes" : "direct no");
        }
    }
}
