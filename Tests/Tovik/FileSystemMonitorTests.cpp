#include "Tovik/FileSystemMonitor.h"

#include <gtest/gtest.h>
#include <pthread.h>
#include <stdlib.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <condition_variable>
#include <fstream>
#include <functional>
#include <mutex>
#include <thread>
#include <vector>

#include "Support/LogCapture.h"
#include "Support/TestSupport.h"

namespace {

namespace fs = std::filesystem;
using Dispatch::FileSystemEvent;
using Tovik::FileSystemMonitor;
using TestSupport::descriptorsOn;
using TestSupport::waitUntil;

// Records both calls; the test waits for them with a deadline.
class RecordingDelegate : public Tovik::FileSystemMonitorDelegate {
public:
    void fileSystemMonitorDidObserveChange(const std::shared_ptr<FileSystemMonitor>& monitor,
                                           FileSystemEvent events) override {
        if (stopOnChange) monitor->stopMonitoring();  // calling back in must not deadlock
        std::lock_guard lock(mutex_);
        changes_.push_back(events);
        called_.notify_all();
    }
    void fileSystemMonitorDidFailToRestart(const std::shared_ptr<FileSystemMonitor>&,
                                           const std::string& path) override {
        std::lock_guard lock(mutex_);
        failures_.push_back(path);
        called_.notify_all();
    }

    size_t changeCount() {
        std::lock_guard lock(mutex_);
        return changes_.size();
    }
    /// Whether a change after the first `mark` ones held every event of `events`.
    bool changedSince(size_t mark, FileSystemEvent events) {
        std::lock_guard lock(mutex_);
        return changedSinceLocked(mark, events);
    }
    /// As changedSince(), waiting for it 10 s at most.
    bool waitForChange(size_t mark, FileSystemEvent events) {
        return waitFor([&] { return changedSinceLocked(mark, events); });
    }
    /// Waits (10 s at most) for a failure report; returns the paths reported.
    std::vector<std::string> waitForFailures() {
        waitFor([&] { return !failures_.empty(); });
        std::lock_guard lock(mutex_);
        return failures_;
    }

    std::atomic<bool> stopOnChange{false};

private:
    bool changedSinceLocked(size_t mark, FileSystemEvent events) const {
        for (size_t i = mark; i < changes_.size(); ++i) {
            if (changes_[i].contains(events)) return true;
        }
        return false;
    }
    bool waitFor(const std::function<bool()>& condition) {
        std::unique_lock lock(mutex_);
        return called_.wait_for(lock, std::chrono::seconds(10), condition);
    }

    std::mutex mutex_;
    std::condition_variable called_;
    std::vector<FileSystemEvent> changes_;   // guarded by mutex_
    std::vector<std::string> failures_;      // guarded by mutex_
};

// Keeps the default failure report.
struct ChangesOnlyDelegate : Tovik::FileSystemMonitorDelegate {
    void fileSystemMonitorDidObserveChange(const std::shared_ptr<FileSystemMonitor>&, FileSystemEvent) override {}
};

// In the test process run as root: runs the current test again in its own
// executable as the user nobody, fails the test unless that run passed it, and
// returns false. Run as any other user: returns true.
bool asUnprivilegedUser() {
    if (::geteuid() != 0) return true;
    const auto* test = ::testing::UnitTest::GetInstance()->current_test_info();
    TestSupport::TemporaryDirectory scratch("fsmonitor-nobody");
    const fs::path output = scratch / "output.txt";
    const std::string command =
        "env -u GTEST_OUTPUT -u GTEST_SHARD_INDEX -u GTEST_TOTAL_SHARDS setpriv --reuid=nobody --regid=nogroup "
        "--clear-groups '" + fs::read_symlink("/proc/self/exe").string() + "' '--gtest_filter=" +
        test->test_suite_name() + "." + test->name() + "' > '" + output.string() + "' 2>&1";
    const int status = std::system(command.c_str());
    const std::string text = TestSupport::readFile(output);
    EXPECT_TRUE(status == 0 && text.find("[  PASSED  ] 1 test.") != std::string::npos)
        << "as nobody, wait status " << status << ":\n" << text;
    return false;
}

// Runs body on a new thread with a stack of `bytes`, and waits for it.
void onStackOf(size_t bytes, std::function<void()> body) {
    pthread_attr_t attributes;
    pthread_attr_init(&attributes);
    pthread_attr_setstacksize(&attributes, bytes);
    pthread_t thread;
    auto run = [](void* context) -> void* {
        (*static_cast<std::function<void()>*>(context))();
        return nullptr;
    };
    ASSERT_EQ(pthread_create(&thread, &attributes, run, &body), 0);
    pthread_join(thread, nullptr);
    pthread_attr_destroy(&attributes);
}

std::string line(char letter, const std::string& function, const std::string& message) {
    return std::string(1, letter) + ": (FileSystemMonitor: " + function + ") " + message;
}
std::string missingLine(const fs::path& path) {
    return line('D', "restartQ(_:)", "Path " + path.string() + " doesn't exist yet.");
}
std::string intactLine(const fs::path& path) {
    return line('D', "restartMonitoringQ(below:)", "Path " + path.string() + " is already monitoring.");
}

class FileSystemMonitorTest : public ::testing::Test {
protected:
    void TearDown() override {
        // Give back what a test locked, so that the folder can be removed.
        std::error_code ignored;
        for (const fs::path& path : {b, temp / "locked"}) fs::permissions(path, fs::perms::owner_all, ignored);
    }

    std::shared_ptr<FileSystemMonitor> started(const std::shared_ptr<Tovik::FileSystemMonitorDelegate>& receiver) {
        auto monitor = FileSystemMonitor::create(c, a);
        monitor->setDelegate(receiver);
        EXPECT_TRUE(monitor->startMonitoring());
        return monitor;
    }
    std::vector<std::string> linesFrom(size_t mark) const {
        auto lines = log.recorder().lines();
        return {lines.begin() + static_cast<std::ptrdiff_t>(std::min(mark, lines.size())), lines.end()};
    }
    // Adds entries to the target until the delegate reports a write on it: the
    // target may still wait to be armed, and an entry made before that sends
    // no event.
    bool entriesAreReported() {
        const size_t mark = delegate->changeCount();
        int entry = 0;
        return waitUntil([&] {
            std::ofstream(c / ("entry-" + std::to_string(entry++)));
            return delegate->changedSince(mark, FileSystemEvent::write());
        });
    }

    TestSupport::ScopedLogCapture log;
    TestSupport::TemporaryDirectory temp{"fsmonitor"};
    const fs::path a = temp / "A", b = a / "B", c = b / "C";
    std::shared_ptr<RecordingDelegate> delegate = std::make_shared<RecordingDelegate>();
};

TEST_F(FileSystemMonitorTest, MissingLevelsAreWatchedAsTheyAppear) {
    fs::create_directory(a);
    auto monitor = started(delegate);
    EXPECT_EQ(monitor->queue().label(), "Tovik.FileSystemMonitor " + c.string());
    const std::vector<std::string> missing = {missingLine(c), missingLine(b)};
    EXPECT_EQ(log.recorder().lines(), missing);

    // A second start walks up to the first level that is still armed on its node.
    const size_t mark = log.recorder().lines().size();
    EXPECT_TRUE(monitor->startMonitoring());
    EXPECT_EQ(linesFrom(mark), (std::vector<std::string>{missingLine(c), missingLine(b), intactLine(a)}));

    fs::create_directory(b);
    fs::create_directory(c);
    EXPECT_TRUE(entriesAreReported());
    EXPECT_NE(log.recorder().count(line('D', "restartQ(_:)", "Got event: link|write for " + a.string())), 0);
    EXPECT_TRUE(monitor->isMonitoring());
}

TEST_F(FileSystemMonitorTest, TargetIsFollowedByItsPathNotByItsNode) {
    fs::create_directories(c);
    auto monitor = started(delegate);
    const fs::path away = a / "away";

    const size_t mark = delegate->changeCount();
    fs::rename(c, away);
    EXPECT_TRUE(delegate->waitForChange(mark, FileSystemEvent::rename()));
    fs::create_directory(c);  // a new node at the path is the target now
    EXPECT_TRUE(entriesAreReported());

    fs::remove_all(c);
    fs::rename(away, c);  // and so is the old one, back in place
    EXPECT_TRUE(entriesAreReported());
}

TEST_F(FileSystemMonitorTest, RecreatedMiddleLevelIsWatchedAgain) {
    fs::create_directories(c);
    auto monitor = started(delegate);
    const size_t mark = delegate->changeCount();
    fs::remove_all(b);
    EXPECT_TRUE(delegate->waitForChange(mark, FileSystemEvent::delete_()));
    fs::create_directories(c);
    EXPECT_TRUE(entriesAreReported());
}

TEST_F(FileSystemMonitorTest, LevelsAppearingWhileTheChainIsArmedAreNotMissed) {
    fs::create_directory(a);
    // Makes B and C right after the walk found B missing, before A is armed:
    // no folder is watched that could report them.
    struct MakeLevelsOnce : Tovik::LogHandlerProtocol {
        explicit MakeLevelsOnce(std::string trigger, fs::path levels) : trigger(std::move(trigger)), levels(levels) {}
        void log(Tovik::LogLevel, Tovik::Date, std::string_view text) noexcept override {
            std::error_code ignored;
            if (text == trigger && !done.exchange(true)) fs::create_directories(levels, ignored);
        }
        const std::string trigger;
        const fs::path levels;
        std::atomic<bool> done{false};
    };
    auto maker = std::make_shared<MakeLevelsOnce>(missingLine(b), c);
    Tovik::Logger::shared().setHandlers({maker});

    auto monitor = started(delegate);
    ASSERT_TRUE(maker->done);
    EXPECT_TRUE(entriesAreReported());
}

TEST_F(FileSystemMonitorTest, UnreadableAncestorEndsTheRootSearch) {
    if (!asUnprivilegedUser()) return;
    const fs::path locked = temp / "locked", target = locked / "A" / "B" / "C";
    fs::create_directories(locked / "A");
    fs::permissions(locked, fs::perms::owner_write | fs::perms::owner_exec);  // can be passed through, not read

    auto monitor = FileSystemMonitor::create(target);
    EXPECT_TRUE(monitor->startMonitoring());
    // Missing B is passed over, A is the root: nothing above it is armed.
    EXPECT_EQ(log.recorder().lines(), (std::vector<std::string>{missingLine(target), missingLine(target.parent_path())}));

    monitor.reset();
    fs::remove(locked / "A");
    const size_t mark = log.recorder().lines().size();
    EXPECT_FALSE(FileSystemMonitor::create(target)->startMonitoring());
    EXPECT_EQ(linesFrom(mark),
              (std::vector<std::string>{
                  line('E', "init(_:underRoot:)", "Failed to find accessible root path for '" + target.string() + "'"),
                  line('E', "startMonitoring()", "Path info is not initialized")}));
}

TEST_F(FileSystemMonitorTest, LevelThatCannotBeArmedStopsTheChainAndTellsTheDelegate) {
    if (!asUnprivilegedUser()) return;
    fs::create_directory(a);
    auto monitor = started(delegate);
    auto changesOnly = std::make_shared<ChangesOnlyDelegate>();
    auto second = started(changesOnly);

    ASSERT_EQ(::mkdir(b.c_str(), 0300), 0);  // exists, but nobody may read it
    EXPECT_EQ(delegate->waitForFailures(), std::vector<std::string>{c.string()});
    EXPECT_FALSE(monitor->isMonitoring());
    const std::string defaultReport = line('E', "fileSystemMonitorDidFailToRestart(_:onPath:)",
                                           "FileSystemMonitor(" + c.string() + " failed to restart on path " +
                                               c.string());
    EXPECT_TRUE(waitUntil([&] { return log.recorder().count(defaultReport) == 1; }));
    EXPECT_EQ(log.recorder().count(line('E', "restartQ(_:)",
                                        "Open " + b.string() + " for monitoring file notifications: Permission denied")),
              2);
    EXPECT_TRUE(waitUntil([&] { return descriptorsOn(a) == 0; }));
}

// A chain this long would overflow the small stack if levels were freed recursively.
TEST_F(FileSystemMonitorTest, LongChainIsReleasedOnASmallStack) {
    Tovik::Logger::shared().setLogLevel(Tovik::LogLevel::info);
    fs::path target = temp.path();
    for (int level = 0; level < 5000; ++level) target /= "d";
    onStackOf(256 * 1024, [&] {
        auto monitor = FileSystemMonitor::create(target, temp.path());
        EXPECT_TRUE(monitor->startMonitoring());
        monitor->stopMonitoring();
    });
    EXPECT_TRUE(waitUntil([&] { return descriptorsOn(temp.path()) == 0; }));
}

// Under ThreadSanitizer this is the race check of the monitor's queue.
TEST_F(FileSystemMonitorTest, StopRacesWithEventsAndCallbacks) {
    fs::create_directories(c);
    auto monitor = FileSystemMonitor::create(c, a);
    monitor->setDelegate(delegate);
    delegate->stopOnChange = true;
    std::atomic<bool> done{false};
    std::thread churn([&] {
        std::error_code ignored;
        while (!done) {
            std::ofstream(c / "entry");
            fs::remove(c / "entry", ignored);
            fs::rename(b, a / "moved", ignored);
            fs::rename(a / "moved", b, ignored);
        }
    });
    // Each round: start, let a change come in (whose call stops the monitor
    // too), and stop while the churn goes on.
    for (int round = 0; round < 50; ++round) {
        const size_t mark = delegate->changeCount();
        monitor->startMonitoring();
        EXPECT_TRUE(delegate->waitForChange(mark, FileSystemEvent{}));
        monitor->stopMonitoring();
    }
    done = true;
    churn.join();

    std::weak_ptr<FileSystemMonitor> weak = monitor;
    monitor.reset();
    EXPECT_TRUE(waitUntil([&] { return weak.expired(); }));
    EXPECT_TRUE(waitUntil([&] { return descriptorsOn(a) + descriptorsOn(b) + descriptorsOn(c) == 0; }));
}

}  // namespace
