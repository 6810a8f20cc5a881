// SPDX-License-Identifier: MIT
// The project's mutex and scoped lock, on one POSIX mutex.
#pragma once

#include <pthread.h>

// One POSIX mutex with default attributes; not recursive. Errors of the underlying calls are not
// reported: with default attributes and correct use there are none.
class PTMutex {
public:
    PTMutex();
    // The mutex must be unlocked.
    ~PTMutex();
    PTMutex(const PTMutex&) = delete;
    PTMutex& operator=(const PTMutex&) = delete;

    // Blocks until the calling thread holds the mutex. In the thread that already holds it, the
    // call never returns.
    void Lock() const;
    // Takes the mutex if it is free and returns true; otherwise returns false at once.
    bool TryLock() const;
    // Releases the mutex; the calling thread must hold it.
    void Unlock() const;

private:
    // Mutable, so that PTAutoLock can release it through a reference to a const mutex.
    mutable pthread_mutex_t m_mutex;
};

// Holds a PTMutex from construction to the end of the scope, however the scope is left. The mutex
// must outlive it.
class PTAutoLock {
public:
    explicit PTAutoLock(PTMutex& mutex);
    ~PTAutoLock();
    PTAutoLock(const PTAutoLock&) = delete;
    PTAutoLock& operator=(const PTAutoLock&) = delete;

private:
    const PTMutex& m_mutex;
};
