// SPDX-License-Identifier: MIT
#include <tevrol/channel.h>

#include <condition_variable>
#include <memory>
#include <mutex>
#include <utility>

#include "devkit/private-bus.h"
#include "examples/demo.h"

namespace demo {
namespace {

using tevrol::Bytes;
using tevrol::Describe;
using tevrol::Role;

// One end, which tells what happens to it and answers requests reversed.
class ToldEnd {
public:
    ToldEnd(std::string name, Role role)
        : m_name(std::move(name)), m_channel("demo", role, MakeHandlers()) {}

    void AwaitReady() const {
        Check(m_channel.WaitReady(kPatience), m_name + " did not become ready");
    }
    int Losses() const {
        const std::lock_guard<std::mutex> lock(m_mutex);
        return m_losses;
    }
    // Waits for a loss after those.
    void AwaitLoss(int before) {
        std::unique_lock<std::mutex> lock(m_mutex);
        Check(m_lost.wait_for(lock, kPatience, [&] { return m_losses > before; }),
              m_name + " did not notice a loss");
    }
    void Request(const std::string& text) {
        const Bytes request = tevrol::ToBytes(text);
        Tell(m_name, "requests " + Describe(request));
        const tevrol::Reply reply = m_channel.Request(request, kPatience);
        Check(!reply.error && reply.payload == Reversed(request), "another reply was expected");
        Tell(m_name, "reply: " + Describe(reply.payload) +
                         (m_channel.IsDirect() ? ", by the direct link" : ", over the bus"));
    }

private:
    tevrol::Handlers MakeHandlers() {
        tevrol::Handlers handlers;
        handlers.ready = [this](const std::string& partner) { Tell(m_name, "ready: " + partner); };
        handlers.lost = [this](const std::string& partner) {
            Tell(m_name, "lost: " + partner);
            const std::lock_guard<std::mutex> lock(m_mutex);
            ++m_losses;
            m_lost.notify_all();
        };
        handlers.request = [](const Bytes& request) { return Reversed(request); };
        return handlers;
    }

    const std::string m_name;
    mutable std::mutex m_mutex;
    std::condition_variable m_lost;
    int m_losses = 0;
    tevrol::Channel m_channel;  // last: handlers are called as soon as it exists
};

void Meet(ToldEnd& client, Totals& totals) {
    client.AwaitReady();
    ++totals.handshakes;
    client.Request("stressed");
    ++totals.requests;
}

}  // namespace

void PlayChannels(Totals& totals) {
    Headline("tevrol::Channel, either end for new code: both start at the same moment");
    auto bus = std::make_unique<tevrol::PrivateBus>();
    auto service = std::make_unique<ToldEnd>("service", Role::Service);
    ToldEnd client("client", Role::Client);
    Meet(client, totals);

    Headline("Their bus is killed, and comes back");
    int losses = client.Losses();
    bus = nullptr;
    client.AwaitLoss(losses);
    ++totals.losses;
    Tell("bus", "a new one is up");
    bus = std::make_unique<tevrol::PrivateBus>();
    Meet(client, totals);

    Headline("The service ends, and its standby takes over");
    const ToldEnd standby("standby", Role::Service);
    losses = client.Losses();
    service = nullptr;
    client.AwaitLoss(losses);
    ++totals.losses;
    Meet(client, totals);
    standby.AwaitReady();
}

}  // namespace demo
