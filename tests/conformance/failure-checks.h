// SPDX-License-Identifier: MIT
// What must follow a failed call.
#pragma once

#include <cstddef>
#include <string>
#include <vector>

#include "tests/conformance/conformance-test.h"

// The log tells each failure that it has to tell, at once, and no other.
void CheckLog(const std::vector<Event>& events);

// What the operation left: nothing of its own, and a state that fits together.
void CheckState(const ChannelLife& life);

// The channel takes a thread for recorded that was never started: it starts no other.
bool RecordsNoThread(const ChannelLife& life);

// Why the channel cannot find a partner any more, so that it can only be destroyed; empty where it
// can.
std::string WhyNoPartner(const ChannelLife& life);

// Lets the bus go on without failures: what is owed is resent, and the partner leaves. Then the
// channel finds another partner and talks to it; or why it cannot is what was refused.
std::string Recover(ChannelLife& life, const std::vector<Event>& events);

// What stays by design when the channel is gone, and nothing else: the registration, the three
// subscriptions to the handshake names, and the reply of each of so many requests.
void CheckNothingElseIsHeld(const StubWorld& world, std::size_t requests);

// The replies that the channel has got, and keeps.
std::size_t Replies(const std::vector<Event>& events);
