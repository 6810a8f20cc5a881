// SPDX-License-Identifier: MIT
// Memory of the asking process: the peak of one request, and what stays behind each request.
#include <fstream>
#include <stdexcept>
#include <string>

#include "bench/ends.h"
#include "bench/harness.h"
#include "bench/subjects.h"

namespace bench {
namespace {

// A line of this process's status, in bytes.
double StatusLine(const std::string& key) {
    std::ifstream status("/proc/self/status");
    std::string word;
    double kibibytes = 0;
    while (status >> word) {
        if (word == key) {
            status >> kibibytes;
            return kibibytes * 1024;
        }
    }
    throw std::runtime_error("no " + key);
}

class Contender {
public:
    Contender() = default;
    virtual ~Contender() = default;
    Contender(const Contender&) = delete;
    Contender& operator=(const Contender&) = delete;

    virtual void Request(Bytes& data) = 0;
};

// "channel", "bulk", "gdbus", or "keeping", which is GDBus that keeps its replies, with one
// partner.
class OnGDBus : public Contender {
public:
    explicit OnGDBus(const std::string& name)
        : m_channels("memory", {name == "bulk" ? MakeBulkChannel : MakeChannel}),
          m_gdbus(MakeGDBusPeer(m_channels.Partner(), Conversion::Bulk,
                                name == "keeping" ? Replies::Kept : Replies::Released)),
          m_asks_channel(name == "channel" || name == "bulk") {}

    void Request(Bytes& data) override {
        Peer& peer = m_asks_channel ? m_channels[0] : *m_gdbus;
        peer.Request(data);
    }

private:
    BoundChannels m_channels;
    std::unique_ptr<Peer> m_gdbus;
    const bool m_asks_channel;
};

// "either" or "direct", with a service of the same kind.
class OnSdBus : public Contender {
public:
    explicit OnSdBus(const std::string& name)
        : m_service(name, ""), m_peer(MakeEitherEndPeer(name, name == "direct")) {}

    void Request(Bytes& data) override {
        m_peer->Request(data);
    }

private:
    const Service m_service;
    const std::unique_ptr<Peer> m_peer;
};

std::unique_ptr<Contender> MakeContender(const std::string& name) {
    if (name == "either" || name == "direct") {
        return std::make_unique<OnSdBus>(name);
    }
    return std::make_unique<OnGDBus>(name);
}

}  // namespace

void MeasurePeak(const std::string& contender, std::size_t size) {
    Progress("memory " + contender + " " + std::to_string(size));
    const auto asking = MakeContender(contender);
    Bytes warm = Payload(16);
    asking->Request(warm);
    Bytes payload = Payload(size);
    const double before = StatusLine("VmRSS:");
    asking->Request(payload);
    Report("memory", "peak", contender, size, 0, StatusLine("VmHWM:") - before);
}

void MeasureGrowth(const std::string& contender, std::size_t size) {
    constexpr int kRequests = 1000;
    Progress("growth " + contender + " " + std::to_string(size));
    const auto asking = MakeContender(contender);
    Bytes payload = Payload(size);
    for (int i = 0; i < kRequests; ++i) {
        asking->Request(payload);
    }
    const double before = HeapInUse();
    for (int i = 0; i < kRequests; ++i) {
        asking->Request(payload);
    }
    Report("memory", "growth", contender, size, 0, (HeapInUse() - before) / kRequests);
}

}  // namespace bench
