// SPDX-License-Identifier: MIT
// The lower bound: two processes and a socket pair, without a bus.
#include <sys/prctl.h>
#include <sys/socket.h>
#include <unistd.h>

#include <array>
#include <csignal>
#include <cstdint>
#include <stdexcept>

#include "bench/peer.h"

namespace bench {
namespace {

struct Header {
    std::uint32_t size;
    std::uint32_t wants_reply;
};

// False when the other end is gone.
bool WriteAll(int socket, const void* data, std::size_t size) {
    const char* next = static_cast<const char*>(data);
    while (size > 0) {
        const ssize_t written = send(socket, next, size, MSG_NOSIGNAL);
        if (written <= 0) {
            return false;
        }
        next += written;
        size -= static_cast<std::size_t>(written);
    }
    return true;
}

bool ReadAll(int socket, void* data, std::size_t size) {
    return size == 0 || recv(socket, data, size, MSG_WAITALL) == static_cast<ssize_t>(size);
}

void Send(int socket, const Bytes& data, bool wants_reply) {
    const Header header = {static_cast<std::uint32_t>(data.size()), wants_reply ? 1U : 0U};
    if (!WriteAll(socket, &header, sizeof header) || !WriteAll(socket, data.data(), data.size())) {
        throw std::runtime_error("socket: cannot send");
    }
}

bool Receive(int socket, Header& header, Bytes& data) {
    if (!ReadAll(socket, &header, sizeof header)) {
        return false;
    }
    data.resize(header.size);
    return ReadAll(socket, data.data(), data.size());
}

[[noreturn]] void Echo(int socket) {
    Header header{};
    Bytes data;
    while (Receive(socket, header, data)) {
        if (header.wants_reply != 0) {
            Send(socket, data, false);
        }
    }
    _exit(0);
}

class SocketPeer : public Peer {
public:
    SocketPeer() {
        std::array<int, 2> pair{};
        if (socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, pair.data()) != 0) {
            throw std::runtime_error("socket: no pair");
        }
        if (fork() == 0) {
            prctl(PR_SET_PDEATHSIG, SIGKILL);
            close(pair[0]);
            Echo(pair[1]);
        }
        close(pair[1]);
        m_socket = pair[0];
    }
    ~SocketPeer() override {
        close(m_socket);
    }

    Bytes Request(Bytes& data) override {
        Send(m_socket, data, true);
        Header header{};
        Bytes reply;
        if (!Receive(m_socket, header, reply)) {
            throw std::runtime_error("socket: no reply");
        }
        return reply;
    }

    void Notify(Bytes& data) override {
        Send(m_socket, data, false);
    }

private:
    int m_socket = -1;
};

}  // namespace

std::unique_ptr<Peer> MakeSocketPeer() {
    return std::make_unique<SocketPeer>();
}

}  // namespace bench
