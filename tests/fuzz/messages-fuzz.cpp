// SPDX-License-Identifier: MIT
// Whatever may come to a tevrol::Channel from the bus, from its partner and by their link: messages
// of any kind with any body, replies that say anything, and bytes that are no message. The bus is
// the fuzzer; the engine runs on its thread, without threads of its own.
#include <sys/socket.h>
#include <systemd/sd-bus.h>
#include <unistd.h>

#include <array>
#include <memory>
#include <mutex>

#include "tests/fuzz/choices.h"
#include "tests/support/device-log.h"
#include "tevrol/engine.h"
#include "tevrol/names.h"

namespace {

using tevrol::Engine;
using tevrol::Message;
using tevrol::Role;
using tevrol::Wire;

constexpr const char* kPartner = ":1.7";
constexpr const char* kOther = ":1.8";     // announces itself, too
constexpr const char* kStranger = ":1.9";  // never does
constexpr const char* kPath = "/org/ulmar/tevrol/CommunicationChannel/demo";

template <std::size_t kCount>
const char* OneOf(Choices& choices, const std::array<const char*, kCount>& texts) {
    return texts.at(choices.Below(kCount));
}

void AppendAny(sd_bus_message* message, Choices& choices) {
    const std::vector<char> bytes = choices.Bytes();
    const std::string text = choices.Text();
    const auto number = static_cast<std::uint32_t>(choices.Below(256));
    switch (choices.Below(8)) {
        case 0:
            sd_bus_message_append_array(message, 'y', bytes.data(), bytes.size());
            break;
        case 1:
            sd_bus_message_append(message, "s", text.c_str());
            break;
        case 2:
            sd_bus_message_append(message, "u", number);
            break;
        case 3:
            sd_bus_message_append(message, "tss", std::uint64_t{number}, text.c_str(), "text");
            sd_bus_message_append_array(message, 'y', bytes.data(), bytes.size());
            break;
        case 4:
            sd_bus_message_append(message, "a{sv}", 2, "ProcessID", "u", number, "UnixUserID",
                                  choices.OneIn(2) ? "u" : "s", text.c_str());
            break;
        case 5:
            sd_bus_message_append(message, "(ay)", 1, number);
            break;
        case 6:
            sd_bus_message_append(message, "v", "ay", 2, number, number);
            break;
        default:
            break;
    }
}

// The other side of one connection of the engine's.
class Peer {
public:
    Peer(int socket, bool server) {
        sd_bus_new(&m_connection);
        if (server) {
            sd_id128_t id{};
            sd_id128_randomize(&id);
            sd_bus_set_server(m_connection, 1, id);
        }
        sd_bus_set_fd(m_connection, socket, socket);
        sd_bus_start(m_connection);
        m_socket = socket;
    }
    ~Peer() {
        sd_bus_close_unref(m_connection);
    }
    Peer(const Peer&) = delete;
    Peer& operator=(const Peer&) = delete;

    sd_bus* Get() const {
        return m_connection;
    }
    bool Process() const {
        return sd_bus_process(m_connection, nullptr) > 0;
    }
    void Write(const std::vector<char>& bytes) const {
        [[maybe_unused]] const auto sent =
            send(m_socket, bytes.data(), bytes.size(), MSG_NOSIGNAL | MSG_DONTWAIT);
    }

private:
    sd_bus* m_connection = nullptr;
    int m_socket = -1;
};

std::array<int, 2> SocketPair() {
    std::array<int, 2> sockets{};
    Require(socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0, sockets.data()) == 0,
            "a socket pair");
    return sockets;
}

class World {
public:
    explicit World(Choices& choices)
        : m_choices(choices), m_role(choices.OneIn(2) ? Role::Service : Role::Client) {
        tevrol::Options options;
        options.address = "unix:path=/nowhere/at/all";
        options.queued = 1024;
        m_engine = std::make_shared<Engine>("demo", m_role, MakeHandlers(), options);
    }
    ~World() {
        m_answers.clear();
        m_engine->Close();
        Require(m_finished == m_requested, "every request has its outcome");
    }
    World(const World&) = delete;
    World& operator=(const World&) = delete;

    void Step() {
        Locked([&] {
            if (!m_engine->m_bus) {
                Join();
            }
        });
        switch (m_choices.Below(10)) {
            case 0:
                Send(*m_bus, kStranger);
                break;
            case 1:
                Announce();
                break;
            case 2:
                if (m_link) {
                    Send(*m_link, nullptr);
                }
                break;
            case 3:
                OpenLink();
                break;
            case 4:
                m_bus->Write(m_choices.Bytes());
                break;
            case 5:
                ++m_requested;
                m_engine->RequestLater(m_choices.Bytes(), [this](const tevrol::Reply& reply) {
                    ++m_finished;
                    Require(!reply || !reply.error, "a reply or an error");
                });
                break;
            case 6:
                static_cast<void>(m_engine->Notify(m_choices.Bytes()));
                break;
            case 7:
                Locked([&] { m_engine->Do(m_engine->m_handshake.TimedOut()); });
                break;
            case 8:
                Answer();
                break;
            default:
                Send(*m_bus, kPartner);
        }
        Pump();
    }

private:
    template <typename Body>
    void Locked(const Body& body) {
        const std::lock_guard<std::mutex> lock(m_engine->m_mutex);
        body();
    }

    tevrol::Handlers MakeHandlers() {
        tevrol::Handlers handlers;
        handlers.request_later = [this](const tevrol::Bytes& request,
                                        const tevrol::Answer& answer) {
            Require(!IsStrangers(request), "a stranger's request is refused");
            m_answers.push_back(answer);
        };
        handlers.notification = [](const tevrol::Bytes& notification) {
            Require(!IsStrangers(notification), "a stranger's notification is dropped");
        };
        handlers.ready = [this](const std::string& partner) {
            Require(!m_ready && !partner.empty(), "ready is told once");
            m_ready = true;
        };
        handlers.lost = [this](const std::string& /*partner*/) {
            Require(m_ready, "lost is told of who was ready");
            m_ready = false;
        };
        return handlers;
    }

    static bool IsStrangers(const tevrol::Bytes& bytes) {
        return std::string(bytes.begin(), bytes.end()) == "a stranger's";
    }

    // A new connection to the bus that this is.
    void Join() {
        m_link.reset();
        const auto sockets = SocketPair();
        m_bus = std::make_unique<Peer>(sockets[0], true);
        sd_bus_add_filter(m_bus->Get(), nullptr, OnCall, this);
        std::unique_ptr<Wire> wire(new Wire(true, kPath, *m_engine));
        sd_bus_new(&wire->m_bus);
        sd_bus_set_fd(wire->m_bus, sockets[1], sockets[1]);
        sd_bus_set_bus_client(wire->m_bus, 1);
        sd_bus_start(wire->m_bus);
        wire->Export();
        m_engine->m_bus = std::move(wire);
        m_engine->m_connect_at.reset();
        m_engine->UpdateWaiting();
    }

    // What the engine asks of the bus and of its partner. Mostly the answer is the good one.
    static int OnCall(sd_bus_message* call, void* self, sd_bus_error* /*error*/) {
        std::uint8_t type = 0;
        sd_bus_message_get_type(call, &type);
        if (type != SD_BUS_MESSAGE_METHOD_CALL) {
            return 0;
        }
        static_cast<World*>(self)->Reply(call);
        return 1;
    }

    void Reply(sd_bus_message* call) {
        const std::string member = sd_bus_message_get_member(call);
        sd_bus_message* reply = nullptr;
        if (member != "Hello" && m_choices.OneIn(5)) {
            sd_bus_message_new_method_errorf(call, &reply,
                                             m_choices.OneIn(2)
                                                 ? "org.freedesktop.DBus.Error.NameHasNoOwner"
                                                 : "org.ulmar.tevrol.Error.Failed",
                                             "no");
        } else {
            sd_bus_message_new_method_return(call, &reply);
            if (member != "Hello" && m_choices.OneIn(6)) {
                AppendAny(reply, m_choices);
            } else if (member == "Hello") {
                sd_bus_message_append(reply, "s", ":1.1");
            } else if (member == "RequestName" || member == "ReleaseName") {
                sd_bus_message_append(reply, "u", 1U);
            } else if (member == "GetConnectionCredentials") {
                sd_bus_message_append(reply, "a{sv}", 2, "ProcessID", "u", 7U, "UnixUserID", "u",
                                      0U);
            } else if (member == "Send") {
                AppendAny(reply, m_choices);
            }
        }
        sd_bus_message_set_sender(reply, tevrol::kDriver);
        sd_bus_send(m_bus->Get(), reply, nullptr);
        sd_bus_message_unref(reply);
    }

    void SendFrom(const Peer& peer, const char* sender, sd_bus_message* message) {
        if (sender != nullptr) {
            sd_bus_message_set_sender(message, sender);
        }
        sd_bus_send(peer.Get(), message, nullptr);
        sd_bus_message_unref(message);
    }

    void Send(const Peer& peer, const char* sender) {
        constexpr std::array<const char*, 3> interfaces = {
            tevrol::kInterface, tevrol::kLinkInterface, "org.freedesktop.DBus.Peer"};
        constexpr std::array<const char*, 6> members = {"Send",     "SendSignal", "Open",
                                                        "Switched", "Answered",   "Ping"};
        constexpr std::array<const char*, 2> paths = {kPath, "/elsewhere"};
        sd_bus_message* message = nullptr;
        const char* path = OneOf(m_choices, paths);
        const char* interface = OneOf(m_choices, interfaces);
        const char* member = OneOf(m_choices, members);
        if (m_choices.OneIn(2)) {
            sd_bus_message_new_signal(peer.Get(), &message, path, interface, member);
        } else {
            sd_bus_message_new_method_call(peer.Get(), &message, nullptr, path, interface, member);
        }
        if (sender == kStranger) {
            const std::string text = "a stranger's";
            sd_bus_message_append_array(message, 'y', text.data(), text.size());
        } else {
            AppendAny(message, m_choices);
        }
        SendFrom(peer, sender, message);
    }

    // The bus tells that a name has another owner.
    void Announce() {
        const std::string own = m_role == Role::Client ? "_CLIENT" : "_SERVICE";
        const std::string others = m_role == Role::Client ? "_SERVICE" : "_CLIENT";
        const std::array<std::string, 6> names = {
            "org.ulmar.Tevrol.demo" + others + "_SYN",
            "org.ulmar.Tevrol.demo" + others + "_SYN_ACK",
            "org.ulmar.Tevrol.demo" + others + "_ACK",
            "org.ulmar.Tevrol.demo" + own,
            kPartner,
            kStranger,
        };
        const std::string& name = names.at(m_choices.Below(names.size()));
        sd_bus_message* signal = nullptr;
        const bool acquired = m_choices.OneIn(8);
        sd_bus_message_new_signal(m_bus->Get(), &signal, tevrol::kDriverPath, tevrol::kDriver,
                                  acquired ? "NameAcquired" : "NameOwnerChanged");
        if (acquired || m_choices.OneIn(16)) {
            sd_bus_message_append(signal, "s", name.c_str());
        } else {
            const char* owner = name.front() == ':'  ? name.c_str()
                                : m_choices.OneIn(4) ? kOther
                                                     : kPartner;
            sd_bus_message_append(signal, "sss", name.c_str(), owner,
                                  m_choices.OneIn(8) ? kOther : "");
        }
        SendFrom(*m_bus, tevrol::kDriver, signal);
    }

    // The partner offers a link.
    void OpenLink() {
        const auto sockets = SocketPair();
        sd_bus_message* call = nullptr;
        sd_bus_message_new_method_call(m_bus->Get(), &call, nullptr, kPath, tevrol::kLinkInterface,
                                       tevrol::kOpen);
        sd_bus_message_append(call, "h", sockets[1]);
        if (m_choices.OneIn(4)) {
            SendFrom(*m_bus, kStranger, call);
            close(sockets[0]);
            close(sockets[1]);
            return;
        }
        SendFrom(*m_bus, kPartner, call);
        close(sockets[1]);
        m_link = std::make_unique<Peer>(sockets[0], false);
    }

    void Answer() {
        if (m_answers.empty()) {
            return;
        }
        if (m_choices.OneIn(2)) {
            m_answers.back()(m_choices.Bytes());
        } else {
            m_answers.back().Fail("no");
        }
        m_answers.pop_back();
    }

    // Until nobody has anything to do.
    void Pump() {
        tevrol::Poller::Ready all;
        all.m_all = true;
        for (int rounds = 0; rounds < 50; ++rounds) {
            const bool bus = m_bus->Process();
            const bool link = m_link && m_link->Process();
            std::unique_lock<std::mutex> lock(m_engine->m_mutex);
            m_engine->TakeWhatArrived(all);
            const bool jobs = !m_engine->m_jobs.empty();
            if (jobs) {
                m_engine->Serve(lock);
            }
            if (!bus && !link && !jobs) {
                break;
            }
        }
    }

    Choices& m_choices;
    const Role m_role;
    std::vector<tevrol::Answer> m_answers;
    int m_requested = 0;
    int m_finished = 0;
    bool m_ready = false;
    std::shared_ptr<Engine> m_engine;
    std::unique_ptr<Peer> m_bus;
    std::unique_ptr<Peer> m_link;
};

}  // namespace

// The log is not looked at here.
bool TakeLogLine(int, int, const char*, const char*) {
    return true;
}

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    Choices choices(data, size);
    World world(choices);
    while (choices.AreLeft()) {
        world.Step();
    }
    return 0;
}
