// SPDX-License-Identifier: MIT
// The stub world in which a fuzzer's bytes choose the outcome of each call. It keeps account of
// what passes the bus. No loop and no thread is there: what these would do is an event that the
// fuzzer chooses.
#pragma once

#include <optional>
#include <string>
#include <vector>

#include "tests/conformance/stub-world.h"
#include "tests/fuzz/choices.h"

class ChosenWorld {
public:
    static constexpr const char* kOwnName = ":1.1";

    explicit ChosenWorld(Choices& choices);

    // The resend thread, where there is one, and whether it is inside its body: asleep, as far as
    // an event can see.
    bool HasThread() const {
        return !stub.Threads().empty();
    }
    bool ThreadRuns() const {
        return HasThread() && stub.Threads().begin()->second.runs;
    }
    void RunThread() {
        stub.RunThread(stub.Threads().begin()->first);
    }

    StubWorld stub;
    bool connected = false;
    bool registered = false;

    std::vector<std::vector<char>> requests;  // sent by the channel
    std::vector<char> reply;                  // what the last of them gave
    std::vector<std::vector<char>> notifications;
    std::string notified;                    // the last one's destination
    std::vector<std::vector<char>> answers;  // of the channel to requests
    std::string held_name;                   // requested and not yet released

private:
    void Account(const MadeCall& call);
    std::optional<Failure> Decide(const FailableCall& call);
    std::optional<Failure> DecideAnnouncement(const FailableCall& call);
    std::optional<Failure> Choose();

    Choices& m_choices;
};
