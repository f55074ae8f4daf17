#include "Tovik/UnfairLock.h"

#include <gtest/gtest.h>

#include <atomic>
#include <mutex>
#include <thread>
#include <vector>

#include "Support/TestSupport.h"

using Tovik::UnfairLock;

TEST(UnfairLockTests, ExcludesContendingThreads) {
    UnfairLock lock;
    long counter = 0;  // guarded by lock; a missed exclusion loses increments (and TSan reports it)
    int inside = 0;    // guarded by lock
    bool overlapped = false;

    constexpr int threadCount = 6;
    constexpr int rounds = 20000;
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
}

TEST(UnfairLockTests, TryLockFailsWhileAnotherThreadHoldsIt) {
    UnfairLock lock;
    std::atomic<bool> held{false};
    std::atomic<bool> release{false};
    std::thread owner([&] {
        lock.lock();
        held = true;
        while (!release) std::this_thread::yield();
        lock.unlock();
    });
    ASSERT_TRUE(TestSupport::waitUntil([&] { return held.load(); }));
    EXPECT_FALSE(lock.try_lock());

    // A blocked lock() wakes when the owner releases.
    std::atomic<bool> acquired{false};
    std::thread waiter([&] {
        lock.lock();
        acquired = true;
        lock.unlock();
    });
    release = true;
    EXPECT_TRUE(TestSupport::waitUntil([&] { return acquired.load(); }));
    owner.join();
    waiter.join();
    EXPECT_TRUE(lock.try_lock());
    lock.unlock();
}
