// SPDX-License-Identifier: MIT
#include "tevrol/poller.h"

#include <poll.h>
#include <sys/epoll.h>
#include <sys/eventfd.h>
#include <sys/timerfd.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdint>
#include <limits>
#include <new>
#include <system_error>

namespace tevrol {
namespace {

int Checked(int result, const char* what) {
    if (result < 0) {
        throw std::system_error(errno, std::generic_category(), what);
    }
    return result;
}

// poll(2) and epoll(7) name the events that are used here by the same numbers.
static_assert(POLLIN == EPOLLIN && POLLOUT == EPOLLOUT);

// One of several threads that wait is woken, and once for what has arrived.
constexpr std::uint32_t kOneOnce = EPOLLET | EPOLLEXCLUSIVE;

int Add(const Descriptor& set, int fd, std::uint32_t events) {
    epoll_event event{};
    event.events = events;
    event.data.fd = fd;
    return epoll_ctl(set.Get(), EPOLL_CTL_ADD, fd, &event);
}

void Remove(const Descriptor& set, int fd) {
    epoll_ctl(set.Get(), EPOLL_CTL_DEL, fd, nullptr);
}

timespec ToTimespec(Clock::duration duration) {
    const auto nanoseconds = std::chrono::duration_cast<std::chrono::nanoseconds>(duration).count();
    return {static_cast<time_t>(nanoseconds / 1'000'000'000),
            static_cast<long>(nanoseconds % 1'000'000'000)};
}

void Write(const Descriptor& event_fd) {
    const std::uint64_t one = 1;
    // Fails only where the counter is full, and then the waiter is woken already.
    [[maybe_unused]] const ssize_t written = write(event_fd.Get(), &one, sizeof one);
}

}  // namespace

Descriptor::~Descriptor() {
    if (m_fd >= 0) {
        close(m_fd);
    }
}

Poller::Poller()
    : m_timer(Checked(timerfd_create(CLOCK_MONOTONIC, TFD_CLOEXEC | TFD_NONBLOCK), "timerfd")),
      m_stop(Checked(eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK), "eventfd")),
      m_kick(Checked(eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK), "eventfd")),
      m_wake_reader(Checked(eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK), "eventfd")),
      m_reader(Checked(epoll_create1(EPOLL_CLOEXEC), "epoll")),
      m_workers(Checked(epoll_create1(EPOLL_CLOEXEC), "epoll")) {
    Checked(Add(m_reader, m_wake_reader.Get(), EPOLLIN), "epoll");
    Checked(Add(m_reader, m_stop.Get(), EPOLLIN), "epoll");
    // Edge-triggered: each kick wakes one worker, and nobody needs to read the counter.
    Checked(Add(m_workers, m_kick.Get(), EPOLLIN | EPOLLET), "epoll");
    Checked(Add(m_workers, m_timer.Get(), EPOLLIN | EPOLLET), "epoll");
    Checked(Add(m_workers, m_stop.Get(), EPOLLIN), "epoll");
}

bool Poller::Watch(int fd, short events) {
    const auto known = m_watched.find(fd);
    if (known != m_watched.end() && known->second == events) {
        return true;
    }
    // The kernel does not change what is exclusive. Nothing is registered with no events: a
    // descriptor that has hung up wakes even then.
    Forget(fd);
    if (events == 0) {
        return true;
    }
    try {
        m_watched[fd] = events;
    } catch (const std::bad_alloc&) {
        return false;
    }
    // First for the reader, so that its thread is woken first.
    return ((events & POLLIN) == 0 || Add(m_reader, fd, EPOLLIN | kOneOnce) == 0) &&
           Add(m_workers, fd, static_cast<std::uint32_t>(events) | kOneOnce) == 0;
}

void Poller::Forget(int fd) {
    if (m_watched.erase(fd) != 0) {
        Remove(m_reader, fd);
        Remove(m_workers, fd);
    }
}

void Poller::WakeAt(std::optional<Deadline> deadline) {
    if (deadline == m_wake_at) {
        return;
    }
    m_wake_at = deadline;
    itimerspec setting{};
    if (deadline) {
        // All zero would stop the timer.
        setting.it_value = ToTimespec(
            std::max<Clock::duration>(deadline->time_since_epoch(), std::chrono::nanoseconds(1)));
    }
    timerfd_settime(m_timer.Get(), TFD_TIMER_ABSTIME, &setting, nullptr);
}

void Poller::Kick() {
    Write(m_kick);
}

void Poller::WakeReader() {
    Write(m_wake_reader);
}

void Poller::Stop() {
    Write(m_stop);
}

bool Poller::Ready::Has(int fd) const {
    const auto* const end = m_fds.begin() + m_count;
    return m_all || std::find(m_fds.begin(), end, fd) != end;
}

Poller::Ready Poller::WaitAsWorker() const {
    return Collect(m_workers, -1);
}

Poller::Ready Poller::WaitAsReader(Deadline deadline) const {
    const auto left = std::chrono::ceil<std::chrono::milliseconds>(deadline - Clock::now());
    constexpr std::chrono::milliseconds kMost{std::numeric_limits<int>::max()};
    return Collect(
        m_reader,
        static_cast<int>(std::clamp(left, std::chrono::milliseconds::zero(), kMost).count()));
}

Poller::Ready Poller::Collect(const Descriptor& set, int milliseconds) const {
    std::array<epoll_event, 6> events{};
    Ready ready;
    ready.m_count = std::max(
        epoll_wait(set.Get(), events.data(), static_cast<int>(events.size()), milliseconds), 0);
    for (int i = 0; i < ready.m_count; ++i) {
        const int fd = events.at(static_cast<std::size_t>(i)).data.fd;
        ready.m_fds.at(static_cast<std::size_t>(i)) = fd;
        // When the timer has gone off, every descriptor may have something to do.
        ready.m_all = ready.m_all || fd == m_timer.Get();
        if (fd == m_wake_reader.Get()) {
            std::uint64_t count = 0;
            [[maybe_unused]] const ssize_t taken = read(fd, &count, sizeof count);
        }
    }
    return ready;
}

}  // namespace tevrol
