// SPDX-License-Identifier: MIT
// The other ends as child processes, and a channel or two that are bound to them.
#pragma once

#include <memory>
#include <string>
#include <vector>

#include "bench/channel.h"
#include "devkit/partner-process.h"

namespace bench {

// The service ends of some channels, in one process, joined and waiting.
class Partners {
public:
    explicit Partners(const std::vector<std::string>& channels);

    void Open(const std::string& channel);
    void Leave(const std::string& channel);
    // Leaves the bus and joins it again, as a new partner.
    void Rejoin(const std::string& channel);

    Address AddressOf(const std::string& channel) const;

private:
    tevrol::PartnerProcess m_process;
};

// Makes channels of the same name in this process, then their one partner, which binds them all.
class BoundChannels {
public:
    using Make = std::unique_ptr<Channel> (*)(const std::string&);
    BoundChannels(const std::string& name, const std::vector<Make>& makers);

    Channel& operator[](std::size_t index) {
        return *m_channels.at(index);
    }
    // The partner, for peers that call it without a channel.
    Address Partner() const {
        return m_address;
    }

private:
    std::vector<std::unique_ptr<Channel>> m_channels;
    std::unique_ptr<Partners> m_partner;
    Address m_address;
};

// The echo service `kind` as a process that takes the notifications of `caller`.
class Service {
public:
    Service(const std::string& kind, const std::string& caller);
    Address GetAddress() const;

private:
    const std::string m_kind;
    tevrol::PartnerProcess m_process;
};

// Every kind of service, called and notified by the one caller on sd-bus.
struct CalledService {
    std::string kind;
    std::unique_ptr<Service> service;
    std::unique_ptr<Peer> caller;
};
std::vector<CalledService> StartServices();

// Runs the main loop until `condition` holds. Throws std::runtime_error with `what` when it does
// not in time.
void WaitFor(const std::string& what, const std::function<bool()>& condition);

}  // namespace bench
