// SPDX-License-Identifier: MIT
// How a program runs a command and ends.
#pragma once

#include <functional>

namespace programs {

// Gets its own name as argv[0]. Returns an exit status or throws Failure.
using Command = int (*)(int argc, char** argv);

// Runs `command` and ends the process with its exit status. Prints why it failed.
//
// Meanwhile SIGINT, SIGTERM and SIGHUP end the process with 128 and the signal's number, whatever
// any thread waits for. A SIGHUP that is ignored from the start, as by nohup, stays ignored.
[[noreturn]] void RunToTheEnd(Command command, int argc, char** argv);

// Makes something, and runs `cleanup` when the process ends, by exit() or by a signal, once. No
// signal ends it in between. The last cleanup goes first.
void MakeUntilTheEnd(const std::function<void()>& make, std::function<void()> cleanup);

// From here on a signal has the main loop call `in_order`, which is to end the process with the
// status of its choice. The process is ended if it has not done so soon, and at a second signal.
void OnSignals(std::function<void()> in_order);

}  // namespace programs
