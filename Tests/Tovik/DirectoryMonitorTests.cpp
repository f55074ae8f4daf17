#include "Tovik/DirectoryMonitor.h"

#include <gtest/gtest.h>

#include <atomic>
#include <thread>
#include <vector>

#include "Dispatch/DispatchSemaphore.h"
#include "Support/LogCapture.h"
#include "Support/TestSupport.h"

namespace {

namespace fs = std::filesystem;
using Tovik::DirectoryMonitor;
using TestSupport::descriptorsOn;
using TestSupport::waitUntil;

// Counts calls; the first one may be held until the test lets it go.
struct Delegate : Tovik::DirectoryMonitorDelegate {
    void directoryMonitorDidObserveChange(const std::shared_ptr<DirectoryMonitor>& monitor) override {
        if (holdFirst && calls == 0) {
            entered.signal();
            release.wait();
        }
        if (stopFromCallback) monitor->stopMonitoring();
        ++calls;
    }
    std::atomic<int> calls{0};
    std::atomic<bool> holdFirst{false}, stopFromCallback{false};
    Dispatch::DispatchSemaphore entered{0}, release{0};
};

class DirectoryMonitorTest : public ::testing::Test {
protected:
    void SetUp() override { fs::create_directory(dir); }
    std::shared_ptr<DirectoryMonitor> started() {
        auto monitor = DirectoryMonitor::create(dir.string());
        monitor->setDelegate(delegate);
        EXPECT_TRUE(monitor->startMonitoring());
        return monitor;
    }
    // Stops, lets go and waits until freed: from then on no handler runs.
    void release(std::shared_ptr<DirectoryMonitor>& monitor) {
        std::weak_ptr<DirectoryMonitor> weak = monitor;
        monitor->stopMonitoring();
        monitor.reset();
        EXPECT_TRUE(waitUntil([&] { return weak.expired(); }));
        EXPECT_EQ(descriptorsOn(dir), 0);
    }
    void expectReported(const char* what, const std::function<void()>& change) {
        int before = delegate->calls;
        change();
        EXPECT_TRUE(waitUntil([&] { return delegate->calls > before; })) << what;
    }

    TestSupport::ScopedLogCapture log;
    TestSupport::TemporaryDirectory temp{"dirmonitor"};
    fs::path dir = temp / "watched";
    std::shared_ptr<Delegate> delegate = std::make_shared<Delegate>();
};

TEST_F(DirectoryMonitorTest, MissingPathFailsWithOneErrorAndCanBeRetried) {
    auto monitor = DirectoryMonitor::create((temp / "missing").string());
    EXPECT_FALSE(monitor->startMonitoring());
    EXPECT_FALSE(monitor->isMonitoring());
    EXPECT_EQ(log.recorder().lines(), std::vector<std::string>{"E: (DirectoryMonitor: startMonitoring()) Open " +
                                                               (temp / "missing").string() +
                                                               " for file notifications: No such file or directory"});
    fs::rename(dir, temp / "missing");
    EXPECT_TRUE(monitor->startMonitoring());
    EXPECT_FALSE(monitor->startMonitoring()) << "already running";
    monitor->stopMonitoring();
}

TEST_F(DirectoryMonitorTest, RestartArmsANewDescriptorThatReportsChanges) {
    auto monitor = started();
    EXPECT_TRUE(monitor->restartMonitoring());
    // The old descriptor's number may come back once its cancel handler closed it: count, don't compare.
    EXPECT_TRUE(waitUntil([&] { return descriptorsOn(dir) == 1; })) << "the old descriptor is closed";
    EXPECT_TRUE(monitor->isMonitoring()) << "the old cancel handler reset the new start";
    // A few representative changes: the vnode source tests map every kind of change to events.
    expectReported("create", [&] { TestSupport::writeFile(dir / "f", "x"); });
    expectReported("rename", [&] { fs::rename(dir / "f", dir / "g"); });
    expectReported("delete", [&] { fs::remove(dir / "g"); });
    expectReported("chmod", [&] { fs::permissions(dir, fs::perms::owner_all); });
    release(monitor);
}

TEST_F(DirectoryMonitorTest, NoDeliveryAfterStopEvenForAQueuedEvent) {
    delegate->holdFirst = true;
    auto monitor = started();
    TestSupport::writeFile(dir / "first", "1");
    ASSERT_EQ(delegate->entered.wait(Dispatch::DispatchTime::now() + 10.0), Dispatch::DispatchTimeoutResult::success);
    TestSupport::writeFile(dir / "second", "2");  // waits behind the held call
    monitor->stopMonitoring();
    EXPECT_EQ(monitor->fd(), -1);
    delegate->release.signal();
    release(monitor);
    EXPECT_EQ(delegate->calls, 1);
}

TEST_F(DirectoryMonitorTest, OwnershipAndFreedDelegate) {
    auto monitor = started();
    std::weak_ptr<DirectoryMonitor> weak = monitor;
    monitor.reset();
    expectReported("unowned but running", [&] { TestSupport::writeFile(dir / "f", "x"); });
    delegate->stopFromCallback = true;  // calling back in must not deadlock
    TestSupport::writeFile(dir / "g", "x");
    EXPECT_TRUE(waitUntil([&] { return weak.expired(); }));

    monitor = started();
    std::weak_ptr<Delegate> freed = delegate;
    delegate.reset();
    EXPECT_TRUE(freed.expired()) << "the monitor keeps its delegate alive";
    // Whether this event is handled before the stop is up to the scheduler;
    // when it is, the freed delegate is skipped, not called through a
    // dangling pointer (which AddressSanitizer would report).
    TestSupport::writeFile(dir / "h", "x");
    release(monitor);
}

// Under ThreadSanitizer this is the race check of the monitor's lock.
TEST_F(DirectoryMonitorTest, ConcurrentStartsStopsAndRestartsLeaveNothingBehind) {
    constexpr int kRounds = 500;
    auto monitor = DirectoryMonitor::create(dir.string());
    monitor->setDelegate(delegate);
    auto repeat = [&](auto step) { return std::thread([=] { for (int n = 0; n < kRounds; ++n) step(); }); };
    std::vector<std::thread> controllers;
    controllers.push_back(repeat([&] { monitor->restartMonitoring(); }));
    controllers.push_back(repeat([&] { monitor->startMonitoring(), monitor->isMonitoring(); }));
    controllers.push_back(repeat([&] { monitor->stopMonitoring(), monitor->watchedNode(); }));
    std::atomic<bool> stop{false};
    std::thread writer([&] { for (int n = 0; !stop; ++n) TestSupport::writeFile(dir / std::to_string(n % 8), "x"); });
    for (auto& thread : controllers) thread.join();
    stop = true;
    writer.join();
    release(monitor);
}

}  // namespace
