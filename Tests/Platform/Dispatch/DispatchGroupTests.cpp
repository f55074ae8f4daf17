#include "Dispatch/DispatchGroup.h"

#include <gtest/gtest.h>

#include <atomic>

#include "Dispatch/DispatchSemaphore.h"
#include "Support/TestSupport.h"

using namespace Dispatch;

TEST(DispatchGroupTests, WaitTimesOutAndNotifyFiresOnItsQueueAfterTheLastLeave) {
    DispatchGroup group;
    DispatchQueue work("vpn.test.group.work", DispatchQoS::unspecified, DispatchQueue::Attributes::concurrent);
    DispatchQueue target("vpn.test.group.target");
    EXPECT_EQ(group.wait(DispatchTime::now()), DispatchTimeoutResult::success);  // empty group

    DispatchSemaphore release;
    std::atomic<int> finished{0}, notified{0};
    std::atomic<bool> afterAllOnTarget{false};
    for (int i = 0; i < 3; ++i) {
        work.async(group, [&, release] {
            release.wait(DispatchTime::now() + 30.0);
            ++finished;
        });
    }
    group.notify(target, [&] {
        afterAllOnTarget = finished == 3 && target.isCurrent();
        ++notified;
    });
    EXPECT_EQ(group.wait(DispatchTime::now() + 0.02), DispatchTimeoutResult::timedOut);
    EXPECT_EQ(notified, 0);
    for (int i = 0; i < 3; ++i) release.signal();
    EXPECT_EQ(group.wait(DispatchTime::now() + 30.0), DispatchTimeoutResult::success);
    ASSERT_TRUE(TestSupport::waitUntil([&] { return notified == 1; }));
    EXPECT_TRUE(afterAllOnTarget);
}
