#include "Tovik/SyncAsync.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <mutex>
#include <stdexcept>
#include <thread>

#include "Support/TestSupport.h"
#include "Tovik/Logger/Logger.h"
#include "Tovik/SyncResult.h"

using namespace Tovik;

namespace {

class EventLog {
public:
    void add(std::string event) {
        std::lock_guard guard(mutex_);
        events_.push_back(std::move(event));
    }
    std::vector<std::string> events() const {
        std::lock_guard guard(mutex_);
        return events_;
    }

private:
    mutable std::mutex mutex_;
    std::vector<std::string> events_;
};

struct StorageError : std::runtime_error {
    using std::runtime_error::runtime_error;
};

class RecordingHandler : public LogHandlerProtocol {
public:
    void log(LogLevel, Date, std::string_view text) noexcept override {
        std::lock_guard guard(mutex_);
        texts_.emplace_back(text);
    }
    std::vector<std::string> texts() const {
        std::lock_guard guard(mutex_);
        return texts_;
    }

private:
    mutable std::mutex mutex_;
    std::vector<std::string> texts_;
};

// Calls `work` on another thread after a pause, as a suspended closure resumes.
void resumeLater(std::function<void()> work) {
    std::thread([work = std::move(work)] {
        std::this_thread::sleep_for(std::chrono::milliseconds(50));
        work();
    }).detach();
}

}  // namespace

TEST(SyncAsyncTests, AsyncJobsRunOneAfterAnotherIncludingSuspensions) {
    SyncAsync serial("sync.async.test");
    EventLog log;
    serial.async([&log](Completion<void> done) {
        log.add("first started");
        resumeLater([&log, done] {
            log.add("first finished");
            done();
        });
    });
    serial.async([&log](Completion<void> done) {
        log.add("second started");
        done();
    });
    // sync waits behind both.
    int last = serial.sync<int>([&log](Completion<int> done) {
        log.add("sync ran");
        done(3);
    });
    EXPECT_EQ(last, 3);
    EXPECT_THAT(log.events(), ::testing::ElementsAre("first started", "first finished", "second started", "sync ran"));
}

TEST(SyncAsyncTests, SyncReturnsValueCompletedOnAnotherThread) {
    SyncAsync serial("sync.async.test");
    std::string value = serial.sync<std::string>([](Completion<std::string> done) {
        resumeLater([done] { done("later"); });
    });
    EXPECT_EQ(value, "later");
}

TEST(SyncAsyncTests, SyncThrowingPassesValuesAndErrorsOn) {
    SyncAsync serial("sync.async.test");
    EXPECT_EQ(serial.syncThrowing<int>([](Completion<Result<int>> done) { resumeLater([done] { done(42); }); }), 42);

    auto failsLater = [](Completion<Result<int>> done) {
        resumeLater([done] { done(Result<int>::failure(std::make_exception_ptr(StorageError("keychain locked")))); });
    };
    try {
        serial.syncThrowing<int>(failsLater);
        FAIL() << "expected StorageError";
    } catch (const StorageError& error) {
        EXPECT_STREQ(error.what(), "keychain locked");
    }

    // A closure that throws before completing fails the same way.
    EXPECT_THROW(serial.syncThrowing<void>([](Completion<Result<void>>) { throw StorageError("at once"); }),
                 StorageError);
    // The queue carries on after a failed job.
    EXPECT_NO_THROW(serial.syncThrowing<void>([](Completion<Result<void>> done) { done({}); }));
}

TEST(SyncResultTests, UnlimitedWaitReturnsValueWrittenFromAnotherThread) {
    int value = withSyncResult(-1, 0, "status", __FILE__, "status()", __LINE__,
                               [](const std::shared_ptr<SyncResult<int>>& result) {
                                   resumeLater([result] { result->setValue(17); });
                               });
    EXPECT_EQ(value, 17);

    int modified = withSyncResult(10, 0, "modify", __FILE__, "modify()", __LINE__,
                                  [](const std::shared_ptr<SyncResult<int>>& result) {
                                      resumeLater([result] { result->modify([](int& v) { v += 5; }); });
                                  });
    EXPECT_EQ(modified, 15);
}

TEST(SyncResultTests, TimeOutReturnsInitialValueAndLogsCallersLocation) {
    auto recorder = std::make_shared<RecordingHandler>();
    Logger& logger = Logger::shared();
    auto savedHandlers = logger.handlers();
    auto savedLevel = logger.logLevel();
    logger.setHandlers({recorder});
    logger.setLogLevel(LogLevel::info);

    std::shared_ptr<SyncResult<std::string>> kept;
    std::string value = withSyncResult(std::string("initial"), 0.5, "loadKeys", "Tovik/KeyStorage.cpp",
                                       "load()", 42, [&kept](const auto& result) { kept = result; });
    // A write after the wait ended is harmless.
    kept->setValue("too late");

    logger.setHandlers(savedHandlers);
    logger.setLogLevel(savedLevel);
    EXPECT_EQ(value, "initial");
    EXPECT_THAT(recorder->texts(), ::testing::ElementsAre("I: (KeyStorage) loadKeys timed out for 0.5 secs."));
}
