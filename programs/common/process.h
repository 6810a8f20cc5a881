// SPDX-License-Identifier: MIT
// What the system tells of a process.
#pragma once

#include <sys/types.h>

#include <string>

namespace programs {

struct Process {
    std::string name;    // safe to print; empty when there is no such process, or none to be seen
    char state = '?';    // as in /proc/PID/stat: 'T' is stopped, 'Z' has ended
    double started = 0;  // seconds after the start of the system
};
Process LookAtProcess(pid_t pid);

// "NAME, process PID".
std::string DescribeProcess(pid_t pid);

}  // namespace programs
