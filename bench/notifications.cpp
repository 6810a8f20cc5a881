// SPDX-License-Identifier: MIT
// Bursts of notifications: how fast an end sends them, and how fast an end has handled them. A
// request behind each burst tells when it has been handled: it is answered in turn.
#include <vector>

#include "bench/ends.h"
#include "bench/harness.h"
#include "bench/sd-bus.h"
#include "bench/subjects.h"

namespace bench {
namespace {

// The caller plays the partner of the service that is a channel: it announces the SYN, which binds
// the channel to it.
void OpenHandshake(const std::string& channel) {
    const std::string name = BusName(channel, "_SERVICE_SYN");
    sd_bus_request_name(SdBusConnection(), name.c_str(), 0);
    sd_bus_release_name(SdBusConnection(), name.c_str());
}

}  // namespace

void MeasureNotifications(Extent extent, Peer& socket) {
    const int rounds = extent == Extent::Quick ? 15 : 300;
    const std::vector<std::size_t> sizes = {0, 16, 64, 1024};

    BoundChannels channels("notifications", {MakeChannel, MakeBulkChannel});
    const auto gdbus = MakeGDBusPeer(channels.Partner(), Conversion::Bulk);
    const auto loop = MakeGDBusPeer(channels.Partner(), Conversion::PerByte);
    const auto sdbus = MakeSdBusPeer(channels.Partner());
    const auto sdbuscpp = MakeSdbusCppPeer(channels.Partner());
    for (const std::size_t size : sizes) {
        Group group("notifying", size);
        group.Add("channel", Bursts(channels[0], size));
        group.Add("bulk", Bursts(channels[1], size));
        group.Add("gdbus", Bursts(*gdbus, size));
        group.Add("loop", Bursts(*loop, size));
        group.Add("sdbus", Bursts(*sdbus, size));
        group.Add("sdbuscpp", Bursts(*sdbuscpp, size));
        group.Add("socket", Bursts(socket, size));
        group.Run(rounds, 1, Group::Timing::ByBody);
    }

    const auto services = StartServices();
    OpenHandshake("channel");
    OpenHandshake("bulk");
    for (const std::size_t size : sizes) {
        Group group("handling", size);
        for (const CalledService& one : services) {
            group.Add(one.kind, Bursts(*one.caller, size));
        }
        group.Run(rounds, 1, Group::Timing::ByBody);
    }
}

}  // namespace bench
