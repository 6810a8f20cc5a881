// SPDX-License-Identifier: MIT
// What the channel does or undergoes in the tests that fail its calls and its allocations.
#pragma once

#include <functional>
#include <string>
#include <vector>

#include "tests/conformance/conformance-test.h"

// The partners of the runs of an operation, one after the other.
constexpr const char* kPartners[] = {":1.5", ":1.6", ":1.7"};

// Something that the channel `life` does or undergoes, with the partner of that name.
using Step = std::function<void(ChannelLife& life, const std::string& partner)>;

struct Scenario {
    const char* name;
    std::function<void(ChannelLife&)> prepare;  // without a failure, once
    // Brings the channel to where the operation begins, before each run; empty where the operation
    // happens once in a channel's life.
    Step begin;
    Step act;
};

const std::vector<Scenario>& Scenarios();

// The stages of a handshake.
void HearSyn(ChannelLife& life, const std::string& partner);
void HearSynAck(ChannelLife& life, const std::string& partner);
void HearAck(ChannelLife& life, const std::string& partner);

// The bound partner leaves, as far as the bus would tell the channel of it.
void LosePartner(ChannelLife& life);
