// What is measured, a file each.
#pragma once

#include <cstddef>
#include <string>

#include "bench/peer.h"

namespace bench {

enum class Extent { Quick, Full };

// `socket` is the floor; it forks, so it is made before everything else.
void MeasureRequests(Extent extent, Peer& socket);
void MeasureNotifications(Extent extent, Peer& socket);
void MeasureHandshake(Extent extent);
void MeasureLogCost(Extent extent);

// One process for each `count` of channels, because channels do not end before their process.
void MeasureScale(std::size_t count, int round);
void MeasureThreads(Extent extent);

// One process for each figure, because freed memory is not given back: the peak of one request.
void MeasurePeak(const std::string& contender, std::size_t size);
// What the process grows by with each request.
void MeasureGrowth(const std::string& contender, std::size_t size);

}  // namespace bench
