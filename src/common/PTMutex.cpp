// SPDX-License-Identifier: MIT
#include "common/PTMutex.h"

PTMutex::PTMutex() {
    pthread_mutex_init(&m_mutex, nullptr);
}

PTMutex::~PTMutex() {
    pthread_mutex_destroy(&m_mutex);
}

void PTMutex::Lock() const {
    pthread_mutex_lock(&m_mutex);
}

bool PTMutex::TryLock() const {
    return pthread_mutex_trylock(&m_mutex) == 0;
}

void PTMutex::Unlock() const {
    pthread_mutex_unlock(&m_mutex);
}

PTAutoLock::PTAutoLock(PTMutex& mutex) : m_mutex(mutex) {
    m_mutex.Lock();
}

PTAutoLock::~PTAutoLock() {
    m_mutex.Unlock();
}
