// SPDX-License-Identifier: MIT
// The peer written on sd-bus.
#include <sys/prctl.h>
#include <sys/socket.h>
#include <systemd/sd-bus.h>
#include <unistd.h>

#include <array>
#include <csignal>
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

// On the bus, or, with an empty service, straight to the other end of a connection.
class SdBusPeer : public Peer {
public:
    SdBusPeer(sd_bus* connection, const Address& service)
        : m_connection(connection),
          m_service(service.unique_name),
          m_path(ObjectPath(service.channel)) {}

    Bytes Request(Bytes& data) override {
        sd_bus_message* call = nullptr;
        Check(sd_bus_message_new_method_call(m_connection, &call, Destination(), m_path.c_str(),
                                             kInterface, kMethod),
              "no call");
        sd_bus_message_append_array(call, 'y', data.data(), data.size());
        sd_bus_message* reply = nullptr;
        // Without a timeout: a service that converts 16 MiB byte by byte on a busy machine needs
        // long.
        Check(sd_bus_call(m_connection, call, UINT64_MAX, nullptr, &reply), "the request failed");
        Bytes bytes = ReadBytes(reply);
        sd_bus_message_unref(call);
        sd_bus_message_unref(reply);
        return bytes;
    }

    void Notify(Bytes& data) override {
        sd_bus_message* signal = nullptr;
        Check(sd_bus_message_new_signal(m_connection, &signal, m_path.c_str(), kInterface, kSignal),
              "no signal");
        if (!m_service.empty()) {
            sd_bus_message_set_destination(signal, m_service.c_str());
        }
        sd_bus_message_append_array(signal, 'y', data.data(), data.size());
        Check(sd_bus_send(m_connection, signal, nullptr), "the signal was not sent");
        sd_bus_message_unref(signal);
    }

private:
    const char* Destination() const {
        return m_service.empty() ? nullptr : m_service.c_str();
    }

    sd_bus* const m_connection;
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

[[noreturn]] void Serve(sd_bus* bus) {
    for (;;) {
        const int processed = sd_bus_process(bus, nullptr);
        Check(processed, "the bus is gone");
        if (processed == 0) {
            sd_bus_wait(bus, UINT64_MAX);
        }
    }
}

constexpr const char* kPairChannel = "pair";

// One end of a socket pair.
sd_bus* OpenPair(int socket, bool server) {
    sd_bus* bus = nullptr;
    Check(sd_bus_new(&bus), "no connection");
    Check(sd_bus_set_fd(bus, socket, socket), "no connection");
    if (server) {
        sd_id128_t id{};
        Check(sd_id128_randomize(&id), "no identity");
        Check(sd_bus_set_server(bus, 1, id), "no server");
    }
    Check(sd_bus_start(bus), "no connection");
    return bus;
}

[[noreturn]] void ServePair(int socket) {
    sd_bus* bus = OpenPair(socket, true);
    const std::string path = ObjectPath(kPairChannel);
    Check(sd_bus_add_object(bus, nullptr, path.c_str(), Echo, nullptr), "no object");
    Check(sd_bus_match_signal(bus, nullptr, nullptr, path.c_str(), kInterface, nullptr, Drop,
                              nullptr),
          "no subscription");
    Serve(bus);
}

sd_bus* Connect() {
    sd_bus* opened = nullptr;
    Check(sd_bus_open_system(&opened), "no bus");
    return opened;
}

}  // namespace

sd_bus* SdBusConnection() {
    static sd_bus* const connection = Connect();
    return connection;
}

std::string SdBusUniqueName() {
    const char* name = nullptr;
    Check(sd_bus_get_unique_name(SdBusConnection(), &name), "no unique name");
    return name;
}

std::unique_ptr<Peer> MakeSdBusPeer(const Address& service) {
    return std::make_unique<SdBusPeer>(SdBusConnection(), service);
}

std::unique_ptr<Peer> MakeSdBusPeerOfItsOwn(const Address& service) {
    return std::make_unique<SdBusPeer>(Connect(), service);
}

void ServeSdBus(const std::string& channel, const std::string& caller, const Ready& ready) {
    sd_bus* bus = SdBusConnection();
    const std::string path = ObjectPath(channel);
    Check(sd_bus_add_object(bus, nullptr, path.c_str(), Echo, nullptr), "no object");
    Check(sd_bus_match_signal(bus, nullptr, caller.c_str(), path.c_str(), kInterface, nullptr, Drop,
                              nullptr),
          "no subscription");
    ready(SdBusUniqueName());
    Serve(bus);
}

std::unique_ptr<Peer> MakeSdBusPairPeer() {
    std::array<int, 2> pair{};
    if (socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0, pair.data()) != 0) {
        throw std::runtime_error("sd-bus: no socket pair");
    }
    if (fork() == 0) {
        prctl(PR_SET_PDEATHSIG, SIGKILL);
        close(pair[0]);
        try {
            ServePair(pair[1]);
        } catch (const std::runtime_error&) {
            _exit(0);  // the other end has gone
        }
    }
    close(pair[1]);
    return std::make_unique<SdBusPeer>(OpenPair(pair[0], false), Address{"", kPairChannel});
}

}  // namespace bench
