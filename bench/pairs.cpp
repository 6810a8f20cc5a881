// SPDX-License-Identifier: MIT
// Both ends of the same kind: tevrol::Channel over the bus and by its direct link, beside what one
// would write by hand.
#include <thread>
#include <vector>

#include "bench/ends.h"
#include "bench/harness.h"
#include "bench/sd-bus.h"
#include "bench/subjects.h"

namespace bench {
namespace {

struct Pairs {
    Service either{"either", SdBusUniqueName()};
    Service direct{"direct", SdBusUniqueName()};
    Service gdbus{"gdbus", ProcessUniqueName()};
    Service sdbus{"sdbus", SdBusUniqueName()};
    Service sdbuscpp{"sdbuscpp", SdBusUniqueName()};
};

int Rounds(Extent extent, std::size_t size) {
    const int most = extent == Extent::Quick ? 60 : 300;
    return size <= 4096 ? most : size <= 65536 ? most / 2 : most / 10;
}

// The time for one request when each of `callers` makes its share of them on a thread of its own.
double TimePerRequest(const std::vector<Peer*>& callers) {
    constexpr std::size_t kRequests = 4000;
    const auto start = Clock::now();
    std::vector<std::thread> threads;
    threads.reserve(callers.size());
    for (Peer* const peer : callers) {
        threads.emplace_back([peer, share = kRequests / callers.size()] {
            Bytes payload = Payload(16);
            for (std::size_t i = 0; i < share; ++i) {
                peer->Request(payload);
            }
        });
    }
    for (std::thread& thread : threads) {
        thread.join();
    }
    return SecondsSince(start) / static_cast<double>(kRequests);
}

}  // namespace

void MeasurePairs(Extent extent, Peer& pair) {
    const Pairs services;
    const auto either = MakeEitherEndPeer("either", false);
    const auto direct = MakeEitherEndPeer("direct", true);
    const auto gdbus = MakeGDBusPeer(services.gdbus.GetAddress(), Conversion::Bulk);
    const auto sdbus = MakeSdBusPeer(services.sdbus.GetAddress());
    const auto sdbuscpp = MakeSdbusCppPeer(services.sdbuscpp.GetAddress());
    const std::vector<std::pair<const char*, Peer*>> peers = {
        {"either", either.get()}, {"direct", direct.get()},     {"gdbus", gdbus.get()},
        {"sdbus", sdbus.get()},   {"sdbuscpp", sdbuscpp.get()}, {"sdbuspair", &pair}};
    for (const std::size_t size : PayloadSizes(extent)) {
        Group group("pairs", size);
        for (const auto& [name, peer] : peers) {
            group.Add(name, RoundTrips(*peer, size));
        }
        group.Run(Rounds(extent, size), size <= 16384 ? 8 : 1);
    }
    for (const std::size_t size : {std::size_t{0}, std::size_t{16}, std::size_t{1024}}) {
        Group group("pair-notifications", size);
        for (const auto& [name, peer] : peers) {
            group.Add(name, Bursts(*peer, size));
        }
        group.Run(Rounds(extent, size), 1, Group::Timing::ByBody);
    }
}

void MeasurePairThreads(Extent extent) {
    const Pairs services;
    const auto either = MakeEitherEndPeer("either", false);
    const auto direct = MakeEitherEndPeer("direct", true);
    std::vector<std::unique_ptr<Peer>> connections;
    for (int round = 0; round < (extent == Extent::Quick ? 5 : 25); ++round) {
        Progress("pair-threads, round " + std::to_string(round + 1));
        for (const std::size_t threads : {1U, 2U, 4U, 8U, 16U}) {
            while (connections.size() < threads) {
                connections.push_back(MakeSdBusPeerOfItsOwn(services.sdbus.GetAddress()));
            }
            std::vector<Peer*> each;
            for (std::size_t i = 0; i < threads; ++i) {
                each.push_back(connections[i].get());
            }
            const std::vector<Peer*> on_bus(threads, either.get());
            const std::vector<Peer*> on_link(threads, direct.get());
            Report("pair-threads", "time", "sdbus", threads, round, TimePerRequest(each));
            Report("pair-threads", "time", "either", threads, round, TimePerRequest(on_bus));
            Report("pair-threads", "time", "direct", threads, round, TimePerRequest(on_link));
        }
    }
}

}  // namespace bench
