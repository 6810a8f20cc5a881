// SPDX-License-Identifier: MIT
// What the tests of the handshake share: the channel's stages as the log shows them, and its state,
// read under its mutex because the resend thread writes it too.
#pragma once

#include <gio/gio.h>

#include <map>
#include <ostream>
#include <string>
#include <vector>

#include "tests/support/channel-test.h"
#include "tests/support/log.h"

using Lines = std::vector<LogLine>;
Lines operator+(Lines first, const Lines& second);

// One of the handshake callbacks of the channel "demo".
struct TestedStage {
    HandshakeStage heard;  // what the partner announces to it
    GDBusSignalCallback callback;
    std::string function;     // of the callback, as in the log
    HandshakeStage answered;  // what it announces in turn; the ACK stage answers nothing
    int completed;            // the state that it leads to

    std::string Listened() const;  // the partner's name
    std::string Suffix() const;    // of the answer, as it is kept for the resend thread
    std::string Answer() const;    // the answer's name

    // Calls the callback as the bus would, with `parameters` and, as its user data, `channel`.
    void Call(GDBusConnection* connection, GVariant* parameters, TestChannel* channel) const;

    // The lines of one acquisition or release of the partner's name, of both, and what follows a
    // release that is accepted.
    Lines Acquired(const std::string& by) const;
    Lines Released(const std::string& by) const;
    Lines Pulsed(const std::string& by) const {
        return Acquired(by) + Released(by);
    }
    Lines Bound(const std::string& partner, const std::string& proxy_error = "") const;
    Lines Answered() const;
    Lines Refused() const;  // another process owns the answer's name
    Lines ThreadStarted(int status) const;
};

void PrintTo(const TestedStage& stage, std::ostream* out);

extern const TestedStage kSynStage;
extern const TestedStage kSynAckStage;
extern const TestedStage kAckStage;

// The lines of an announcement that succeeds, without what its caller adds.
Lines BroadcastLines(const std::string& name);

// A call without connection or without channel: an error line and nothing else, without the lock.
void ExpectNullIsRefused(const TestedStage& stage, GDBusConnection* connection,
                         TestChannel& channel);
// A body of another type: an error line that names it and nothing else.
void ExpectOtherTypesAreRefused(const TestedStage& stage, GDBusConnection* connection,
                                TestChannel& channel);

// All that a binding consists of, or nothing of it.
void ExpectBound(const TestChannel& channel, const std::string& partner);
void ExpectUnbound(const TestChannel& channel);

int HandshakeState(TestChannel& channel);
std::map<std::string, std::string> Owed(TestChannel& channel);
pthread_t ResendThread(TestChannel& channel);

// Ends the resend thread if one runs, between two passes: a channel must not be destroyed during
// one.
void EndResends(TestChannel& channel);

// The announcements that the channel has tried since the last gio_calls::Clear().
std::vector<std::string> AnnouncedNames();

// Whether the channel's mutex is held, by whichever thread.
bool IsHeld(const PTMutex& mutex);
