// SPDX-License-Identifier: MIT
// The mutex and its scoped lock, and what may be called while the channel holds it.
#include <future>
#include <stdexcept>

#include "common/PTMutex.h"
#include "tests/support/channel-test.h"

namespace {

bool TryLockFromAnotherThread(const PTMutex& mutex) {
    return std::async(std::launch::async,
                      [&] {
                          const bool taken = mutex.TryLock();
                          if (taken) {
                              mutex.Unlock();
                          }
                          return taken;
                      })
        .get();
}

TEST(Lock, IsExactlyOnePosixMutex) {
    EXPECT_EQ(sizeof(PTMutex), sizeof(pthread_mutex_t));
}

TEST(Lock, ExceptionReleasesScopedLock) {
    PTMutex mutex;
    try {
        const PTAutoLock lock(mutex);
        EXPECT_FALSE(TryLockFromAnotherThread(mutex));
        throw std::runtime_error("out of the scope");
    } catch (const std::runtime_error&) {
    }
    EXPECT_TRUE(TryLockFromAnotherThread(mutex));
}

TEST(Lock, TryLockFailsOnlyOnHeldMutex) {
    PTMutex mutex;
    EXPECT_TRUE(mutex.TryLock());
    EXPECT_FALSE(TryLockFromAnotherThread(mutex));
    mutex.Unlock();
    EXPECT_TRUE(TryLockFromAnotherThread(mutex));
}

TEST(Lock, LockWaitsForHolder) {
    PTMutex mutex;
    mutex.Lock();
    std::atomic<bool> released{false};
    auto waiter = std::async(std::launch::async, [&] {
        mutex.Lock();
        const bool after_release = released;
        mutex.Unlock();
        return after_release;
    });
    released = true;
    mutex.Unlock();
    EXPECT_TRUE(waiter.get());
}

class LockInChannel : public ChannelTest {};

TEST_F(LockInChannel, ReadinessHandlerRunsUnderLockAndMayUsePublicOperations) {
    TestChannel channel;
    TestPartner partner;
    bool was_ready = false;
    bool was_held = false;
    channel.on_ready = [&](bool, const std::string& name) {
        was_held = !TryLockFromAnotherThread(channel.m_mutex);
        was_ready = channel.IsConnectionReady();
        Bytes note = ToBytes("from the handler");
        channel.SendNotification(note);
        channel.SendNotification(note, name);
    };
    Connect(partner, channel);
    EXPECT_TRUE(was_held);
    EXPECT_TRUE(was_ready);
    const std::string heard = "notification from " + OwnName() + ": 16 bytes \"from the handler\"";
    EXPECT_TRUE(IterateUntil([&] { return partner.Count(heard) == 2; }));
    EXPECT_TRUE(TryLockFromAnotherThread(channel.m_mutex));
}

}  // namespace
