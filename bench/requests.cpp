// Round trips of requests: asked by each peer of one partner, and answered by each service to one
// caller.
#include <vector>

#include "bench/ends.h"
#include "bench/harness.h"
#include "bench/subjects.h"

namespace bench {
namespace {

std::vector<std::size_t> Sizes(Extent extent) {
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

// The small payloads carry the tightest goal and cost little; a large one converted byte by byte
// takes seconds.
int Rounds(Extent extent, std::size_t size, Conversion conversion) {
    const bool quick = extent == Extent::Quick;
    if (size <= 1024) {
        return quick ? 300 : 600;
    }
    if (size <= 16384) {
        return quick ? 60 : 150;
    }
    if (conversion == Conversion::PerByte) {
        return size <= 65536 ? 9 : 3;
    }
    if (size <= 262144) {
        return quick ? 60 : 150;
    }
    return size <= 1048576 ? 90 : 45;
}

// Enough to forget what the contender before has left behind.
int Iterations(std::size_t size) {
    return size <= 16384 ? 4 : 1;
}

constexpr std::size_t kSmall = 1024;

}  // namespace

void MeasureRequests(Extent extent, Peer& socket) {
    BoundChannels channels("requests", {MakeChannel, MakeBulkChannel});
    const auto gdbus = MakeGDBusPeer(channels.Partner(), Conversion::Bulk);
    const auto loop = MakeGDBusPeer(channels.Partner(), Conversion::PerByte);
    const auto sdbus = MakeSdBusPeer(channels.Partner());
    const auto sdbuscpp = MakeSdbusCppPeer(channels.Partner());
    for (const std::size_t size : Sizes(extent)) {
        // What is compared shares a group: where the loop over the bytes rules, that is the loop.
        Group bulk("requests", size);
        Group per_byte("requests", size);
        Group& with_channel = size <= kSmall ? bulk : per_byte;
        bulk.Add("bulk", RoundTrips(channels[1], size));
        bulk.Add("gdbus", RoundTrips(*gdbus, size));
        bulk.Add("sdbus", RoundTrips(*sdbus, size));
        bulk.Add("sdbuscpp", RoundTrips(*sdbuscpp, size));
        bulk.Add("socket", RoundTrips(socket, size));
        with_channel.Add("channel", RoundTrips(channels[0], size));
        with_channel.Add("loop", RoundTrips(*loop, size));
        bulk.Run(Rounds(extent, size, Conversion::Bulk), Iterations(size));
        per_byte.Run(Rounds(extent, size, Conversion::PerByte), Iterations(size));
    }

    const auto services = StartServices();
    for (const std::size_t size : Sizes(extent)) {
        Group bulk("serving", size);
        Group per_byte("serving", size);
        for (const CalledService& one : services) {
            const bool loops = one.kind == "channel" || one.kind == "loop";
            Group& group = loops && size > kSmall ? per_byte : bulk;
            group.Add(one.kind, RoundTrips(*one.caller, size));
        }
        bulk.Run(Rounds(extent, size, Conversion::Bulk), Iterations(size));
        per_byte.Run(Rounds(extent, size, Conversion::PerByte), Iterations(size));
    }
}

}  // namespace bench
