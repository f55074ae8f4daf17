#include "Tovik/Logger/LogManager.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <atomic>
#include <mutex>
#include <stdexcept>
#include <thread>

#include "Support/LogCapture.h"
#include "Support/TestSupport.h"

namespace {

using namespace Tovik;
using ::testing::ElementsAre;
using ::testing::UnorderedElementsAre;

// Saves return fixed paths; resets are recorded in a shared journal.
class RecordingManager : public LogManagerProtocol {
public:
    RecordingManager(std::vector<std::string> paths, std::vector<std::string>* journal = nullptr)
        : paths_(std::move(paths)), journal_(journal) {}

    std::vector<std::string> saveLogs(const LogSubsystemSelector& selecting, const std::string& inFolder,
                                      const LogSavingOpts& opts) override {
        std::lock_guard guard(mutex_);
        calls.push_back({selecting, inFolder, opts.maxSize});
        if (rendezvous) {
            // Every manager of the save must be running at once to get past here.
            ++*rendezvous;
            if (!TestSupport::waitUntil([&] { return rendezvous->load() == rendezvousSize; })) return {"alone"};
        }
        return paths_;
    }
    void resetLog() override { journal_->push_back(paths_.front()); }

    struct Call {
        LogSubsystemSelector selector;
        std::string folder;
        std::optional<int64_t> maxSize;
    };
    std::vector<Call> calls;
    std::atomic<int>* rendezvous = nullptr;
    int rendezvousSize = 0;

private:
    std::mutex mutex_;
    std::vector<std::string> paths_;
    std::vector<std::string>* journal_;
};

class FailingManager : public LogManagerProtocol {
public:
    std::vector<std::string> saveLogs(const LogSubsystemSelector&, const std::string&, const LogSavingOpts&) override {
        throw std::runtime_error("disk on fire");
    }
    void resetLog() override { throw std::runtime_error("cannot open"); }
};

class DefaultResetManager : public LogManagerProtocol {
public:
    std::vector<std::string> saveLogs(const LogSubsystemSelector&, const std::string&, const LogSavingOpts&) override {
        return {};
    }
};

TEST(LogManagerTests, SavesWithAllManagersAtOnceAndLeavesOutTheFailingOne) {
    TestSupport::ScopedLogCapture log;
    std::atomic<int> running{0};
    auto first = std::make_shared<RecordingManager>(std::vector<std::string>{"a1", "a2"});
    auto second = std::make_shared<RecordingManager>(std::vector<std::string>{"b1"});
    for (auto* manager : {first.get(), second.get()}) {
        manager->rendezvous = &running;
        manager->rendezvousSize = 2;
    }
    LogManager manager({first, std::make_shared<FailingManager>(), second});

    const auto selector = LogSubsystemSelector::some({"vpn"});
    const auto paths = manager.saveLogs(selector, "/out", LogSavingOpts::init(std::nullopt, std::nullopt, 7));

    // Grouped per manager, the groups in the order the managers finished.
    EXPECT_TRUE(paths == std::vector<std::string>({"a1", "a2", "b1"}) ||
                paths == std::vector<std::string>({"b1", "a1", "a2"}))
        << ::testing::PrintToString(paths);
    for (auto* recording : {first.get(), second.get()}) {
        ASSERT_EQ(recording->calls.size(), 1u);
        EXPECT_EQ(recording->calls[0].selector, selector);
        EXPECT_EQ(recording->calls[0].folder, "/out");
        EXPECT_EQ(recording->calls[0].maxSize, 7);
    }
    EXPECT_THAT(log.recorder().lines(),
                ElementsAre("E: (LogManager: saveLogs(selecting:inFolder:opts:)) (anonymous "
                            "namespace)::FailingManager Failed to save logs: disk on fire"));
}

TEST(LogManagerTests, ResetsInOrderPastFailuresAndEmptyListDoesNothing) {
    TestSupport::ScopedLogCapture log;
    LogManager empty;
    EXPECT_TRUE(empty.saveLogs(LogSubsystemSelector::whole(), "/out", {}).empty());
    empty.resetLog();
    EXPECT_TRUE(log.recorder().lines().empty());

    std::vector<std::string> journal;
    LogManager manager({std::make_shared<RecordingManager>(std::vector<std::string>{"first"}, &journal),
                        std::make_shared<FailingManager>(), std::make_shared<DefaultResetManager>(),
                        std::make_shared<RecordingManager>(std::vector<std::string>{"last"}, &journal)});
    manager.resetLog();
    EXPECT_THAT(journal, ElementsAre("first", "last"));
    EXPECT_THAT(log.recorder().lines(),
                ElementsAre("E: (LogManager: resetLog()) (anonymous namespace)::FailingManager Failed to reset log: "
                            "cannot open",
                            "I: (LogManagerProtocol) Do nothing"));
}

TEST(LogManagerTests, SharedManagerStartsEmptyAndIsReplacedWholeWhileRead) {
    const auto original = LogManager::shared();
    auto* initial = dynamic_cast<LogManager*>(original.get());
    ASSERT_NE(initial, nullptr);
    EXPECT_TRUE(initial->handlers().empty());

    auto replacement = std::make_shared<DefaultResetManager>();
    std::atomic<bool> stop{false};
    std::thread reader([&] {
        while (!stop) {
            auto seen = LogManager::shared();
            ASSERT_TRUE(seen == original || seen == replacement);
        }
    });
    for (int i = 0; i < 1000; ++i) LogManager::setShared(i % 2 ? original : replacement);
    LogManager::setShared(replacement);
    EXPECT_EQ(LogManager::shared(), replacement);
    stop = true;
    reader.join();
    LogManager::setShared(original);
}

}  // namespace
