// SPDX-License-Identifier: MIT
// What is measured: ways of exchanging byte buffers with one echo service in another process, all
// on the same object, method and signal.
#pragma once

#include <functional>
#include <memory>
#include <string>
#include <vector>

namespace bench {

using Bytes = std::vector<char>;

constexpr const char* kInterface = "org.ulmar.tevrol.DbusCommunication";
constexpr const char* kMethod = "Send";
constexpr const char* kSignal = "SendSignal";

constexpr const char* kIntrospection =
    "<node><interface name='org.ulmar.tevrol.DbusCommunication'><method name='Send'>"
    "<arg type='ay' name='data' direction='in'/><arg type='ay' name='response' direction='out'/>"
    "</method></interface></node>";

inline std::string ObjectPath(const std::string& channel) {
    return "/org/ulmar/tevrol/CommunicationChannel/" + channel;
}

inline std::string BusName(const std::string& channel, const std::string& suffix) {
    return "org.ulmar.Tevrol." + channel + suffix;
}

// The end that requests. Throws std::runtime_error when a request fails. Only the channel returns
// an empty buffer instead.
class Peer {
public:
    Peer() = default;
    virtual ~Peer() = default;
    Peer(const Peer&) = delete;
    Peer& operator=(const Peer&) = delete;

    virtual Bytes Request(Bytes& data) = 0;
    virtual void Notify(Bytes& data) = 0;
};

// Where the echo service is.
struct Address {
    std::string unique_name;
    std::string channel;
};

// Payload conversion: one library call for a whole buffer, or one for each byte.
enum class Conversion { Bulk, PerByte };

// The channel never frees its replies, by design.
enum class Replies { Released, Kept };

std::unique_ptr<Peer> MakeGDBusPeer(const Address& service, Conversion conversion,
                                    Replies replies = Replies::Released);
std::unique_ptr<Peer> MakeSdBusPeer(const Address& service);
// The same on a connection of its own, for a thread of its own.
std::unique_ptr<Peer> MakeSdBusPeerOfItsOwn(const Address& service);
std::unique_ptr<Peer> MakeSdbusCppPeer(const Address& service);
// tevrol::Channel at this end, for a service of the same kind and name. With `direct`, over the
// link that both set up between them.
std::unique_ptr<Peer> MakeEitherEndPeer(const std::string& channel, bool direct);
// A child process that echoes on sd-bus over a socket pair, without a bus. Forks, as the next one.
std::unique_ptr<Peer> MakeSdBusPairPeer();
// A child process that echoes over a socket pair, without a bus. Forks, so make it before any
// thread.
std::unique_ptr<Peer> MakeSocketPeer();

// This process's unique name on GIO's system bus connection, which the channel shares.
std::string ProcessUniqueName();

// The end that answers: echoes requests to the object of `channel`, drops the notifications of the
// process `caller` and does not return. Calls `ready` with its unique name when it can be called.
using Ready = std::function<void(const std::string& unique_name)>;
void ServeGDBus(const std::string& channel, const std::string& caller, Conversion conversion,
                const Ready& ready);
void ServeSdBus(const std::string& channel, const std::string& caller, const Ready& ready);
void ServeEitherEnd(const std::string& channel, bool direct, const Ready& ready);
void ServeSdbusCpp(const std::string& channel, const std::string& caller, const Ready& ready);

}  // namespace bench
