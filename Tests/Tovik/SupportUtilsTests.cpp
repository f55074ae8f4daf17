#include "Tovik/SupportUtils.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <stdlib.h>

#include <algorithm>
#include <future>
#include <iterator>
#include <mutex>
#include <stdexcept>

#include "Support/LogCapture.h"
#include "Support/TestSupport.h"
#include "Tovik/Logger/LogManager.h"
#include "Tovik/SystemUtils.h"

namespace {

namespace fs = std::filesystem;
using namespace Tovik;
using Kind = SupportLogArchivingError::Kind;
using ::testing::Contains;
using ::testing::HasSubstr;
using std::chrono::hours;
using std::chrono::seconds;

constexpr auto kDeadline = seconds(10);

class ScopedEnvironment {
public:
    ScopedEnvironment(const char* name, const std::string& value) : name_(name) {
        if (const char* old = ::getenv(name)) old_ = old;
        ::setenv(name, value.c_str(), 1);
    }
    ~ScopedEnvironment() { old_ ? (void)::setenv(name_, old_->c_str(), 1) : (void)::unsetenv(name_); }

private:
    const char* name_;
    std::optional<std::string> old_;
};

// Writes "app.log" into the folder it is given, after an optional gate, or fails.
class ArchiveManager : public LogManagerProtocol {
public:
    enum class Behaviour { write, fail, blockZip };
    explicit ArchiveManager(Behaviour behaviour = Behaviour::write) : behaviour_(behaviour) {}

    std::vector<std::string> saveLogs(const LogSubsystemSelector& selecting, const std::string& inFolder,
                                      const LogSavingOpts& opts) override {
        {
            std::lock_guard guard(mutex_);
            calls.push_back({selecting, inFolder, opts});
        }
        if (gated) {
            entered.set_value();
            EXPECT_EQ(release.wait_for(kDeadline), std::future_status::ready);
        }
        if (behaviour_ == Behaviour::fail) throw std::runtime_error("boom");
        // A folder where zip wants to write its archive makes zip fail.
        if (behaviour_ == Behaviour::blockZip) fs::create_directories(inFolder + ".zip");
        TestSupport::writeFile(fs::path(inFolder) / "app.log", "log records\n");
        return {inFolder + "/app.log"};
    }

    struct Call {
        LogSubsystemSelector selector;
        std::string folder;
        LogSavingOpts opts;
    };
    std::vector<Call> calls;  // read once the work has ended
    bool gated = false;
    std::promise<void> entered;
    std::promise<void> releaser;
    std::shared_future<void> release = releaser.get_future().share();

private:
    std::mutex mutex_;
    Behaviour behaviour_;
};

class SupportUtilsTest : public testing::Test {
protected:
    void SetUp() override {
        fs::create_directories(tmp);
        previousManager_ = LogManager::shared();
        LogManager::setShared(manager);
    }
    void TearDown() override { LogManager::setShared(previousManager_); }

    // Archives items to destination (purpose general) and waits for the completion.
    static std::optional<SupportLogArchivingError> archive(const fs::path& destination, SupportUtils::Items items) {
        std::promise<std::optional<SupportLogArchivingError>> result;
        SupportUtils::createArchive(destination, std::move(items), SupportLogsPurpose::general, std::nullopt, false,
                                    [&](auto error) { result.set_value(error); });
        auto future = result.get_future();
        EXPECT_EQ(future.wait_for(kDeadline), std::future_status::ready);
        return future.get();
    }
    // The destination holds its earlier text; no temporary or partial file is left.
    void expectNothingLeft() {
        EXPECT_EQ(TestSupport::readFile(destination), "earlier");
        EXPECT_TRUE(fs::is_empty(tmp));
        EXPECT_EQ(std::distance(fs::directory_iterator(destination.parent_path()), fs::directory_iterator()), 1);
    }
    static long linesStartingWith(const TestSupport::ScopedLogCapture& log, const std::string& text) {
        const auto lines = log.recorder().lines();
        return std::count_if(lines.begin(), lines.end(), [&](const auto& l) { return l.starts_with(text); });
    }

    TestSupport::ScopedLogCapture log_;
    TestSupport::TemporaryDirectory temp_{"support-utils"};
    fs::path tmp = temp_ / "tmp";
    ScopedEnvironment tmpdir_{"TMPDIR", tmp.string()};
    fs::path destination = temp_ / "out" / "support.zip";
    std::shared_ptr<ArchiveManager> manager = std::make_shared<ArchiveManager>();

private:
    std::shared_ptr<LogManagerProtocol> previousManager_;
};

TEST_F(SupportUtilsTest, PurposesGiveTheirPeriodAndBudget) {
    EXPECT_EQ(supportLogsPurpose(0), SupportLogsPurpose::general);
    EXPECT_EQ(supportLogsPurpose(1), SupportLogsPurpose::connection);
    EXPECT_EQ(supportLogsPurpose(2), std::nullopt);
    EXPECT_EQ(supportLogsPurpose(-1), std::nullopt);

    const Date now = std::chrono::system_clock::now();
    const Date threeDaysAgo = now - hours(72);
    struct Row {
        SupportLogsPurpose purpose;
        std::optional<Date> start;
        Date expectedStart;
        std::optional<int64_t> expectedBudget;
    } rows[] = {
        {SupportLogsPurpose::general, std::nullopt, now + seconds(60) - hours(48), 31457280},
        {SupportLogsPurpose::connection, std::nullopt, now + seconds(60) - hours(24), std::nullopt},
        {SupportLogsPurpose::connection, threeDaysAgo, threeDaysAgo, std::nullopt},
    };
    for (const auto& row : rows) {
        const auto opts = supportLogSavingOpts(row.purpose, row.start, now);
        EXPECT_EQ(opts.startDate, row.expectedStart);
        EXPECT_EQ(opts.endDate, now + seconds(60));
        EXPECT_EQ(opts.maxSize, row.expectedBudget);
    }
}

TEST_F(SupportUtilsTest, ArchivesLogsAndEveryKindOfItemAndRevealFailureDoesNotMatter) {
    fs::remove_all(destination.parent_path());
    TestSupport::writeFile(temp_ / "attachment.txt", "attached");
    ScopedEnvironment noBus("DBUS_SESSION_BUS_ADDRESS", "unix:path=" + (temp_ / "no-bus").string());
    const Date before = std::chrono::system_clock::now();
    std::promise<std::optional<SupportLogArchivingError>> result;
    auto progress = SupportUtils::createArchive(
        destination,
        {{"notes/readme.txt", std::string("hello")},
         {"blob.bin", SupportUtils::Data{'d', 'a', 't', 'a'}},
         {"/copied.txt", temp_ / "attachment.txt"},
         {"plist.txt", Foundation::PropertyList("from a property list")}},
        SupportLogsPurpose::general, std::nullopt, true,
        [&](std::optional<SupportLogArchivingError> error) { result.set_value(error); });
    EXPECT_EQ(progress->totalUnitCount(), 6);
    auto future = result.get_future();
    ASSERT_EQ(future.wait_for(kDeadline), std::future_status::ready);
    const auto error = future.get();
    ASSERT_FALSE(error) << error->what();

    EXPECT_EQ(progress->completedUnitCount(), 6);
    ASSERT_EQ(manager->calls.size(), 1u);
    EXPECT_EQ(manager->calls[0].selector, LogSubsystemSelector::whole());
    EXPECT_EQ(fs::path(manager->calls[0].folder).filename(), "support");
    EXPECT_EQ(fs::path(manager->calls[0].folder).parent_path().parent_path(), tmp);
    const auto& opts = manager->calls[0].opts;
    EXPECT_GE(*opts.endDate, before + seconds(60));
    EXPECT_EQ(*opts.endDate - *opts.startDate, hours(48));
    EXPECT_EQ(opts.maxSize, 31457280);

    const fs::path unpacked = temp_ / "unpacked";
    fs::create_directories(unpacked);
    ASSERT_EQ(SystemUtil::uncompress(destination, unpacked), true);
    EXPECT_EQ(TestSupport::readFile(unpacked / "support/app.log"), "log records\n");
    EXPECT_EQ(TestSupport::readFile(unpacked / "support/notes/readme.txt"), "hello");
    EXPECT_EQ(TestSupport::readFile(unpacked / "support/blob.bin"), "data");
    EXPECT_EQ(TestSupport::readFile(unpacked / "support/copied.txt"), "attached");
    EXPECT_EQ(TestSupport::readFile(unpacked / "support/plist.txt"), "from a property list");
    EXPECT_TRUE(fs::is_empty(tmp));
    EXPECT_THAT(log_.recorder().lines(), Contains("I: (SupportUtils) Generating logs archive started"));
    EXPECT_THAT(log_.recorder().lines(),
                Contains("I: (SupportUtils) Log archive was written to: " + destination.string()));
}

// Cancellation is noticed before the work starts, after the logs are saved and after each item.
TEST_F(SupportUtilsTest, CancelsAtEachCheckpointAndLeavesNothingBehind) {
    enum class Checkpoint { beforeStart, afterLogs, afterFirstItem };
    for (auto checkpoint : {Checkpoint::beforeStart, Checkpoint::afterLogs, Checkpoint::afterFirstItem}) {
        SCOPED_TRACE(static_cast<int>(checkpoint));
        TestSupport::ScopedLogCapture log;
        fs::create_directories(destination.parent_path());
        TestSupport::writeFile(destination, "earlier");
        auto gatedManager = std::make_shared<ArchiveManager>();
        gatedManager->gated = true;
        LogManager::setShared(gatedManager);
        std::promise<std::optional<SupportLogArchivingError>> result;
        auto completion = [&](std::optional<SupportLogArchivingError> error) { result.set_value(error); };
        const SupportUtils::Items items{{"first.bin", SupportUtils::Data{1}}, {"second.bin", SupportUtils::Data{2}}};

        std::shared_ptr<Foundation::Progress> progress;
        if (checkpoint == Checkpoint::beforeStart) {
            // The work waits behind a held item of its serial queue until it is cancelled.
            Dispatch::DispatchQueue held("support.test.held");
            std::promise<void> hold;
            held.async([gate = hold.get_future().share()] { gate.wait(); });
            progress = SupportUtils::createArchive(destination, items, SupportLogsPurpose::connection, std::nullopt,
                                                   false, completion, held);
            progress->cancel();
            hold.set_value();
        } else {
            progress = SupportUtils::createArchive(destination, items, SupportLogsPurpose::connection, std::nullopt,
                                                   false, completion);
            ASSERT_EQ(gatedManager->entered.get_future().wait_for(kDeadline), std::future_status::ready);
            auto* raw = progress.get();
            if (checkpoint == Checkpoint::afterLogs) raw->cancel();
            else raw->setObserver([raw](const Foundation::Progress& p) {
                if (p.completedUnitCount() == 1) raw->cancel();
            });
        }
        gatedManager->releaser.set_value();
        auto future = result.get_future();
        ASSERT_EQ(future.wait_for(kDeadline), std::future_status::ready);
        const auto error = future.get();

        ASSERT_TRUE(error);
        EXPECT_EQ(error->kind(), Kind::cancelled);
        EXPECT_EQ(gatedManager->calls.size(), checkpoint == Checkpoint::beforeStart ? 0u : 1u);
        EXPECT_EQ(progress->completedUnitCount(), checkpoint == Checkpoint::afterFirstItem ? 1 : 0);
        EXPECT_EQ(linesStartingWith(log, "I: (SupportUtils) Log archiving cancelled"), 1);
        EXPECT_EQ(linesStartingWith(log, "I: (SupportUtils) File for archive output written to:"),
                  checkpoint == Checkpoint::afterFirstItem ? 1 : 0);
        expectNothingLeft();
    }
}

TEST_F(SupportUtilsTest, FailuresEndWithTheirErrorAndLeaveTheDestinationAsItWas) {
    using Behaviour = ArchiveManager::Behaviour;
    const std::string saveItem = "E: (SupportUtils: saveItem(value:relativePath:archiveFolderUrl:)) ";
    struct Row {
        const char* name;
        SupportUtils::Items items;
        Behaviour behaviour;
        Kind expected;
        std::string logged;
    } rows[] = {
        {"empty name", {{"", std::string("x")}}, Behaviour::write, Kind::emptyItemName,
         saveItem + "Relative path is empty"},
        {"number", {{"n", Foundation::PropertyList(42)}}, Behaviour::write, Kind::invalidItemType,
         saveItem + "Unexpected value for save: 42"},
        {"missing file", {{"a.txt", temp_ / "missing"}}, Behaviour::write, Kind::other,
         saveItem + "Can't write/copy file to \"" + tmp.string()},
        {"escape", {{"../escape", std::string("x")}}, Behaviour::write, Kind::other, ""},
        {"saving logs throws", {}, Behaviour::fail, Kind::other,
         "E: (SupportUtils: createArchive(at:includeItems:for:startDate:showInFinder:completion:)) Error occurs when "
         "archiving logs: boom"},
        {"zip fails", {}, Behaviour::blockZip, Kind::compressLogFolder,
         "E: (SystemUtils: compressFolder(folderUrl:ext:onlyContents:)) Zipping util failed with code: "},
    };
    for (auto& row : rows) {
        SCOPED_TRACE(row.name);
        TestSupport::ScopedLogCapture log;
        fs::create_directories(destination.parent_path());
        TestSupport::writeFile(destination, "earlier");
        LogManager::setShared(std::make_shared<ArchiveManager>(row.behaviour));
        const auto error = archive(destination, row.items);
        ASSERT_TRUE(error);
        EXPECT_EQ(error->kind(), row.expected) << error->what();
        if (!row.logged.empty()) {
            EXPECT_EQ(linesStartingWith(log, row.logged), 1) << ::testing::PrintToString(log.recorder().lines());
        }
        expectNothingLeft();
    }

    // No temporary folder can be made: TMPDIR names a missing folder.
    ScopedEnvironment missing("TMPDIR", (temp_ / "missing").string());
    const auto error = archive(destination, {});
    ASSERT_TRUE(error);
    EXPECT_EQ(error->kind(), Kind::createTempFolderFailed);
    EXPECT_EQ(linesStartingWith(log_, "E: (SupportUtils: createArchiveFolderUrl(named:)) Failed to create temporary "
                                      "archive folder. "),
              1);
    EXPECT_EQ(TestSupport::readFile(destination), "earlier");
    EXPECT_FALSE(fs::exists(temp_ / "missing"));
}

}  // namespace
