#include "Dispatch/DispatchSemaphore.h"

#include <gtest/gtest.h>

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
