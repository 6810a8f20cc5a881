// SPDX-License-Identifier: MIT
// What a thread waits for with a lock.
#pragma once

#include <pthread.h>

#include <chrono>
#include <mutex>

namespace tevrol {

// A condition variable on the steady clock. Like std::condition_variable, but by those calls that
// ThreadSanitizer understands; it does not know the one that the standard library makes.
class Condition {
public:
    Condition() {
        pthread_condattr_t attributes;
        pthread_condattr_init(&attributes);
        pthread_condattr_setclock(&attributes, CLOCK_MONOTONIC);
        pthread_cond_init(&m_condition, &attributes);
        pthread_condattr_destroy(&attributes);
    }
    ~Condition() {
        pthread_cond_destroy(&m_condition);
    }
    Condition(const Condition&) = delete;
    Condition& operator=(const Condition&) = delete;

    void NotifyOne() {
        pthread_cond_signal(&m_condition);
    }
    void NotifyAll() {
        pthread_cond_broadcast(&m_condition);
    }

    // Waits once; may return early. The lock is held before and after.
    void Wait(std::unique_lock<std::mutex>& lock) {
        pthread_cond_wait(&m_condition, lock.mutex()->native_handle());
    }
    void WaitUntil(std::unique_lock<std::mutex>& lock,
                   std::chrono::steady_clock::time_point deadline) {
        using std::chrono::nanoseconds;
        const auto since = std::chrono::duration_cast<nanoseconds>(deadline.time_since_epoch());
        const timespec until{static_cast<time_t>(since.count() / std::nano::den),
                             static_cast<long>(since.count() % std::nano::den)};
        pthread_cond_timedwait(&m_condition, lock.mutex()->native_handle(), &until);
    }

private:
    pthread_cond_t m_condition;
};

}  // namespace tevrol
