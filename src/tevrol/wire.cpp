// SPDX-License-Identifier: MIT
#include "tevrol/wire.h"

#include <algorithm>
#include <array>
#include <cstring>
#include <new>
#include <system_error>
#include <utility>

#include "tevrol/names.h"

namespace tevrol {
namespace {

void Check(int result, const char* what) {
    if (result < 0) {
        throw std::system_error(-result, std::generic_category(), what);
    }
}

// The macros of sd-bus.h write designated initialisers, which C++17 does not know and which the
// compilers take all the same. Strict checks of the sender's privileges are off: who may call is
// decided by the engine, and by the bus's policy.
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wpedantic"
#ifdef __clang__
#pragma GCC diagnostic ignored "-Wc99-designator"
#pragma GCC diagnostic ignored "-Wc99-extensions"
#endif
using VTable = std::array<sd_bus_vtable, 3>;

VTable SendTable(sd_bus_message_handler_t handler) {
    return {{SD_BUS_VTABLE_START(0),
             SD_BUS_METHOD_WITH_NAMES(kMethod, "ay", SD_BUS_PARAM(data), "ay",
                                      SD_BUS_PARAM(response), handler, SD_BUS_VTABLE_UNPRIVILEGED),
             SD_BUS_VTABLE_END}};
}

VTable LinkTable(sd_bus_message_handler_t handler) {
    return {{SD_BUS_VTABLE_START(0),
             SD_BUS_METHOD_WITH_NAMES(kOpen, "h", SD_BUS_PARAM(socket), "", , handler,
                                      SD_BUS_VTABLE_UNPRIVILEGED),
             SD_BUS_VTABLE_END}};
}
#pragma GCC diagnostic pop

}  // namespace

Message NewReturn(sd_bus_message* call) {
    sd_bus_message* reply = nullptr;
    sd_bus_message_new_method_return(call, &reply);
    return Message(reply);
}

Message NewReturn(sd_bus_message* call, const Bytes& payload) {
    Message reply = NewReturn(call);
    return AppendPayload(reply.get(), payload) ? std::move(reply) : nullptr;
}

Message NewError(sd_bus_message* call, const char* error, const char* text) {
    sd_bus_message* reply = nullptr;
    sd_bus_message_new_method_errorf(call, &reply, error, "%s", text);
    return Message(reply);
}

bool AppendPayload(sd_bus_message* message, const Bytes& payload) {
    return message != nullptr &&
           sd_bus_message_append_array(message, 'y', payload.data(), payload.size()) >= 0;
}

Wire::Wire(bool is_bus, std::string path, Receiver& receiver)
    : m_is_bus(is_bus), m_path(std::move(path)), m_receiver(receiver) {}

std::unique_ptr<Wire> Wire::ToBus(const std::string& address, const std::string& path,
                                  Receiver& receiver) {
    std::unique_ptr<Wire> wire(new Wire(true, path, receiver));
    if (address.empty()) {
        Check(sd_bus_open_system(&wire->m_bus), "system bus");
    } else {
        Check(sd_bus_new(&wire->m_bus), "bus");
        Check(sd_bus_set_address(wire->m_bus, address.c_str()), "bus address");
        Check(sd_bus_set_bus_client(wire->m_bus, 1), "bus");
        Check(sd_bus_start(wire->m_bus), "bus");
    }
    wire->Export();
    return wire;
}

std::unique_ptr<Wire> Wire::ToPartner(Descriptor socket, Side side, const std::string& path,
                                      Receiver& receiver) {
    std::unique_ptr<Wire> wire(new Wire(false, path, receiver));
    Check(sd_bus_new(&wire->m_bus), "direct link");
    if (side == Side::Accepting) {
        sd_id128_t id{};
        Check(sd_id128_randomize(&id), "direct link");
        Check(sd_bus_set_server(wire->m_bus, 1, id), "direct link");
    }
    Check(sd_bus_negotiate_fds(wire->m_bus, 0), "direct link");
    Check(sd_bus_set_fd(wire->m_bus, socket.Get(), socket.Get()), "direct link");
    socket.Release();
    Check(sd_bus_start(wire->m_bus), "direct link");
    wire->Export();
    return wire;
}

Wire::~Wire() {
    sd_bus_close(m_bus);
    sd_bus_unref(m_bus);
}

void Wire::Export() {
    // sd-bus refers to the tables for as long as the object is exported.
    static const VTable send = SendTable(OnMethod);
    static const VTable link = LinkTable(OnMethod);
    Check(sd_bus_add_filter(m_bus, nullptr, OnMessage, this), "filter");
    Check(sd_bus_add_object_vtable(m_bus, nullptr, m_path.c_str(), kInterface, send.data(), this),
          "object");
    if (m_is_bus) {
        Check(sd_bus_add_object_vtable(m_bus, nullptr, m_path.c_str(), kLinkInterface, link.data(),
                                       this),
              "object");
    }
}

// sd-bus knows no exceptions. Without the memory for what a message brings, the message is lost.
template <typename Take>
void Wire::Guard(const Take& take) {
    try {
        take();
    } catch (const std::bad_alloc&) {
        OnNoMemory();
    }
}

int Wire::OnMethod(sd_bus_message* call, void* data, sd_bus_error* /*error*/) {
    auto* wire = static_cast<Wire*>(data);
    Message taken(sd_bus_message_ref(call));
    wire->Guard([&] {
        if (std::strcmp(sd_bus_message_get_member(call), kMethod) == 0) {
            wire->m_receiver.OnRequest(*wire, std::move(taken));
        } else {
            wire->m_receiver.OnOpen(*wire, std::move(taken));
        }
    });
    return 1;
}

int Wire::OnMessage(sd_bus_message* message, void* data, sd_bus_error* /*error*/) {
    auto* wire = static_cast<Wire*>(data);
    std::uint8_t type = 0;
    sd_bus_message_get_type(message, &type);
    if (type == SD_BUS_MESSAGE_SIGNAL) {
        wire->Guard([&] { wire->m_receiver.OnSignal(*wire, message); });
    } else if (type != SD_BUS_MESSAGE_METHOD_CALL) {
        std::uint64_t cookie = 0;
        sd_bus_message_get_reply_cookie(message, &cookie);
        if (sd_bus_message_is_method_error(message, kAnsweredDirectly) > 0) {
            return 0;
        }
        if (const OnReply on_reply = wire->TakeCall(cookie)) {
            wire->Guard([&] { on_reply(message); });
        }
    }
    return 0;
}

bool Wire::Process() {
    if (m_broken) {
        return false;
    }
    const int processed = sd_bus_process(m_bus, nullptr);
    m_broken = m_broken || processed < 0 || sd_bus_is_open(m_bus) <= 0;
    m_ready = m_ready || sd_bus_is_ready(m_bus) > 0;
    return processed > 0;
}

std::string Wire::UniqueName() const {
    const char* name = nullptr;
    return sd_bus_get_unique_name(m_bus, &name) < 0 ? "" : name;
}

std::optional<int> Wire::FormerFd() {
    if (m_fd_is_final) {
        return std::nullopt;
    }
    m_fd_is_final = m_ready;
    const int fd = sd_bus_get_fd(m_bus);
    if (fd < 0 || fd == m_fd) {
        return std::nullopt;
    }
    return std::exchange(m_fd, fd);
}

short Wire::Events() const {
    return static_cast<short>(std::max(sd_bus_get_events(m_bus), 0));
}

std::optional<Deadline> Wire::Timeout() const {
    std::uint64_t microseconds = 0;
    if (m_ready || sd_bus_get_timeout(m_bus, &microseconds) <= 0 || microseconds == UINT64_MAX) {
        return std::nullopt;
    }
    return Deadline(std::chrono::microseconds(microseconds));
}

Message Wire::NewCall(const char* destination, const char* path, const char* interface,
                      const char* method) const {
    sd_bus_message* call = nullptr;
    sd_bus_message_new_method_call(m_bus, &call, destination, path, interface, method);
    return Message(call);
}

Message Wire::NewSignal(const char* destination, const char* path, const char* interface,
                        const char* member) const {
    sd_bus_message* signal = nullptr;
    sd_bus_message_new_signal(m_bus, &signal, path, interface, member);
    Message created(signal);
    // Without its destination it would go to everybody.
    const bool addressed =
        created != nullptr &&
        (destination == nullptr || sd_bus_message_set_destination(signal, destination) >= 0);
    return addressed ? std::move(created) : nullptr;
}

void Wire::Send(sd_bus_message* message) {
    if (message == nullptr || sd_bus_send(m_bus, message, nullptr) < 0) {
        m_broken = true;
    }
}

void Wire::Call(sd_bus_message* message, OnReply on_reply) {
    std::uint64_t cookie = 0;
    if (message == nullptr || sd_bus_send(m_bus, message, &cookie) < 0) {
        m_broken = true;
    } else {
        Guard([&] { m_calls.emplace(cookie, std::move(on_reply)); });
    }
}

bool Wire::IsWritten() const {
    std::uint64_t waiting = 0;
    return sd_bus_get_n_queued_write(m_bus, &waiting) >= 0 && waiting == 0;
}

Wire::OnReply Wire::TakeCall(std::uint64_t cookie) {
    const auto found = m_calls.find(cookie);
    if (found == m_calls.end()) {
        return {};
    }
    OnReply on_reply = std::move(found->second);
    m_calls.erase(found);
    return on_reply;
}

}  // namespace tevrol
