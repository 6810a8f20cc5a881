// SPDX-License-Identifier: MIT
// A mutex and a lock whose use clang checks (-Wthread-safety), and the mark of what a mutex guards.
// With other compilers they work the same, unchecked.
#pragma once

#include <mutex>

#ifdef __clang__
#define TEVROL_THREAD_ATTRIBUTE(attribute) __attribute__((attribute))
#else
#define TEVROL_THREAD_ATTRIBUTE(attribute)
#endif

// A variable that may be used only while `mutex` is held.
#define TEVROL_GUARDED_BY(mutex) TEVROL_THREAD_ATTRIBUTE(guarded_by(mutex))

namespace tevrol {

class TEVROL_THREAD_ATTRIBUTE(capability("mutex")) Mutex {
public:
    void lock() TEVROL_THREAD_ATTRIBUTE(acquire_capability()) {
        m_mutex.lock();
    }
    void unlock() TEVROL_THREAD_ATTRIBUTE(release_capability()) {
        m_mutex.unlock();
    }

private:
    std::mutex m_mutex;
};

// Holds a mutex as long as it lives. A std::condition_variable_any can wait with it.
class TEVROL_THREAD_ATTRIBUTE(scoped_lockable) Lock {
public:
    explicit Lock(Mutex& mutex) TEVROL_THREAD_ATTRIBUTE(acquire_capability(mutex))
        : m_mutex(mutex) {
        m_mutex.lock();
    }
    ~Lock() TEVROL_THREAD_ATTRIBUTE(release_capability()) {
        if (m_held) {
            m_mutex.unlock();
        }
    }
    Lock(const Lock&) = delete;
    Lock& operator=(const Lock&) = delete;

    void lock() TEVROL_THREAD_ATTRIBUTE(acquire_capability()) {
        m_mutex.lock();
        m_held = true;
    }
    void unlock() TEVROL_THREAD_ATTRIBUTE(release_capability()) {
        m_held = false;
        m_mutex.unlock();
    }

private:
    Mutex& m_mutex;
    bool m_held = true;
};

}  // namespace tevrol
