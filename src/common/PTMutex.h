// The project's mutex and scoped lock: one POSIX mutex, and its hold for the length of a scope.
#pragma once

#include <pthread.h>

// One POSIX mutex with default attributes, and nothing else: it is not recursive. Errors of the
// underlying calls are not reported; with default attributes and correct use there are none.
class PTMutex {
public:
    PTMutex();
    // The mutex must be unlocked.
    ~PTMutex();
    PTMutex(const PTMutex&) = delete;
    PTMutex& operator=(const PTMutex&) = delete;

    // Blocks until the calling thread holds the mutex. Calling it again from the thread that holds
    // the mutex never returns.
    void Lock() const;
    // Takes the mutex if it is free and returns true; otherwise returns false at once.
    bool TryLock() const;
    // Releases the mutex; the calling thread must hold it.
    void Unlock() const;

private:
    // Mutable, so that a reference to a const mutex is enough to release it (PTAutoLock).
    mutable pthread_mutex_t m_mutex;
};

// Holds a PTMutex from construction to the end of the scope, however the scope is left. It owns
// nothing: the mutex must outlive it.
class PTAutoLock {
public:
    explicit PTAutoLock(PTMutex& mutex);
    ~PTAutoLock();
    PTAutoLock(const PTAutoLock&) = delete;
    PTAutoLock& operator=(const PTAutoLock&) = delete;

private:
    const PTMutex& m_mutex;
};
