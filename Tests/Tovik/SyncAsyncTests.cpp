#include "Tovik/SyncAsync.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <mutex>
#include <stdexcept>
#include <thread>

#include "Support/LogCapture.h"
#include "Tovik/SyncResult.h"

using namespace Tovik;

namespace {

// Calls `work` on another thread after a pause, as a suspended closure resumes.
void resumeLater(std::function<void()> work) {
    std::thread([work = std::move(work)] {
        std::this_thread::sleep_for(std::chrono::milliseconds(50));
        work();
    }).detach();
}

}  // namespace

TEST(SyncAsyncTests, JobsRunOneAtATimeInSubmissionOrderIncludingSuspensions) {
    SyncAsync serial("sync.async.test");
    std::mutex mutex;
    std::vector<std::string> events;  // guarded by mutex
    auto add = [&](const char* event) {
        std::lock_guard guard(mutex);
        events.emplace_back(event);
    };
    serial.async([&](Completion<void> done) {
        add("first started");
        resumeLater([&, done] {
            add("first finished");
            done();
        });
    });
    serial.async([&](Completion<void> done) {
        add("second started");
        done();
    });
    // sync waits behind both and returns what its closure completes with, from whichever thread.
    std::string last = serial.sync<std::string>([&](Completion<std::string> done) {
        add("sync started");
        resumeLater([done] { done("later"); });
    });
    EXPECT_EQ(last, "later");
    std::lock_guard guard(mutex);
    EXPECT_THAT(events, ::testing::ElementsAre("first started", "first finished", "second started", "sync started"));
}

TEST(SyncAsyncTests, SyncThrowingPassesValuesAndErrorsOn) {
    SyncAsync serial("sync.async.test");
    EXPECT_EQ(serial.syncThrowing<int>([](Completion<Result<int>> done) { resumeLater([done] { done(42); }); }), 42);
    auto failsLater = [](Completion<Result<int>> done) {
        resumeLater([done] { done(Result<int>::failure(std::make_exception_ptr(std::invalid_argument("locked")))); });
    };
    EXPECT_THROW(serial.syncThrowing<int>(failsLater), std::invalid_argument);
    // A closure that throws before completing fails the same way; the queue carries on after it.
    EXPECT_THROW(serial.syncThrowing<void>([](Completion<Result<void>>) { throw std::invalid_argument("at once"); }),
                 std::invalid_argument);
    EXPECT_NO_THROW(serial.syncThrowing<void>([](Completion<Result<void>> done) { done({}); }));
}

TEST(SyncResultTests, WaitsForTheValueOrTimesOutLoggingTheCallersLocation) {
    TestSupport::ScopedLogCapture capture(LogLevel::info);
    // A time-out of 0 waits without limit for a value written from another thread.
    EXPECT_EQ(withSyncResult(-1, 0, "status", __FILE__, "status()", __LINE__,
                             [](const auto& result) { resumeLater([result] { result->setValue(17); }); }),
              17);
    std::shared_ptr<SyncResult<std::string>> kept;
    std::string value = withSyncResult(std::string("initial"), 0.5, "loadKeys", "Tovik/KeyStorage.cpp", "load()", 42,
                                       [&kept](const auto& result) { kept = result; });
    kept->setValue("too late");  // a write after the wait ended is harmless
    EXPECT_EQ(value, "initial");
    EXPECT_THAT(capture.recorder().lines(),
                ::testing::ElementsAre("I: (KeyStorage) loadKeys timed out for 0.5 secs."));
}
