// SPDX-License-Identifier: MIT
// Many channels in one process, each with its partner, and many callers on one channel.
#include <algorithm>
#include <thread>
#include <vector>

#include "bench/ends.h"
#include "bench/harness.h"
#include "bench/subjects.h"

namespace bench {
namespace {

constexpr std::size_t kSize = 16;

// The time for one request when each of `callers` makes `requests` of them on a thread of its own.
double TimePerRequest(const std::vector<Channel*>& callers, int requests) {
    const auto start = Clock::now();
    std::vector<std::thread> threads;
    threads.reserve(callers.size());
    for (Channel* channel : callers) {
        threads.emplace_back([channel, requests] {
            Bytes payload = Payload(kSize);
            for (int i = 0; i < requests; ++i) {
                channel->Request(payload);
            }
        });
    }
    for (auto& thread : threads) {
        thread.join();
    }
    return SecondsSince(start) / static_cast<double>(requests) /
           static_cast<double>(callers.size());
}

// The median of the times of `requests` on this thread.
double MedianRequest(Channel& channel, int requests) {
    std::vector<double> times(static_cast<std::size_t>(requests));
    Bytes payload = Payload(kSize);
    for (double& time : times) {
        const auto start = Clock::now();
        channel.Request(payload);
        time = SecondsSince(start);
    }
    std::sort(times.begin(), times.end());
    return times[times.size() / 2];
}

}  // namespace

void MeasureScale(std::size_t count, int round) {
    constexpr int kRequests = 2000;
    Progress("scale " + std::to_string(count));
    std::vector<std::string> names;
    for (std::size_t i = 0; i < count; ++i) {
        names.push_back("scale" + std::to_string(i));
    }
    // The first channel of a process costs more. It is not counted.
    BoundChannels first("first", {MakeChannel});
    Bytes payload = Payload(kSize);
    first[0].Request(payload);
    const Partners partners(names);

    const double heap = HeapInUse();
    const auto start = Clock::now();
    std::vector<std::unique_ptr<Channel>> channels;
    channels.reserve(names.size());
    for (const auto& name : names) {
        channels.push_back(MakeChannel(name));
    }
    WaitFor("all channels", [&] {
        return std::all_of(channels.begin(), channels.end(),
                           [](const auto& channel) { return channel->IsReady(); });
    });
    const auto channel_count = static_cast<double>(count);
    Report("scale", "ready", "channel", count, round, SecondsSince(start) / channel_count);
    Report("scale", "memory", "channel", count, round, (HeapInUse() - heap) / channel_count);

    std::vector<Channel*> all;
    all.reserve(channels.size());
    for (const auto& channel : channels) {
        all.push_back(channel.get());
    }
    Report("scale", "idle", "channel", count, round, MedianRequest(*all.front(), kRequests));
    const int share = std::max(1, kRequests / static_cast<int>(count));
    Report("scale", "busy", "channel", count, round, TimePerRequest(all, share));
}

void MeasureThreads(Extent extent) {
    const int rounds = extent == Extent::Quick ? 3 : 9;
    constexpr int kRequests = 4000;
    BoundChannels channels("threads", {MakeChannel});
    for (int round = 0; round < rounds; ++round) {
        Progress("threads, round " + std::to_string(round + 1));
        for (const std::size_t threads : {1U, 2U, 4U, 8U, 16U}) {
            const std::vector<Channel*> callers(threads, &channels[0]);
            Report("threads", "time", "channel", threads, round,
                   TimePerRequest(callers, kRequests / static_cast<int>(threads)));
        }
    }
}

}  // namespace bench
