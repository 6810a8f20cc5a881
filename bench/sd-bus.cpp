// The peer written on sd-bus.
#include <systemd/sd-bus.h>

#include <cstdint>
#include <stdexcept>

#include "bench/peer.h"
#include "bench/sd-bus.h"

namespace bench {
namespace {

void Check(int result, const char* what) {
    if (result < 0) {
        throw std::runtime_error(std::string("sd-bus: ") + what);
    }
}

Bytes ReadBytes(sd_bus_message* message) {
    const void* data = nullptr;
    std::size_t size = 0;
    Check(sd_bus_message_read_array(message, 'y', &data, &size), "cannot read a payload");
    const char* bytes = static_cast<const char*>(data);
    return size == 0 ? Bytes() : Bytes(bytes, bytes + size);
}

class SdBusPeer : public Peer {
public:
    explicit SdBusPeer(const Address& service)
        : m_service(service.unique_name), m_path(ObjectPath(service.channel)) {}

    Bytes Request(Bytes& data) override {
        sd_bus_message* call = nullptr;
        Check(sd_bus_message_new_method_call(SdBusConnection(), &call, m_service.c_str(),
                                             m_path.c_str(), kInterface, kMethod),
              "no call");
        sd_bus_message_append_array(call, 'y', data.data(), data.size());
        sd_bus_message* reply = nullptr;
        // Without a timeout: a service that converts 16 MiB byte by byte on a busy machine needs
        // long.
        Check(sd_bus_call(SdBusConnection(), call, UINT64_MAX, nullptr, &reply),
              "the request failed");
        Bytes bytes = ReadBytes(reply);
        sd_bus_message_unref(call);
        sd_bus_message_unref(reply);
        return bytes;
    }

    void Notify(Bytes& data) override {
        sd_bus_message* signal = nullptr;
        Check(sd_bus_message_new_signal(SdBusConnection(), &signal, m_path.c_str(), kInterface,
                                        kSignal),
              "no signal");
        sd_bus_message_set_destination(signal, m_service.c_str());
        sd_bus_message_append_array(signal, 'y', data.data(), data.size());
        Check(sd_bus_send(SdBusConnection(), signal, nullptr), "the signal was not sent");
        sd_bus_message_unref(signal);
    }

private:
    const std::string m_service;
    const std::string m_path;
};

int Echo(sd_bus_message* message, void* /*data*/, sd_bus_error* /*error*/) {
    if (sd_bus_message_is_method_call(message, kInterface, kMethod) <= 0) {
        return 0;
    }
    const Bytes bytes = ReadBytes(message);
    sd_bus_message* reply = nullptr;
    Check(sd_bus_message_new_method_return(message, &reply), "no reply");
    sd_bus_message_append_array(reply, 'y', bytes.data(), bytes.size());
    const int sent = sd_bus_send(nullptr, reply, nullptr);
    sd_bus_message_unref(reply);
    return sent < 0 ? sent : 1;
}

int Drop(sd_bus_message* signal, void* /*data*/, sd_bus_error* /*error*/) {
    const Bytes taken = ReadBytes(signal);
    return 0;
}

}  // namespace

sd_bus* SdBusConnection() {
    static sd_bus* const connection = [] {
        sd_bus* opened = nullptr;
        Check(sd_bus_open_system(&opened), "no bus");
        return opened;
    }();
    return connection;
}

std::string SdBusUniqueName() {
    const char* name = nullptr;
    Check(sd_bus_get_unique_name(SdBusConnection(), &name), "no unique name");
    return name;
}

std::unique_ptr<Peer> MakeSdBusPeer(const Address& service) {
    return std::make_unique<SdBusPeer>(service);
}

void ServeSdBus(const std::string& channel, const std::string& caller, const Ready& ready) {
    sd_bus* bus = SdBusConnection();
    const std::string path = ObjectPath(channel);
    Check(sd_bus_add_object(bus, nullptr, path.c_str(), Echo, nullptr), "no object");
    Check(sd_bus_match_signal(bus, nullptr, caller.c_str(), path.c_str(), kInterface, nullptr, Drop,
                              nullptr),
          "no subscription");
    ready(SdBusUniqueName());
    for (;;) {
        const int processed = sd_bus_process(bus, nullptr);
        Check(processed, "the bus is gone");
        if (processed == 0) {
            sd_bus_wait(bus, UINT64_MAX);
        }
    }
}

}  // namespace bench
