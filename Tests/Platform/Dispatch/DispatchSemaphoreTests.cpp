#include "Dispatch/DispatchSemaphore.h"

#include <gtest/gtest.h>

#include <thread>

#include "Dispatch/DispatchQueue.h"

using namespace Dispatch;

TEST(DispatchSemaphoreTests, CountsAndTimesOutWithoutTakingAnything) {
    DispatchSemaphore semaphore(2);
    EXPECT_EQ(semaphore.wait(DispatchTime::now()), DispatchTimeoutResult::success);
    EXPECT_EQ(semaphore.wait(DispatchTime::now()), DispatchTimeoutResult::success);
    EXPECT_EQ(semaphore.wait(DispatchTime::now() + 0.02), DispatchTimeoutResult::timedOut);

    // The timed-out wait took nothing: one signal allows exactly one wait.
    EXPECT_EQ(semaphore.signal(), 0);  // nobody waiting
    EXPECT_EQ(semaphore.wait(DispatchTime::now()), DispatchTimeoutResult::success);
    EXPECT_EQ(semaphore.wait(DispatchTime::now()), DispatchTimeoutResult::timedOut);
}

TEST(DispatchSemaphoreTests, SignalWakesABlockedWaiter) {
    DispatchSemaphore semaphore, started;
    DispatchTimeoutResult result = DispatchTimeoutResult::timedOut;
    std::thread waiter([&] {
        started.signal();
        result = semaphore.wait(DispatchTime::now() + 30.0);
    });
    started.wait();
    DispatchQueue("vpn.test.semaphore").asyncAfter(0.01, [semaphore] { semaphore.signal(); });
    waiter.join();
    EXPECT_EQ(result, DispatchTimeoutResult::success);
}
