// SPDX-License-Identifier: MIT
// What the parts of the demo share: how they tell what happens, and check it.
#pragma once

#include <chrono>
#include <stdexcept>
#include <string>

#include "devkit/payload.h"

namespace demo {

constexpr auto kPatience = std::chrono::seconds(10);

// Lines of the demo, and in a second colour those of the channel's own log. From any thread.
void Tell(const std::string& who, const std::string& what);
void TellLog(const std::string& line);
void Headline(const std::string& what);
double Seconds();

struct Totals {
    int handshakes = 0;
    int requests = 0;
    int notifications = 0;
    int losses = 0;
};

class Failure : public std::runtime_error {
    using std::runtime_error::runtime_error;
};

void Check(bool holds, const std::string& what);

tevrol::Bytes Reversed(const tevrol::Bytes& bytes);

// The scenes with tevrol::Channel at both ends, on a bus of their own.
void PlayChannels(Totals& totals);

}  // namespace demo
