// SPDX-License-Identifier: MIT
// An application that sends 33 MiB, which no stock bus carries, with 512 MiB of memory to itself.
// Built once with each payload conversion.
//
//   oversized-payload notify|request
#include <sys/resource.h>

#include <cstdio>
#include <cstring>

#include "devkit/loop.h"
#include "ipc/tevrol-dbus-remote.h"
#include "platform/dlog.h"
#include "tests/support/device-log.h"

bool TakeLogLine(int /*log_id*/, int priority, const char* /*tag*/, const char* text) {
    if (priority == DLOG_ERROR) {
        fputs(text, stderr);
    }
    return true;
}

int main(int argc, char** argv) {
    constexpr rlim_t kMemory = rlim_t{512} << 20;
    const rlimit memory = {kMemory, kMemory};
    if (argc != 2 || setrlimit(RLIMIT_AS, &memory) != 0) {
        return 2;
    }
    TevrolDbusRemote channel("demo");
    if (!tevrol::IterateUntil([&] { return channel.IsConnectionReady(); })) {
        return 3;
    }
    std::vector<char> payload(std::size_t{33} << 20, 'x');
    fputs("sending\n", stderr);
    if (strcmp(argv[1], "notify") == 0) {
        channel.SendNotification(payload);
    } else {
        channel.SendMessage(payload);
    }
    fputs("sent\n", stderr);
    tevrol::IterateUntil([] { return false; });
    return 4;
}
