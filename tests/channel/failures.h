// SPDX-License-Identifier: MIT
// Makes one call fail: of sd-bus, of epoll, timers and sockets, or of operator new, inside the
// channels of this process; or ends or stops a process before one. Only where this is linked in
// (channel-failure-tests, channel-victim).
#pragma once

#include <sys/types.h>

namespace channel_test {

enum class Failing { Calls, Memory };

// From now on fails one call of this kind: the first whose place has not had its turn. A place is
// the call with its callers, up to the thread's beginning. There are `shares` parts of all places,
// and only those of part number `share` have a turn.
void FailAtNextPlace(Failing kind, unsigned share, unsigned shares);
// No call fails any more. Returns whether one did.
bool StopFailing();

// Sends `process` the signal before call number `number`, from 0 on, of those that may fail.
void SignalAtCall(unsigned number, pid_t process, int signal);
// Whether it was sent.
bool IsSignalled();

// While one exists, the calls of this thread count too. Those of all other threads always do: they
// are the channels' own.
class InOperation {
public:
    InOperation();
    ~InOperation();
    InOperation(const InOperation&) = delete;
    InOperation& operator=(const InOperation&) = delete;
};

// While one exists, the calls of this thread do not count: it is in a handler.
class InHandler {
public:
    InHandler();
    ~InHandler();
    InHandler(const InHandler&) = delete;
    InHandler& operator=(const InHandler&) = delete;
};

}  // namespace channel_test
