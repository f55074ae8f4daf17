#include "Dispatch/DispatchQueue.h"

#include <gtest/gtest.h>

#include <atomic>
#include <numeric>
#include <stdexcept>
#include <thread>
#include <vector>

#include "Dispatch/DispatchGroup.h"
#include "Dispatch/DispatchSemaphore.h"
#include "Support/TestSupport.h"

using namespace Dispatch;

namespace {
DispatchTime inGenerousTime() { return DispatchTime::now() + 30.0; }
}  // namespace

// Every producer mixes sync and async items: a sync that did not wait behind the
// producer's earlier async items would break its order or overlap them.
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
    std::vector<int> expected(itemsEach);
    std::iota(expected.begin(), expected.end(), 0);
    for (int producer = 0; producer < producers; ++producer) {
        EXPECT_EQ(queue.sync([&] { return seen[producer]; }), expected) << "producer " << producer;
    }
}

TEST(DispatchQueueTests, SyncMarksTheQueueCurrentAndPassesResultsAndExceptionsOn) {
    DispatchQueue queue("vpn.test.sync");
    EXPECT_TRUE(queue.sync([&] { return queue.isCurrent(); }));
    EXPECT_FALSE(queue.isCurrent());

    EXPECT_THROW(queue.sync([]() -> int { throw std::runtime_error("boom"); }), std::runtime_error);
    EXPECT_EQ(queue.sync([] { return 42; }), 42);  // still usable after the exception
}

TEST(DispatchQueueTests, ConcurrentQueuesRunItemsInParallel) {
    auto concurrent = DispatchQueue("vpn.test.concurrent", DispatchQoS::utility, DispatchQueue::Attributes::concurrent);
    for (auto queue : {concurrent, DispatchQueue::global(), DispatchQueue::global(DispatchQoS::background)}) {
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
}

TEST(DispatchQueueTests, BlockedQueuesNeverKeepAnotherQueueFromRunning) {
    constexpr int blocked = 64;
    DispatchSemaphore release;
    DispatchGroup group;
    std::vector<DispatchQueue> queues;
    for (int i = 0; i < blocked; ++i) {
        queues.emplace_back("vpn.test.blocked." + std::to_string(i));
        queues.back().async(group, [release] { release.wait(inGenerousTime()); });
    }
    std::atomic<bool> ran{false};
    DispatchQueue("vpn.test.free").async(group, [&] { ran = true; });
    EXPECT_TRUE(TestSupport::waitUntil([&] { return ran.load(); }));
    for (int i = 0; i < blocked; ++i) release.signal();
    EXPECT_EQ(group.wait(inGenerousTime()), DispatchTimeoutResult::success);
}

TEST(DispatchQueueDeathTest, SyncOntoTheRunningSerialQueueAbortsNamingIt) {
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    EXPECT_DEATH(
        {
            DispatchQueue queue("vpn.test.self");
            queue.sync([&] { queue.sync([] {}); });
        },
        "vpn\\.test\\.self");
}
