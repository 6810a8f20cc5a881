// SPDX-License-Identifier: MIT
// The peer written on sdbus-c++, with its convenience calls.
#include <sdbus-c++/sdbus-c++.h>

#include <cstdint>

#include "bench/peer.h"

namespace bench {
namespace {

// What the library maps to an array of bytes.
using Octets = std::vector<std::uint8_t>;

class SdbusCppPeer : public Peer {
public:
    explicit SdbusCppPeer(const Address& service)
        : m_service(service.unique_name),
          m_connection(sdbus::createSystemBusConnection()),
          m_object(sdbus::createObject(*m_connection, ObjectPath(service.channel))),
          m_proxy(sdbus::createProxy(*m_connection, m_service, ObjectPath(service.channel))) {}

    Bytes Request(Bytes& data) override {
        Octets reply;
        m_proxy->callMethod(kMethod)
            .onInterface(kInterface)
            .withArguments(Octets(data.begin(), data.end()))
            .storeResultsTo(reply);
        return Bytes(reply.begin(), reply.end());
    }

    void Notify(Bytes& data) override {
        auto signal = m_object->createSignal(kInterface, kSignal);
        signal.setDestination(m_service);
        signal << Octets(data.begin(), data.end());
        m_object->emitSignal(signal);
    }

private:
    const std::string m_service;
    const std::unique_ptr<sdbus::IConnection> m_connection;
    const std::unique_ptr<sdbus::IObject> m_object;
    const std::unique_ptr<sdbus::IProxy> m_proxy;
};

}  // namespace

std::unique_ptr<Peer> MakeSdbusCppPeer(const Address& service) {
    return std::make_unique<SdbusCppPeer>(service);
}

void ServeSdbusCpp(const std::string& channel, const std::string& caller, const Ready& ready) {
    const auto connection = sdbus::createSystemBusConnection();
    const std::string path = ObjectPath(channel);
    const auto object = sdbus::createObject(*connection, path);
    object->registerMethod(kMethod).onInterface(kInterface).implementedAs([](const Octets& data) {
        return data;
    });
    object->finishRegistration();
    const auto proxy = sdbus::createProxy(*connection, caller, path);
    proxy->uponSignal(kSignal).onInterface(kInterface).call([](const Octets& /*data*/) {});
    proxy->finishRegistration();
    ready(connection->getUniqueName());
    connection->enterEventLoop();
}

}  // namespace bench
