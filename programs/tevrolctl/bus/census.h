// SPDX-License-Identifier: MIT
// Who has a channel on the bus now.
#pragma once

#include <vector>

#include "programs/tevrolctl/bus/event.h"

namespace programs {

// An event for each process and channel: present, active or standby; and owned for each handshake
// name that somebody keeps. Asks every process on the bus for its objects, and gives those that do
// not answer half a second. Throws Failure when the bus does not answer.
std::vector<Event> TakeCensus();

}  // namespace programs
