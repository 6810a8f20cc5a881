// SPDX-License-Identifier: MIT
// The peer that is a tevrol::Channel.
#include <unistd.h>

#include <stdexcept>

#include "bench/peer.h"
#include "tevrol/channel.h"

namespace bench {
namespace {

tevrol::Options MakeOptions(bool direct) {
    tevrol::Options options;
    options.direct = direct;
    options.timeout = std::chrono::minutes(5);  // on a busy machine
    return options;
}

tevrol::Handlers Echo() {
    tevrol::Handlers handlers;
    handlers.request = [](const Bytes& request) { return request; };
    return handlers;
}

class EitherEndPeer : public Peer {
public:
    EitherEndPeer(const std::string& channel, bool direct)
        : m_channel(channel, tevrol::Role::Client, {}, MakeOptions(direct)) {
        if (!m_channel.WaitReady(std::chrono::seconds(10))) {
            throw std::runtime_error("tevrol::Channel: not ready");
        }
        // The link is there when a request has been answered behind its offer.
        Bytes nothing;
        for (int i = 0; i < 100 && m_channel.IsDirect() != direct; ++i) {
            Request(nothing);
        }
        if (m_channel.IsDirect() != direct) {
            throw std::runtime_error("tevrol::Channel: no direct link");
        }
    }

    Bytes Request(Bytes& data) override {
        tevrol::Reply reply = m_channel.Request(data);
        if (!reply) {
            throw std::runtime_error("tevrol::Channel: " + reply.error.message());
        }
        return std::move(reply.payload);
    }

    void Notify(Bytes& data) override {
        if (const auto error = m_channel.Notify(data)) {
            throw std::runtime_error("tevrol::Channel: " + error.message());
        }
    }

private:
    tevrol::Channel m_channel;
};

}  // namespace

std::unique_ptr<Peer> MakeEitherEndPeer(const std::string& channel, bool direct) {
    return std::make_unique<EitherEndPeer>(channel, direct);
}

void ServeEitherEnd(const std::string& channel, bool direct, const Ready& ready) {
    const tevrol::Channel service(channel, tevrol::Role::Service, Echo(), MakeOptions(direct));
    ready("");
    for (;;) {
        pause();
    }
}

}  // namespace bench
