// SPDX-License-Identifier: MIT
// What is measured. Each has a file of its own.
#pragma once

#include <cstddef>
#include <string>

#include "bench/harness.h"
#include "bench/peer.h"

namespace bench {

// `socket` is the lower bound. It forks, so it is made before everything else.
void MeasureRequests(Extent extent, Peer& socket);
void MeasureNotifications(Extent extent, Peer& socket);
// `pair` is another lower bound that forks.
void MeasurePairs(Extent extent, Peer& pair);
// Many callers: on one tevrol::Channel, and on a connection of sd-bus for each.
void MeasurePairThreads(Extent extent);
void MeasureHandshake(Extent extent);
void MeasureLogCost(Extent extent);

// Each `count` of channels needs a process, because channels do not end before it.
void MeasureScale(std::size_t count, int round);
void MeasureThreads(Extent extent);

// The peak of one request. Each figure needs a process, because freed memory is not given back.
void MeasurePeak(const std::string& contender, std::size_t size);
// How much the process grows with each request.
void MeasureGrowth(const std::string& contender, std::size_t size);

}  // namespace bench
