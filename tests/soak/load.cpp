// SPDX-License-Identifier: MIT
#include "tests/soak/load.h"

#include <malloc.h>

#include <cstdio>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <iostream>
#include <limits>
#include <system_error>

namespace soak {
namespace {

using tevrol::Bytes;

constexpr std::size_t kMostBytes = 96;

long StatusOf(const std::string& field) {
    std::ifstream status("/proc/self/status");
    std::string name;
    while (status >> name) {
        if (name == field + ":") {
            long value = 0;
            status >> value;
            return value;
        }
        status.ignore(std::numeric_limits<std::streamsize>::max(), '\n');
    }
    return -1;
}

}  // namespace

std::uint32_t Number(Random& random) {
    return static_cast<std::uint32_t>(random());
}

unsigned Below(Random& random, unsigned limit) {
    return std::uniform_int_distribution<unsigned>(0, limit - 1)(random);
}

unsigned ChooseSeed(const char* given) {
    const unsigned seed =
        given == nullptr ? std::random_device{}() : static_cast<unsigned>(std::stoul(given));
    std::cout << "seed " << seed << std::endl;
    return seed;
}

Bytes MakePayload(const Heading& heading) {
    Bytes payload(sizeof heading);
    std::memcpy(payload.data(), &heading, sizeof heading);
    std::minstd_rand bytes(heading.seed + 1);
    payload.resize(sizeof heading + bytes() % (kMostBytes - sizeof heading));
    for (std::size_t i = sizeof heading; i < payload.size(); ++i) {
        payload[i] = static_cast<char>(bytes());
    }
    return payload;
}

std::string ReadHeading(const Bytes& payload, Heading& heading) {
    if (payload.size() < sizeof heading) {
        return "is too short";
    }
    std::memcpy(&heading, payload.data(), sizeof heading);
    return payload == MakePayload(heading) ? "" : "is not intact";
}

Bytes Answer(Bytes request) {
    for (char& byte : request) {
        byte = static_cast<char>(~byte);
    }
    return request;
}

std::atomic<int> g_failures{0};

void Expect(bool holds, const std::string& otherwise) {
    if (!holds) {
        ++g_failures;
        std::cout << "failed: " << otherwise << std::endl;
    }
}

Descriptors OpenDescriptors() {
    Descriptors open;
    for (const auto& entry : std::filesystem::directory_iterator("/proc/self/fd")) {
        std::error_code gone;  // closed by another thread meanwhile
        const std::string file = std::filesystem::read_symlink(entry.path(), gone).string();
        open.all += gone ? 0 : 1;
        open.pipes += file.rfind("pipe:", 0) == 0 ? 1 : 0;
    }
    return open;
}

Holdings Measure() {
    malloc_trim(0);
    return {StatusOf("VmRSS"), StatusOf("Threads"), OpenDescriptors().all, mallinfo2().uordblks};
}

void Print(const char* when, const Holdings& holdings) {
    std::printf("%-28s %8ld KiB resident  %8zu KiB heap  %3ld threads  %3ld descriptors\n", when,
                holdings.resident_kib, holdings.heap / 1024, holdings.threads,
                holdings.descriptors);
}

}  // namespace soak
