// SPDX-License-Identifier: MIT
// One end of a channel as the commands use it, whatever class it is made of. All of it belongs to
// the main thread, on which also the functions are called.
#pragma once

#include <glib.h>

#include <chrono>
#include <functional>
#include <string>
#include <utility>

#include "devkit/payload.h"

namespace programs {

// The outcome of a request.
struct Outcome {
    bool ok = false;
    tevrol::Bytes reply;
    std::string error;    // where not ok, in words that are safe to print
    gint64 duration = 0;  // in microseconds
};

// What a request of the partner is answered with.
struct RequestAnswer {
    RequestAnswer(tevrol::Bytes bytes, std::string why_none = {})
        : payload(std::move(bytes)), problem(std::move(why_none)) {}

    tevrol::Bytes payload;
    std::string problem;  // why there is no answer; empty when there is
};

class End {
public:
    struct Functions {
        std::function<RequestAnswer(const tevrol::Bytes&)> answer;
        std::function<void(const tevrol::Bytes&)> notification;
        std::function<void(bool, const std::string&)> ready;  // or lost; and the partner
    };

    virtual ~End() = default;

    // Sends a request, after those before it, and calls `done` with the outcome.
    virtual void Request(tevrol::Bytes request, std::function<void(const Outcome&)> done) = 0;
    // Throws Failure when the notification cannot be sent.
    virtual void Notify(tevrol::Bytes payload) = 0;
    // Returns when the bus, or the partner, has all that was sent.
    virtual void Flush() = 0;
    virtual bool IsReady() = 0;
    // Whether both ends talk over a socket of their own, not the bus.
    virtual bool IsDirect() const = 0;
};

// Calls `task` on the main thread, once its loop runs. From any thread.
void Post(std::function<void()> task);
// The same when `delay` is over.
void PostLater(std::chrono::milliseconds delay, std::function<void()> task);

}  // namespace programs
