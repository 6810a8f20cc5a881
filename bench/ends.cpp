// SPDX-License-Identifier: MIT
#include "bench/ends.h"

#include <algorithm>
#include <stdexcept>
#include <utility>

#include "bench/sd-bus.h"
#include "devkit/loop.h"

namespace bench {
namespace {

// The rest of the first line with that beginning, from line `from` on, once it is there.
std::string AwaitLine(const tevrol::PartnerProcess& process, const std::string& beginning,
                      std::size_t from = 0) {
    WaitFor(beginning, [&] { return process.Find(beginning, from).has_value(); });
    return *process.Find(beginning, from);
}

std::string Joined(const std::string& channel) {
    return "joined " + channel + " ";
}

}  // namespace

void WaitFor(const std::string& what, const std::function<bool()>& condition) {
    if (!tevrol::IterateUntil(condition)) {
        throw std::runtime_error("waited in vain for: " + what);
    }
}

Partners::Partners(const std::vector<std::string>& channels)
    : m_process(TEVROL_BENCH_PARTNERS, channels.front(),
                std::vector<std::string>(channels.begin() + 1, channels.end())) {
    AwaitLine(m_process, Joined(channels.back()));
}

void Partners::Open(const std::string& channel) {
    m_process.Command("open " + channel);
}

void Partners::Leave(const std::string& channel) {
    m_process.Command("leave " + channel);
}

void Partners::Rejoin(const std::string& channel) {
    const std::size_t lines = m_process.Lines().size();
    m_process.Command("again " + channel);
    AwaitLine(m_process, Joined(channel), lines);
}

Address Partners::AddressOf(const std::string& channel) const {
    return {AwaitLine(m_process, Joined(channel)), channel};
}

BoundChannels::BoundChannels(const std::string& name, const std::vector<Make>& makers) {
    for (const Make make : makers) {
        m_channels.push_back(make(name));
    }
    m_partner = std::make_unique<Partners>(std::vector<std::string>{name});
    m_address = m_partner->AddressOf(name);
    m_partner->Open(name);
    WaitFor("the handshake", [&] {
        return std::all_of(m_channels.begin(), m_channels.end(),
                           [](const auto& channel) { return channel->IsReady(); });
    });
}

Service::Service(const std::string& kind, const std::string& caller)
    : m_kind(kind), m_process(TEVROL_BENCH_SERVICE, kind, {caller}) {
    GetAddress();
}

Address Service::GetAddress() const {
    return {AwaitLine(m_process, "ready "), m_kind};
}

std::vector<CalledService> StartServices() {
    std::vector<CalledService> services;
    for (const char* kind : {"channel", "loop", "bulk", "gdbus", "sdbus", "sdbuscpp"}) {
        auto service = std::make_unique<Service>(kind, SdBusUniqueName());
        auto caller = MakeSdBusPeer(service->GetAddress());
        services.push_back({kind, std::move(service), std::move(caller)});
    }
    return services;
}

}  // namespace bench
