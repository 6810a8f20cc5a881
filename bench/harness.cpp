// SPDX-License-Identifier: MIT
#include "bench/harness.h"

#include <malloc.h>

#include <array>
#include <cstdlib>
#include <iostream>
#include <utility>

namespace bench {
namespace {

class CsvReporter : public benchmark::BenchmarkReporter {
public:
    CsvReporter(std::string subject, std::size_t x) : m_subject(std::move(subject)), m_x(x) {}

    bool ReportContext(const Context& /*context*/) override {
        return true;
    }

    void ReportRuns(const std::vector<Run>& runs) override {
        for (const Run& run : runs) {
            if (run.error_occurred) {
                std::cerr << m_subject << ": " << run.error_message << '\n';
                std::exit(1);
            }
            if (run.run_type != Run::RT_Iteration) {
                continue;
            }
            const auto round = static_cast<int>(run.repetition_index);
            const std::string& contender = run.run_name.function_name;
            Report(m_subject, "time", contender, m_x, round,
                   run.real_accumulated_time / static_cast<double>(run.iterations));
            Report(m_subject, "processor", contender, m_x, round,
                   run.cpu_accumulated_time / static_cast<double>(run.iterations));
            for (const auto& [metric, counter] : run.counters) {
                Report(m_subject, metric, contender, m_x, round, counter.value);
            }
        }
    }

private:
    const std::string m_subject;
    const std::size_t m_x;
};

void InitializeOnce() {
    static const bool initialized = [] {
        std::array<std::string, 2> arguments = {"tevrol-bench",
                                                "--benchmark_enable_random_interleaving=true"};
        std::array<char*, 3> argv = {arguments[0].data(), arguments[1].data(), nullptr};
        int argc = 2;
        benchmark::Initialize(&argc, argv.data());
        return true;
    }();
    static_cast<void>(initialized);
}

}  // namespace

void Report(const std::string& subject, const std::string& metric, const std::string& contender,
            std::size_t x, int round, double value) {
    std::cout << subject << ',' << metric << ',' << contender << ',' << x << ',' << round << ','
              << value << '\n';
}

void Progress(const std::string& text) {
    std::cerr << "  " << text << std::endl;
}

double SecondsSince(Clock::time_point start) {
    return std::chrono::duration<double>(Clock::now() - start).count();
}

double HeapInUse() {
    const auto heap = mallinfo2();
    return static_cast<double>(heap.uordblks + heap.hblkhd);
}

Group::Group(std::string subject, std::size_t x) : m_subject(std::move(subject)), m_x(x) {}

void Group::Add(const std::string& contender, const Body& body) {
    m_contenders.push_back({contender, body});
}

void Group::Run(int rounds, int iterations, Timing timing) {
    if (m_contenders.empty()) {
        return;
    }
    InitializeOnce();
    Progress(m_subject + " " + std::to_string(m_x));
    for (const Contender& contender : m_contenders) {
        auto* registered = benchmark::RegisterBenchmark(contender.name.c_str(), contender.body);
        registered->Repetitions(rounds)->Iterations(iterations);
        if (timing == Timing::ByBody) {
            registered->UseManualTime();
        } else {
            registered->UseRealTime();
        }
    }
    CsvReporter reporter(m_subject, m_x);
    benchmark::RunSpecifiedBenchmarks(&reporter, nullptr, ".");
    benchmark::ClearRegisteredBenchmarks();
}

Bytes Payload(std::size_t size) {
    Bytes bytes(size);
    for (std::size_t i = 0; i < size; ++i) {
        bytes[i] = static_cast<char>(i);
    }
    return bytes;
}

Group::Body RoundTrips(Peer& peer, std::size_t size) {
    return [&peer, payload = Payload(size)](benchmark::State& state) mutable {
        for (auto _ : state) {
            if (peer.Request(payload).size() != payload.size()) {
                state.SkipWithError("a reply did not come back whole");
                break;
            }
        }
    };
}

std::vector<std::size_t> PayloadSizes(Extent extent) {
    constexpr std::size_t kKiB = 1024;
    if (extent == Extent::Quick) {
        return {0, 16, 64, 4 * kKiB, 64 * kKiB};
    }
    std::vector<std::size_t> sizes = {0};
    for (std::size_t size = 1; size <= 16 * kKiB * kKiB; size *= 4) {
        sizes.push_back(size);
    }
    return sizes;
}

// "time": until all are handled, for one notification; "sending": until the last is sent.
Group::Body Bursts(Peer& peer, std::size_t size) {
    constexpr int kBurst = 100;
    return [&peer, payload = Payload(size)](benchmark::State& state) mutable {
        Bytes barrier;
        for (auto _ : state) {
            const auto start = Clock::now();
            for (int i = 0; i < kBurst; ++i) {
                peer.Notify(payload);
            }
            state.counters["sending"] = SecondsSince(start) / kBurst;
            peer.Request(barrier);
            state.SetIterationTime(SecondsSince(start) / kBurst);
        }
    };
}

}  // namespace bench
