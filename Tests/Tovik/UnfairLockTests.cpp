#include "Tovik/UnfairLock.h"

#include <gtest/gtest.h>

#include <mutex>
#include <thread>
#include <vector>

using Tovik::UnfairLock;

TEST(UnfairLockTests, ExcludesContendingThreadsAndTryLockFailsWhileHeld) {
    UnfairLock lock;
    long counter = 0;  // guarded by lock; a missed exclusion loses increments (and TSan reports it)
    int inside = 0;    // guarded by lock
    bool overlapped = false;
    constexpr int threadCount = 6, rounds = 20000;
    std::vector<std::thread> threads;
    for (int t = 0; t < threadCount; ++t) {
        threads.emplace_back([&] {
            for (int i = 0; i < rounds; ++i) {
                std::lock_guard guard(lock);
                if (++inside != 1) overlapped = true;
                ++counter;
                --inside;
            }
        });
    }
    for (auto& thread : threads) thread.join();
    EXPECT_EQ(counter, long{threadCount} * rounds);
    EXPECT_FALSE(overlapped);

    lock.lock();
    std::thread([&] { EXPECT_FALSE(lock.try_lock()); }).join();
    lock.unlock();
    std::thread([&] {
        EXPECT_TRUE(lock.try_lock());
        lock.unlock();
    }).join();
}
