// SPDX-License-Identifier: MIT
// What the programs that put a channel under load share: payloads that tell whether they are
// intact, what a process holds, and how a failure is told.
#pragma once

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <random>
#include <string>

#include "devkit/payload.h"

namespace soak {

using Random = std::mt19937;
std::uint32_t Number(Random& random);
unsigned Below(Random& random, unsigned limit);
// The seed of a run, printed: the one that is given, or any.
unsigned ChooseSeed(const char* given);

// ---- Payloads: who sends, a number that counts its messages, and bytes that follow from a seed
// ----

struct Heading {
    std::uint32_t sender;
    std::uint32_t number;
    std::uint32_t seed;
};

tevrol::Bytes MakePayload(const Heading& heading);
// What is wrong with the payload, empty where nothing is. Gives its heading.
std::string ReadHeading(const tevrol::Bytes& payload, Heading& heading);
// The right answer to a request differs from it in every byte.
tevrol::Bytes Answer(tevrol::Bytes request);

// ---- Failures ----

extern std::atomic<int> g_failures;
// Counts and prints what does not hold, "failed: " before it.
void Expect(bool holds, const std::string& otherwise);

// ---- What this process holds ----

struct Holdings {
    long resident_kib = 0;
    long threads = 0;
    long descriptors = 0;
    std::size_t heap = 0;  // bytes in use
};

struct Descriptors {
    long all = 0;
    long pipes = 0;
};

Descriptors OpenDescriptors();
Holdings Measure();
void Print(const char* when, const Holdings& holdings);

}  // namespace soak
