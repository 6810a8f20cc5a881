// The GIO and thread functions that the channel calls, replaced at link time by ones that keep
// books and let the fuzzer's bytes choose the outcome. No bus, no loop and no thread is there: what
// these would do is an event that the fuzzer chooses.
#pragma once

#include <gio/gio.h>

#include <functional>
#include <map>
#include <string>
#include <vector>

#include "tests/fuzz/choices.h"

namespace fake_bus {

// What is held at the bus, and what passed it.
struct Books {
    GDBusConnection* connection = nullptr;  // null when it was refused
    guint registrations = 0;
    std::map<guint, std::string> subscriptions;  // to their sender
    std::map<guint, std::string> watches;        // to their name
    GDBusProxy* proxy = nullptr;                 // that of the channel; null once it is given up
    int proxies = 0;

    // The resend thread: created, and not ended.
    bool thread = false;
    bool thread_runs = false;  // it is inside its body: asleep, as far as an event can see
    void* (*thread_body)(void*) = nullptr;
    void* thread_argument = nullptr;

    std::vector<std::vector<char>> requests;  // sent by the channel
    std::vector<char> reply;                  // what the last of them gave
    std::vector<std::vector<char>> notifications;
    std::string notified;                    // the last one's destination
    std::vector<std::vector<char>> answers;  // of the channel to requests
    std::string held_name;                   // requested and not yet released
};

constexpr const char* kOwnName = ":1.0";

// Starts anew. `asleep` is called each time the resend thread sleeps.
void Begin(Choices& choices, std::function<void()> asleep);
// Gives up what only the books refer to. The subscriptions stay in them to be looked at.
void End();

Books& State();

// Runs the resend thread's body to its end.
void RunThread();

}  // namespace fake_bus
