// SPDX-License-Identifier: MIT
// Who waits for the descriptors of a channel, and how each is woken.
//
// Two kinds of thread wait. Workers, the channel's own threads, wait for work of any kind. A reader
// is the one thread that waits for a reply right now. What arrives wakes the reader alone where
// there is one, and else one worker: so a request in an idle channel is sent, waited for and read
// by one thread, without a system call to take turns.
//
// That is made of two sets of epoll(7) that know the same descriptors by EPOLLEXCLUSIVE: the kernel
// wakes the first that has a thread waiting. It may wake the other all the same. Nothing depends on
// that, as whoever is woken reads under the caller's lock, and tells the reader if it has read its
// reply (WakeReader).
//
// Both are edge-triggered: who is woken has to read until there is nothing more, or to say that it
// did not (Kick).
#pragma once

#include <array>
#include <chrono>
#include <map>
#include <optional>

namespace tevrol {

using Clock = std::chrono::steady_clock;
using Deadline = Clock::time_point;

// A descriptor that is closed with its object.
class Descriptor {
public:
    explicit Descriptor(int fd = -1) : m_fd(fd) {}
    ~Descriptor();
    Descriptor(Descriptor&& other) noexcept : m_fd(other.Release()) {}
    Descriptor& operator=(Descriptor&&) = delete;
    Descriptor(const Descriptor&) = delete;
    Descriptor& operator=(const Descriptor&) = delete;

    int Get() const {
        return m_fd;
    }
    int Release() {
        const int fd = m_fd;
        m_fd = -1;
        return fd;
    }

private:
    int m_fd;
};

// Any thread may call any operation; WaitAsWorker and WaitAsReader block, the others do not. The
// operations that change what is waited for are called under one lock of the caller's.
class Poller {
public:
    // Throws std::system_error when no descriptor is left.
    Poller();

    // Waits for these events (poll(2)) of `fd` from now on; for nothing of it where there are none.
    // False when there is no memory for it.
    bool Watch(int fd, short events);
    void Forget(int fd);
    // Wakes one worker at that moment; a null deadline: never.
    void WakeAt(std::optional<Deadline> deadline);

    // Wakes one worker.
    void Kick();
    // Wakes the reader, or the next one.
    void WakeReader();
    // Wakes all who wait, now and from now on.
    void Stop();

    // The descriptors that have something.
    class Ready {
    public:
        bool Has(int fd) const;

    private:
        friend class Poller;
        std::array<int, 6> m_fds{};
        int m_count = 0;
        bool m_all = false;
    };
    // Waits until one has, or for a kick, or for Stop.
    Ready WaitAsWorker() const;
    // Waits until one has, or for WakeReader, or for the deadline, or for Stop.
    Ready WaitAsReader(Deadline deadline) const;

private:
    Ready Collect(const Descriptor& set, int milliseconds) const;

    Descriptor m_timer;
    Descriptor m_stop;
    Descriptor m_kick;
    Descriptor m_wake_reader;
    Descriptor m_reader;   // epoll: what is to be read, m_wake_reader, m_stop
    Descriptor m_workers;  // epoll: what is to be read or written, m_timer, m_kick, m_stop
    std::map<int, short> m_watched;
    std::optional<Deadline> m_wake_at;
};

}  // namespace tevrol
