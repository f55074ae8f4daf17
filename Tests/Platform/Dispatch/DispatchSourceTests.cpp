#include "Dispatch/DispatchSource.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <atomic>
#include <thread>
#include <vector>

#include "Dispatch/DispatchSemaphore.h"
#include "Support/TestSupport.h"

using namespace Dispatch;
using TestSupport::waitUntil;

TEST(DispatchSourceTests, TimersFireOnceRepeatOrNotAtAll) {
    DispatchQueue queue("vpn.test.timer");
    std::atomic<int> oneShotCalls{0}, strayCalls{0}, cancels{0};
    std::atomic<uintptr_t> repeatingFires{0};

    auto oneShot = DispatchSource::makeTimerSource(queue);
    oneShot.setEventHandler([&] { ++oneShotCalls; });
    oneShot.schedule(DispatchTime::now() + 0.01);
    oneShot.activate();

    auto repeating = DispatchSource::makeTimerSource(queue);
    repeating.setEventHandler([&, repeating] { repeatingFires += repeating.data(); });
    repeating.schedule(DispatchTime::now(), 0.002);
    repeating.activate();

    // A timer cancelled before its activation never fires.
    auto cancelledEarly = DispatchSource::makeTimerSource(queue);
    cancelledEarly.setEventHandler([&] { ++strayCalls; });
    cancelledEarly.setCancelHandler([&] { ++cancels; });
    cancelledEarly.schedule(DispatchTime::now());
    cancelledEarly.cancel();
    cancelledEarly.activate();

    EXPECT_TRUE(waitUntil([&] { return oneShotCalls == 1 && repeatingFires >= 5 && cancels == 1; }));
    repeating.cancel();
    oneShot.cancel();
    queue.sync([] {});
    EXPECT_EQ(oneShotCalls, 1);
    EXPECT_EQ(strayCalls, 0);
    EXPECT_EQ(cancels, 1);
}

TEST(DispatchSourceTests, CancelRunsTheCancelHandlerOnceAfterTheRunningHandler) {
    DispatchQueue queue("vpn.test.cancel", DispatchQoS::unspecified, DispatchQueue::Attributes::concurrent);
    auto timer = DispatchSource::makeTimerSource(queue);
    std::atomic<int> running{0}, handlerCalls{0}, cancelCalls{0};
    std::atomic<bool> overlapped{false}, cancelWhileRunning{false}, lateEvent{false}, cancelReturned{false};
    DispatchSemaphore inHandler, finishHandler;

    timer.setEventHandler([&] {
        if (running.fetch_add(1) != 0) overlapped = true;
        if (cancelReturned) lateEvent = true;
        if (++handlerCalls == 3) {
            inHandler.signal();
            finishHandler.wait(DispatchTime::now() + 30.0);
        }
        running.fetch_sub(1);
    });
    timer.setCancelHandler([&] {
        if (running != 0) cancelWhileRunning = true;
        ++cancelCalls;
    });
    // A fast repeating timer on a concurrent queue: handler invocations must still not overlap.
    timer.schedule(DispatchTime::now(), 0.001);
    timer.activate();

    ASSERT_EQ(inHandler.wait(DispatchTime::now() + 30.0), DispatchTimeoutResult::success);
    std::vector<std::thread> cancellers;
    for (int i = 0; i < 4; ++i) cancellers.emplace_back([timer] { timer.cancel(); });
    for (auto& thread : cancellers) thread.join();
    cancelReturned = true;
    finishHandler.signal();

    EXPECT_TRUE(waitUntil([&] { return cancelCalls == 1; }));
    timer.cancel();
    queue.sync([] {});
    EXPECT_EQ(cancelCalls, 1);
    EXPECT_EQ(handlerCalls, 3);
    EXPECT_FALSE(overlapped);
    EXPECT_FALSE(cancelWhileRunning);
    EXPECT_FALSE(lateEvent);
}

TEST(DispatchSourceTests, ReadSourceOnAPipeReportsBytesReArmsAndSeesEndOfFile) {
    int ends[2];
    ASSERT_EQ(pipe2(ends, O_CLOEXEC), 0);
    DispatchQueue queue("vpn.test.read");
    auto source = DispatchSource::makeReadSource(ends[0], queue);
    std::vector<uintptr_t> estimates;  // only touched on the queue
    std::string received;              // only touched on the queue
    source.setEventHandler([&, source] {
        estimates.push_back(source.data());
        // The first call leaves the data in the pipe: the source must fire again.
        if (estimates.size() == 1) return;
        char buffer[64];
        ssize_t length = read(source.handle(), buffer, sizeof buffer);
        if (length > 0) received.append(buffer, static_cast<size_t>(length));
    });
    std::atomic<bool> cancelled{false};
    source.setCancelHandler([&, readEnd = ends[0]] {
        close(readEnd);
        cancelled = true;
    });
    source.activate();

    EXPECT_EQ(write(ends[1], "hello", 5), 5);
    EXPECT_TRUE(waitUntil([&] { return queue.sync([&] { return received == "hello"; }); }));
    close(ends[1]);
    // An end of file reports no bytes.
    EXPECT_TRUE(waitUntil([&] { return queue.sync([&] { return estimates.back() == 0; }); }));
    source.cancel();
    EXPECT_TRUE(waitUntil([&] { return cancelled.load(); }));
    ASSERT_GE(estimates.size(), 3u);
    EXPECT_EQ(estimates[0], 5u);
    EXPECT_EQ(estimates[1], 5u);
}
