#include "Dispatch/DispatchSource.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <memory>
#include <mutex>
#include <thread>
#include <vector>

#include "Dispatch/DispatchSemaphore.h"
#include "Support/TestSupport.h"

using namespace Dispatch;
using TestSupport::waitUntil;

namespace {

// Both ends of a pipe, closed at the end of the test.
struct Pipe {
    int readEnd = -1, writeEnd = -1;
    Pipe() {
        int ends[2];
        EXPECT_EQ(pipe2(ends, O_CLOEXEC), 0);
        readEnd = ends[0];
        writeEnd = ends[1];
    }
    ~Pipe() {
        if (readEnd >= 0) close(readEnd);
        closeWriteEnd();
    }
    void closeWriteEnd() {
        if (writeEnd >= 0) close(writeEnd);
        writeEnd = -1;
    }
};

}  // namespace

TEST(DispatchSourceTests, OneShotAndRepeatingTimers) {
    DispatchQueue queue("vpn.test.timer");
    std::atomic<int> oneShotCalls{0};
    std::atomic<uintptr_t> repeatingFires{0};

    auto oneShot = DispatchSource::makeTimerSource(queue);
    oneShot.setEventHandler([&] { ++oneShotCalls; });
    oneShot.schedule(DispatchTime::now() + 0.01);
    oneShot.activate();

    auto repeating = DispatchSource::makeTimerSource(queue);
    repeating.setEventHandler([&, repeating] { repeatingFires += repeating.data(); });
    repeating.schedule(DispatchTime::now(), 0.002);
    repeating.activate();

    auto unscheduled = DispatchSource::makeTimerSource(queue);
    std::atomic<bool> unscheduledFired{false};
    unscheduled.setEventHandler([&] { unscheduledFired = true; });
    unscheduled.activate();

    EXPECT_TRUE(waitUntil([&] { return oneShotCalls == 1 && repeatingFires >= 5; }));
    repeating.cancel();
    // Re-scheduling a fired one-shot timer arms it again.
    oneShot.schedule(DispatchTime::now());
    EXPECT_TRUE(waitUntil([&] { return oneShotCalls == 2; }));
    queue.sync([] {});
    EXPECT_EQ(oneShotCalls, 2);
    EXPECT_FALSE(unscheduledFired);
    oneShot.cancel();
    unscheduled.cancel();
}

TEST(DispatchSourceTests, CancelRunsTheCancelHandlerOnceAfterTheRunningHandlerAndReleasesHandlers) {
    DispatchQueue queue("vpn.test.cancel", DispatchQoS::unspecified, DispatchQueue::Attributes::concurrent);
    auto timer = DispatchSource::makeTimerSource(queue);
    auto captured = std::make_shared<int>(0);
    std::weak_ptr<int> watchCaptured = captured;
    std::atomic<int> running{0}, handlerCalls{0}, cancelCalls{0};
    std::atomic<bool> overlapped{false}, cancelWhileRunning{false}, lateEvent{false};
    std::atomic<bool> cancelReturned{false};
    DispatchSemaphore inHandler, finishHandler;

    timer.setEventHandler([&, captured] {
        if (running.fetch_add(1) != 0) overlapped = true;
        if (cancelReturned) lateEvent = true;
        if (++handlerCalls == 3) {
            inHandler.signal();
            finishHandler.wait(DispatchTime::now() + 30.0);
        }
        running.fetch_sub(1);
    });
    timer.setCancelHandler([&, captured] {
        if (running != 0) cancelWhileRunning = true;
        ++cancelCalls;
    });
    captured.reset();
    // A fast repeating timer on a concurrent queue: handler invocations must still not overlap.
    timer.schedule(DispatchTime::now(), 0.001);
    timer.activate();

    ASSERT_EQ(inHandler.wait(DispatchTime::now() + 30.0), DispatchTimeoutResult::success);
    std::vector<std::thread> cancellers;
    for (int i = 0; i < 4; ++i) cancellers.emplace_back([timer] { timer.cancel(); });
    for (auto& thread : cancellers) thread.join();
    cancelReturned = true;
    EXPECT_TRUE(timer.isCancelled());
    finishHandler.signal();

    EXPECT_TRUE(waitUntil([&] { return cancelCalls == 1 && watchCaptured.expired(); }));
    timer.cancel();
    queue.sync([] {});
    EXPECT_EQ(cancelCalls, 1);
    EXPECT_EQ(handlerCalls, 3);
    EXPECT_FALSE(overlapped);
    EXPECT_FALSE(cancelWhileRunning);
    EXPECT_FALSE(lateEvent);
}

TEST(DispatchSourceTests, SourceCancelledBeforeActivationOnlyRunsItsCancelHandler) {
    DispatchQueue queue("vpn.test.inactive");
    auto timer = DispatchSource::makeTimerSource(queue);
    std::atomic<int> events{0}, cancels{0};
    timer.setEventHandler([&] { ++events; });
    timer.setCancelHandler([&] { ++cancels; });
    timer.schedule(DispatchTime::now());
    timer.cancel();
    EXPECT_TRUE(waitUntil([&] { return cancels == 1; }));
    timer.activate();
    DispatchSemaphore later;
    queue.asyncAfter(0.02, [later] { later.signal(); });
    later.wait();
    EXPECT_EQ(events, 0);
    EXPECT_EQ(cancels, 1);
}

TEST(DispatchSourceTests, ReadSourceOnAPipeReportsBytesReArmsAndSeesEndOfFile) {
    Pipe pipe;
    DispatchQueue queue("vpn.test.read");
    auto source = DispatchSource::makeReadSource(pipe.readEnd, queue);
    std::mutex mutex;
    std::vector<uintptr_t> estimates;  // guarded by mutex
    std::string received;              // guarded by mutex
    int undrainedCalls = 0;            // touched on the queue only
    source.setEventHandler([&, source] {
        std::lock_guard lock(mutex);
        estimates.push_back(source.data());
        // The first call leaves the data in the pipe: the source must fire again.
        if (undrainedCalls++ == 0) return;
        char buffer[64];
        ssize_t length = read(source.handle(), buffer, sizeof buffer);
        if (length > 0) received.append(buffer, static_cast<size_t>(length));
    });
    std::atomic<bool> cancelled{false};
    source.setCancelHandler([&] { cancelled = true; });
    source.activate();

    ASSERT_EQ(write(pipe.writeEnd, "hello", 5), 5);
    ASSERT_TRUE(waitUntil([&] {
        std::lock_guard lock(mutex);
        return received == "hello";
    }));
    {
        std::lock_guard lock(mutex);
        ASSERT_GE(estimates.size(), 2u);
        EXPECT_EQ(estimates[0], 5u);
        EXPECT_EQ(estimates[1], 5u);
    }
    pipe.closeWriteEnd();
    EXPECT_TRUE(waitUntil([&] {
        std::lock_guard lock(mutex);
        return estimates.back() == 0;  // end of file
    }));
    source.cancel();
    EXPECT_TRUE(waitUntil([&] { return cancelled.load(); }));
}

TEST(DispatchSourceTests, ReadSourceOnAPidfdFiresWhenTheProcessEnds) {
    pid_t child = fork();
    ASSERT_GE(child, 0);
    if (child == 0) {
        pause();  // until the test kills it
        _exit(0);
    }
    int pidfd = static_cast<int>(syscall(SYS_pidfd_open, child, 0));
    ASSERT_GE(pidfd, 0);
    auto source = DispatchSource::makeReadSource(pidfd, DispatchQueue("vpn.test.pidfd"));
    std::atomic<int> fired{0};
    source.setEventHandler([&, source] {
        ++fired;
        source.cancel();  // a pidfd stays readable; one report is enough
    });
    source.setCancelHandler([pidfd] { close(pidfd); });
    source.activate();

    kill(child, SIGKILL);
    EXPECT_TRUE(waitUntil([&] { return fired == 1; }));
    int status = 0;
    EXPECT_EQ(waitpid(child, &status, 0), child);
    EXPECT_TRUE(WIFSIGNALED(status));
}
