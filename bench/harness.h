// SPDX-License-Identifier: MIT
// Google Benchmark in interleaved rounds: the contenders of a group take turns in random order, and
// each round of each is a line of CSV.
//
//   subject,metric,contender,x,round,value
//
// `x` is what the group varies (bytes, channels, threads); times are in seconds.
#pragma once

#include <benchmark/benchmark.h>

#include <chrono>
#include <functional>
#include <string>
#include <vector>

#include "bench/peer.h"

namespace bench {

// One line of CSV.
void Report(const std::string& subject, const std::string& metric, const std::string& contender,
            std::size_t x, int round, double value);

// A line about the progress.
void Progress(const std::string& text);

using Clock = std::chrono::steady_clock;
double SecondsSince(Clock::time_point start);

// The bytes that the process has allocated.
double HeapInUse();

class Group {
public:
    Group(std::string subject, std::size_t x);

    // `body` is a benchmark; its time is the metric "time" (per iteration), the processor time of
    // its thread the metric "processor", its counters are further metrics.
    using Body = std::function<void(benchmark::State&)>;
    void Add(const std::string& contender, const Body& body);

    // Runs every contender `rounds` times. With many short rounds a busy machine slows all
    // contenders alike.
    enum class Timing { Iterations, ByBody };
    void Run(int rounds, int iterations, Timing timing = Timing::Iterations);

private:
    struct Contender {
        std::string name;
        Body body;
    };
    const std::string m_subject;
    const std::size_t m_x;
    std::vector<Contender> m_contenders;
};

// Bytes of all values.
Bytes Payload(std::size_t size);

// From nothing to 16 MiB.
enum class Extent { Quick, Full };
std::vector<std::size_t> PayloadSizes(Extent extent);

// Bursts of notifications of `size` bytes, a request behind each.
Group::Body Bursts(Peer& peer, std::size_t size);

// Requests of `size` bytes, each of which must come back whole.
Group::Body RoundTrips(Peer& peer, std::size_t size);

}  // namespace bench
