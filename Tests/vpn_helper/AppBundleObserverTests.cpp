#include "vpn_helper/AppBundleObserver.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <functional>
#include <utility>
#include <vector>

#include "Dispatch/DispatchSemaphore.h"
#include "Support/LogCapture.h"
#include "Support/TestSupport.h"

namespace {

namespace fs = std::filesystem;
using TestSupport::descriptorsOn;
using TestSupport::waitUntil;
using Tovik::DirectoryMonitor;
using VpnHelper::AppBundleObserver;

const std::string kExists = "W: (AppBundleObserver) App path is exist";
const std::string kNoMonitor = "I: (AppBundleObserver) Directory monitor is nil. Monitoring was stopped.";

std::optional<DirectoryMonitor::Node> nodeAt(const fs::path& path) {
    struct stat info {};
    if (::stat(path.c_str(), &info) != 0) return std::nullopt;
    return DirectoryMonitor::Node{info.st_dev, info.st_ino};
}

class AppBundleObserverTest : public ::testing::Test {
protected:
    void makeBundle(const fs::path& at) {
        fs::create_directories(at / "Contents" / "MacOS");
        TestSupport::writeFile(at / "Contents" / "MacOS" / "Velmora VPN", "binary");
        TestSupport::writeFile(at / "Contents" / "Info.plist",
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
    // The observer's current monitor, read on its queue.
    std::shared_ptr<DirectoryMonitor> monitor() const {
        std::shared_ptr<DirectoryMonitor> current;
        observer->queue().sync([&] { current = observer->directoryMonitor(); });
        return current;
    }
    // Waits until a stopped monitor is freed (from then on it reports nothing)
    // and the observer has handled every report it made.
    void drain(const std::weak_ptr<DirectoryMonitor>& stopped) const {
        EXPECT_TRUE(waitUntil([&] { return stopped.expired(); }));
        observer->queue().sync([] {});
    }

    TestSupport::ScopedLogCapture log;
    TestSupport::TemporaryDirectory temp{"observer"};
    fs::path bundle = temp / "Applications" / "Velmora VPN.app";
    // The observer looks the bundle up once, when it is created.
    bool bundleMade = (makeBundle(bundle), true);
    Workspace::Workspace workspace{{temp / "Applications"}};
    std::shared_ptr<AppBundleObserver> observer = AppBundleObserver::create("com.velmora.mac.vpn", workspace);
    std::atomic<int> calls{0};
};

TEST_F(AppBundleObserverTest, StartingAgainReplacesMonitorAndCompletionAndMovingToTheTrashFires) {
    std::atomic<int> firstCalls{0};
    start(firstCalls);
    start(calls);
    EXPECT_TRUE(waitUntil([&] { return descriptorsOn(bundle) == 1; })) << "the first monitor still runs";
    fs::create_directory(temp / ".Trash");
    fs::rename(bundle, temp / ".Trash" / "Velmora VPN.app");
    ASSERT_TRUE(waitUntil([&] { return calls == 1; }));
    EXPECT_EQ(firstCalls, 0);
    EXPECT_TRUE(waitUntil([&] { return descriptorsOn(temp / ".Trash" / "Velmora VPN.app") == 0; }))
        << "the fired observer still watches";
}

// Updaters put a freshly staged bundle folder where the old one was: by moving
// the old one aside, by deleting it first or by exchanging the two. Each update
// runs while the queue is held, so the check sees its end, never the gap
// between its steps. Deleting the bundle then fires once, on the queue.
TEST_F(AppBundleObserverTest, UpdatesThatReplaceTheBundleFolderKeepItWatchedAndDeletionFiresOnce) {
    const fs::path staged = temp / "staged.app", aside = temp / "old.app";
    const std::vector<std::pair<std::string, std::function<void()>>> updates = {
        {"move aside", [&] { fs::rename(bundle, aside); fs::rename(staged, bundle); fs::remove_all(aside); }},
        {"delete, then move", [&] { fs::remove_all(bundle); fs::rename(staged, bundle); }},
        {"exchange", [&] {
             EXPECT_EQ(::renameat2(AT_FDCWD, staged.c_str(), AT_FDCWD, bundle.c_str(), RENAME_EXCHANGE), 0);
             fs::remove_all(staged);
         }},
    };
    start(calls);
    for (int round = 1; round <= 2; ++round) {
        for (const auto& [name, update] : updates) {
            makeBundle(staged);
            auto release = hold(observer->queue());
            update();
            release.signal();
            ASSERT_TRUE(waitUntil([&] {
                auto current = monitor();
                return current && current->watchedNode() == nodeAt(bundle);
            })) << "still watching the replaced folder after " << name << ", round " << round;
        }
    }
    EXPECT_GE(count(kExists), 6);

    std::weak_ptr<DirectoryMonitor> watching = monitor();
    fs::remove_all(bundle);
    ASSERT_TRUE(waitUntil([&] { return calls == 1; })) << "the deletion went unnoticed";
    drain(watching);
    // A later event finds no monitor and fires nothing.
    const long gone = count(kNoMonitor);
    observer->directoryMonitorDidObserveChange(DirectoryMonitor::create(bundle.string()));
    observer->queue().sync([] {});
    EXPECT_EQ(count(kNoMonitor), gone + 1);
    EXPECT_EQ(calls, 1);
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
