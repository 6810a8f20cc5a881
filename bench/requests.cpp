// Round trips of requests: asked by each peer of one partner, and answered by each service to one
// caller.
#include <vector>

#include "bench/ends.h"
#include "bench/harness.h"
#include "bench/sd-bus.h"
#include "bench/subjects.h"

namespace bench {
namespace {

std::vector<std::size_t> Sizes(Extent extent) {
    constexpr std::size_t kKiB = 1024;
    if (extent == Extent::Quick) {
        return {0, 16, 64, kKiB, 4 * kKiB, 64 * kKiB, 256 * kKiB};
    }
    std::vector<std::size_t> sizes = {0};
    for (std::size_t size = 1; size <= 16 * kKiB * kKiB; size *= 4) {
        sizes.push_back(size);
    }
    return sizes;
}

// Small payloads carry the tightest goal and cost little.
int Rounds(Extent extent, std::size_t size) {
    const bool quick = extent == Extent::Quick;
    if (size <= 64) {
        return quick ? 25 : 60;
    }
    if (size <= 16384) {
        return quick ? 7 : 25;
    }
    if (size <= 262144) {
        return quick ? 3 : 9;
    }
    return 3;
}

constexpr double kRoundSeconds = 0.015;

}  // namespace

void MeasureRequests(Extent extent, Peer& socket) {
    BoundChannels channels("requests", {MakeChannel, MakeBulkChannel});
    const auto gdbus = MakeGDBusPeer(channels.Partner(), Conversion::Bulk);
    const auto loop = MakeGDBusPeer(channels.Partner(), Conversion::PerByte);
    const auto sdbus = MakeSdBusPeer(channels.Partner());
    const auto sdbuscpp = MakeSdbusCppPeer(channels.Partner());
    for (const std::size_t size : Sizes(extent)) {
        Group group("requests", size);
        group.Add("channel", RoundTrips(channels[0], size));
        group.Add("bulk", RoundTrips(channels[1], size));
        group.Add("gdbus", RoundTrips(*gdbus, size));
        group.Add("loop", RoundTrips(*loop, size));
        group.Add("sdbus", RoundTrips(*sdbus, size));
        group.Add("sdbuscpp", RoundTrips(*sdbuscpp, size));
        group.Add("socket", RoundTrips(socket, size));
        group.Run(Rounds(extent, size), kRoundSeconds);
    }

    struct Served {
        std::string kind;
        std::unique_ptr<Service> service;
        std::unique_ptr<Peer> caller;
    };
    std::vector<Served> served;
    for (const char* kind : {"channel", "bulk", "gdbus", "sdbus", "sdbuscpp"}) {
        auto service = std::make_unique<Service>(kind, SdBusUniqueName());
        auto caller = MakeSdBusPeer(service->GetAddress());
        served.push_back({kind, std::move(service), std::move(caller)});
    }
    for (const std::size_t size : Sizes(extent)) {
        Group group("serving", size);
        for (const Served& one : served) {
            group.Add(one.kind, RoundTrips(*one.caller, size));
        }
        group.Run(Rounds(extent, size), kRoundSeconds);
    }
}

}  // namespace bench
