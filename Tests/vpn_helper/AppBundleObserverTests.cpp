#include "vpn_helper/AppBundleObserver.h"

#include <gtest/gtest.h>

#include <thread>

#include "Dispatch/DispatchSemaphore.h"
#include "Support/LogCapture.h"
#include "Support/TestSupport.h"

namespace {

namespace fs = std::filesystem;
using TestSupport::descriptorsOn;
using TestSupport::waitUntil;
using VpnHelper::AppBundleObserver;

const std::string kExists = "W: (AppBundleObserver) App path is exist";
const std::string kNoMonitor = "I: (AppBundleObserver) Directory monitor is nil. Monitoring was stopped.";

class AppBundleObserverTest : public ::testing::Test {
protected:
    void makeBundle() {
        fs::create_directories(bundle / "Contents" / "MacOS");
        TestSupport::writeFile(bundle / "Contents" / "MacOS" / "Velmora VPN", "binary");
        TestSupport::writeFile(bundle / "Contents" / "Info.plist",
                               "<plist version=\"1.0\"><dict><key>CFBundleIdentifier</key>"
                               "<string>com.velmora.mac.vpn</string></dict></plist>");
    }
    long count(const std::string& line) const { return log.recorder().count(line); }
    // Starts observer with a completion counting into calls; returns once its monitor is armed.
    void start(std::atomic<int>& calls) {
        observer->startMonitoring([this, &calls](const std::string& path) {
            EXPECT_EQ(path, bundle.string());
            EXPECT_TRUE(observer->queue().isCurrent());
            ++calls;
        });
        observer->queue().sync([] {});
    }
    // Blocks the observer's queue until the returned semaphore is signalled.
    static Dispatch::DispatchSemaphore hold(const Dispatch::DispatchQueue& queue) {
        Dispatch::DispatchSemaphore held(0), release(0);
        queue.async([=] { held.signal(), release.wait(); });
        held.wait();
        return release;
    }
    // Lets the events still on their way arrive and be handled.
    void settle() {
        std::this_thread::sleep_for(std::chrono::milliseconds(100));
        observer->queue().sync([] {});
    }

    TestSupport::ScopedLogCapture log;
    TestSupport::TemporaryDirectory temp{"observer"};
    fs::path bundle = temp / "Applications" / "Velmora VPN.app";
    // The observer looks the bundle up once, when it is created.
    bool bundleMade = (makeBundle(), true);
    Workspace::Workspace workspace{{temp / "Applications"}};
    std::shared_ptr<AppBundleObserver> observer = AppBundleObserver::create("com.velmora.mac.vpn", workspace);
    std::atomic<int> calls{0};
};

TEST_F(AppBundleObserverTest, DeletingTheBundleFiresOnceOnTheQueue) {
    start(calls);
    fs::remove_all(bundle);
    ASSERT_TRUE(waitUntil([&] { return calls == 1; }));
    // A later event finds no monitor and fires nothing.
    settle();
    const long gone = count(kNoMonitor);
    observer->directoryMonitorDidObserveChange(Tovik::DirectoryMonitor::create(bundle.string()));
    observer->queue().sync([] {});
    EXPECT_EQ(count(kNoMonitor), gone + 1);
    EXPECT_EQ(calls, 1);
}

TEST_F(AppBundleObserverTest, StartingAgainReplacesMonitorAndCompletionAndMovingToTheTrashFires) {
    std::atomic<int> firstCalls{0};
    start(firstCalls);
    start(calls);
    EXPECT_TRUE(waitUntil([&] { return descriptorsOn(bundle) == 1; })) << "the first monitor still runs";
    fs::create_directory(temp / ".Trash");
    fs::rename(bundle, temp / ".Trash" / "Velmora VPN.app");
    ASSERT_TRUE(waitUntil([&] { return calls == 1; }));
    EXPECT_EQ(firstCalls, 0);
    EXPECT_EQ(descriptorsOn(temp / ".Trash" / "Velmora VPN.app"), 0) << "the fired observer still watches";
}

TEST_F(AppBundleObserverTest, ReplacingTheBundleInPlaceDoesNotFire) {
    start(calls);
    auto release = hold(observer->queue());
    fs::remove_all(bundle);
    makeBundle();
    release.signal();
    ASSERT_TRUE(waitUntil([&] { return count(kExists) >= 1; }));
    settle();
    EXPECT_EQ(calls, 0);
}

TEST_F(AppBundleObserverTest, ReleasedObserverNeitherStartsNorKeepsWatching) {
    Dispatch::DispatchQueue queue = observer->queue();
    auto release = hold(queue);
    observer->startMonitoring([](const std::string&) { ADD_FAILURE() << "fired"; });
    std::weak_ptr<AppBundleObserver> weak = observer;
    observer.reset();
    EXPECT_TRUE(weak.expired()) << "a pending start keeps the observer alive";
    release.signal();
    queue.sync([] {});
    EXPECT_EQ(log.recorder().lines(), std::vector<std::string>{}) << "the start ran";
    EXPECT_EQ(descriptorsOn(bundle), 0);

    observer = AppBundleObserver::create("com.velmora.mac.vpn", workspace);
    start(calls);
    observer.reset();
    EXPECT_TRUE(waitUntil([&] { return descriptorsOn(bundle) == 0; }));
}

}  // namespace
