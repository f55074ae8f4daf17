#include "Dispatch/DispatchQueue.h"

#include <gtest/gtest.h>

#include <atomic>
#include <cstdlib>
#include <mutex>
#include <stdexcept>
#include <thread>
#include <vector>

#include "Dispatch/DispatchGroup.h"
#include "Dispatch/DispatchSemaphore.h"
#include "Support/TestSupport.h"

using namespace Dispatch;

namespace {

constexpr auto generous = std::chrono::seconds(30);

DispatchTime inGenerousTime() { return DispatchTime::now() + generous; }

}  // namespace

TEST(DispatchQueueTests, SerialQueueKeepsFifoOrderAndExclusionUnderContention) {
    DispatchQueue queue("vpn.test.serial");
    constexpr int producers = 4, itemsEach = 500;
    std::atomic<int> inside{0};
    std::atomic<bool> overlapped{false};
    std::vector<std::vector<int>> seen(producers);  // only touched on the queue
    DispatchGroup group;

    auto runItem = [&](int producer, int index) {
        if (inside.fetch_add(1) != 0) overlapped = true;
        seen[producer].push_back(index);
        inside.fetch_sub(1);
    };
    std::vector<std::thread> threads;
    for (int producer = 0; producer < producers; ++producer) {
        threads.emplace_back([&, producer] {
            for (int index = 0; index < itemsEach; ++index) {
                if (index % 10 == 0) {
                    queue.sync([&] { runItem(producer, index); });
                } else {
                    queue.async(group, [&, producer, index] { runItem(producer, index); });
                }
            }
        });
    }
    for (auto& thread : threads) thread.join();
    ASSERT_EQ(group.wait(inGenerousTime()), DispatchTimeoutResult::success);

    EXPECT_FALSE(overlapped);
    for (int producer = 0; producer < producers; ++producer) {
        std::vector<int> expected(itemsEach);
        for (int index = 0; index < itemsEach; ++index) expected[index] = index;
        EXPECT_EQ(queue.sync([&] { return seen[producer]; }), expected) << "producer " << producer;
    }
}

TEST(DispatchQueueTests, SyncReturnsResultsWaitsBehindEarlierItemsAndPassesExceptionsOn) {
    DispatchQueue queue("vpn.test.sync");
    EXPECT_EQ(queue.sync([] { return 42; }), 42);

    // Idle: the block runs on the caller's thread, marked as running the queue.
    auto caller = std::this_thread::get_id();
    EXPECT_EQ(queue.sync([] { return std::this_thread::get_id(); }), caller);
    EXPECT_TRUE(queue.sync([&] { return queue.isCurrent() && DispatchQueue::currentLabel() == "vpn.test.sync"; }));
    EXPECT_FALSE(queue.isCurrent());
    EXPECT_EQ(DispatchQueue::currentLabel(), "");

    // Busy: the block waits for the item in front of it.
    DispatchSemaphore release;
    bool earlierDone = false;
    queue.async([&] {
        release.wait(inGenerousTime());
        earlierDone = true;
    });
    std::thread releaser([&] { release.signal(); });
    EXPECT_TRUE(queue.sync([&] { return earlierDone; }));
    releaser.join();

    EXPECT_THROW(queue.sync([]() -> int { throw std::runtime_error("boom"); }), std::runtime_error);
    // The queue is still usable after the exception.
    EXPECT_EQ(queue.sync([] { return std::string("after"); }), "after");

    DispatchQueue concurrent("vpn.test.concurrent-sync", DispatchQoS::unspecified, DispatchQueue::Attributes::concurrent);
    EXPECT_EQ(concurrent.sync([&] { return concurrent.isCurrent(); }), true);
}

TEST(DispatchQueueTests, ConcurrentQueuesRunItemsInParallel) {
    for (auto queue : {DispatchQueue("vpn.test.concurrent", DispatchQoS::utility, DispatchQueue::Attributes::concurrent),
                       DispatchQueue::global(), DispatchQueue::global(DispatchQoS::background)}) {
        constexpr int width = 4;
        DispatchSemaphore arrived, release;
        DispatchGroup group;
        // Every item waits until all have started: only parallel items get there.
        for (int i = 0; i < width; ++i) {
            queue.async(group, [&] {
                arrived.signal();
                release.wait(inGenerousTime());
            });
        }
        for (int i = 0; i < width; ++i) {
            ASSERT_EQ(arrived.wait(inGenerousTime()), DispatchTimeoutResult::success) << queue.label();
        }
        for (int i = 0; i < width; ++i) release.signal();
        ASSERT_EQ(group.wait(inGenerousTime()), DispatchTimeoutResult::success);
    }
    EXPECT_TRUE(DispatchQueue::global(DispatchQoS::userInitiated) == DispatchQueue::global(DispatchQoS::userInitiated));
    EXPECT_FALSE(DispatchQueue::global(DispatchQoS::utility).isSerial());
}

TEST(DispatchQueueTests, BlockedQueuesNeverKeepAnotherQueueFromRunning) {
    constexpr int blocked = 64;
    DispatchSemaphore release;
    DispatchGroup group;
    std::vector<DispatchQueue> queues;
    for (int i = 0; i < blocked; ++i) {
        queues.emplace_back("vpn.test.blocked." + std::to_string(i));
        queues.back().async(group, [release] { release.wait(DispatchTime::now() + generous); });
    }
    std::atomic<bool> ran{false};
    DispatchQueue("vpn.test.free").async(group, [&] { ran = true; });
    EXPECT_TRUE(TestSupport::waitUntil([&] { return ran.load(); }));
    for (int i = 0; i < blocked; ++i) release.signal();
    EXPECT_EQ(group.wait(inGenerousTime()), DispatchTimeoutResult::success);
}

TEST(DispatchQueueTests, AsyncAfterRunsOnTheQueueNotBeforeTheDeadline) {
    DispatchQueue queue("vpn.test.after");
    DispatchSemaphore done;
    std::vector<int> order;  // touched on the queue only
    auto deadline = DispatchTime::now() + 0.05;
    bool early = false;
    queue.asyncAfter(deadline, [&] {
        early = DispatchTime::now() < deadline;
        order.push_back(2);
        done.signal();
    });
    queue.asyncAfter(0.0, [&] {
        order.push_back(1);
        done.signal();
    });
    queue.asyncAfter(DispatchTime::distantFuture(), [&] { order.push_back(99); });
    ASSERT_EQ(done.wait(inGenerousTime()), DispatchTimeoutResult::success);
    ASSERT_EQ(done.wait(inGenerousTime()), DispatchTimeoutResult::success);
    EXPECT_FALSE(queue.sync([&] { return early; }));
    EXPECT_EQ(queue.sync([&] { return order; }), (std::vector<int>{1, 2}));
}

TEST(DispatchQueueDeathTest, SyncOntoTheRunningSerialQueueAbortsNamingIt) {
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    EXPECT_DEATH(
        {
            DispatchQueue queue("vpn.test.self");
            queue.sync([&] { queue.sync([] {}); });
        },
        "vpn\\.test\\.self");
    // Also through another queue's sync nested inside, from a pool thread.
    EXPECT_DEATH(
        {
            DispatchQueue outer("vpn.test.outer");
            DispatchQueue inner("vpn.test.inner");
            DispatchSemaphore never;
            outer.async([&] { inner.sync([&] { outer.sync([] {}); }); });
            never.wait(DispatchTime::now() + generous);
        },
        "vpn\\.test\\.outer");
}

TEST(DispatchQueueDeathTest, DispatchMainServesTheMainQueueInOrder) {
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    EXPECT_EXIT(
        {
            auto main = DispatchQueue::main();
            std::vector<int> order;
            // Submitted before dispatchMain(): waits for it.
            main.async([&] { order.push_back(1); });
            DispatchQueue::global().async([main, &order] {
                main.async([&order] { order.push_back(2); });
                int fromMain = main.sync([&] { return main.isCurrent() ? 3 : -1; });
                main.async([&order, fromMain] {
                    order.push_back(fromMain);
                    std::_Exit(order == std::vector<int>{1, 2, 3} ? 7 : 1);
                });
            });
            dispatchMain();
        },
        testing::ExitedWithCode(7), "");
}
