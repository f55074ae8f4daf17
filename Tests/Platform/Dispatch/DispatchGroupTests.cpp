#include "Dispatch/DispatchGroup.h"

#include <gtest/gtest.h>

#include <atomic>

#include "Dispatch/DispatchSemaphore.h"
#include "Support/TestSupport.h"

using namespace Dispatch;

namespace {
DispatchTime inGenerousTime() { return DispatchTime::now() + 30.0; }
}  // namespace

TEST(DispatchGroupTests, WaitTimesOutWhileWorkIsOutstandingAndSucceedsAfterward) {
    DispatchGroup group;
    EXPECT_EQ(group.wait(DispatchTime::now()), DispatchTimeoutResult::success);  // empty group
    group.wait();

    group.enter();
    EXPECT_EQ(group.wait(DispatchTime::now() + 0.02), DispatchTimeoutResult::timedOut);
    DispatchQueue("vpn.test.group.leave").asyncAfter(0.02, [group] { group.leave(); });
    EXPECT_EQ(group.wait(inGenerousTime()), DispatchTimeoutResult::success);
}

TEST(DispatchGroupTests, NotifyFiresOnceOnItsQueueAfterTheLastLeave) {
    DispatchGroup group;
    DispatchQueue work("vpn.test.group.work", DispatchQoS::unspecified, DispatchQueue::Attributes::concurrent);
    DispatchQueue target("vpn.test.group.target");
    DispatchSemaphore release;
    std::atomic<int> finished{0}, notified{0};
    std::atomic<bool> onTarget{false}, allFinishedFirst{false};

    for (int i = 0; i < 3; ++i) {
        work.async(group, [&, release] {
            release.wait(inGenerousTime());
            ++finished;
        });
    }
    group.notify(target, [&] {
        allFinishedFirst = finished == 3;
        onTarget = target.isCurrent();
        ++notified;
    });
    EXPECT_EQ(group.wait(DispatchTime::now() + 0.02), DispatchTimeoutResult::timedOut);
    EXPECT_EQ(notified, 0);
    for (int i = 0; i < 3; ++i) release.signal();

    ASSERT_TRUE(TestSupport::waitUntil([&] { return notified == 1; }));
    EXPECT_TRUE(allFinishedFirst);
    EXPECT_TRUE(onTarget);

    // Later rounds do not fire the old notification again; a notify on an empty group fires at once.
    group.enter();
    group.leave();
    std::atomic<bool> immediate{false};
    group.notify(target, [&] { immediate = true; });
    ASSERT_TRUE(TestSupport::waitUntil([&] { return immediate.load(); }));
    target.sync([] {});
    EXPECT_EQ(notified, 1);
}

TEST(DispatchGroupDeathTest, LeavingMoreOftenThanEnteringAborts) {
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    EXPECT_DEATH(
        {
            DispatchGroup group;
            group.enter();
            group.leave();
            group.leave();
        },
        "leave");
}
