// SPDX-License-Identifier: MIT
// Round trips of requests: asked by each peer of one partner, and answered by each service to one
// caller.
#include <vector>

#include "bench/ends.h"
#include "bench/harness.h"
#include "bench/subjects.h"

namespace bench {
namespace {

// Small payloads have the tightest goal and cost little. A large one converted byte by byte takes
// seconds.
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

// Enough requests to warm up after another contender.
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
    for (const std::size_t size : PayloadSizes(extent)) {
        // Contenders that are compared share a group.
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
    for (const std::size_t size : PayloadSizes(extent)) {
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
