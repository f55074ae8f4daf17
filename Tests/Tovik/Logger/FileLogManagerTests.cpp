#include "Tovik/Logger/FileLogManager.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <array>
#include <atomic>
#include <chrono>
#include <cstdlib>
#include <map>
#include <memory>
#include <thread>

#include "Support/LogCapture.h"
#include "Support/TestSupport.h"
#include "Tovik/Logger/Handlers/FileLogHandler.h"

namespace Tovik {
namespace {

namespace fs = std::filesystem;
using namespace std::chrono_literals;
using Clock = std::chrono::system_clock;
using Files = std::map<std::string, std::string>;  // file name -> contents

constexpr char RS = FileLogHandler::RECORD_SEPARATOR;
// Mid-March, a day without a clock change in any zone that has them.
const Date base = Clock::from_time_t(1710936000);

Date at(int second) { return base + std::chrono::seconds(second) + 250ms; }

std::string record(const std::string& subsystem, int second, const std::string& text, int processId = 812) {
    return FileLogHandler::formatRecord(subsystem, at(second), processId, 0x1a03, text, true);
}

Files filesOf(const std::vector<std::string>& paths) {
    Files files;
    for (const auto& path : paths) files[fs::path(path).filename().string()] = TestSupport::readFile(path);
    return files;
}

// What is wrong with `bytes` as records of a Writer (below), or "": each
// record whole, their numbers consecutive.
std::string checkWriterRecords(const std::string& bytes) {
    if (!bytes.empty() && bytes.front() != RS) return "no record at offset 0";
    long previous = -1;
    for (size_t start = 0, end; start < bytes.size(); start = end) {
        end = std::min(bytes.find(RS, start + 1), bytes.size());
        const std::string_view record(bytes.data() + start, end - start);
        long number = -1, length = -1;
        const size_t text = record.find("[W] ");
        if (text != std::string_view::npos && record.substr(text + 5, 3) == ": (") continue;  // a report
        if (FileLogManager::getSubsystemNameData(record, {0, int64_t(record.size())}) != "W" ||
            text == std::string_view::npos ||
            std::sscanf(std::string(record.substr(text + 4, 40)).c_str(), "W %ld %ld ", &number, &length) != 2 ||
            !record.ends_with(std::string(size_t(std::max(length, 0L)), char('a' + number % 26)) + "\n")) {
            return "torn record at offset " + std::to_string(start);
        }
        if (previous >= 0 && number != previous + 1) {
            return "record " + std::to_string(number) + " follows " + std::to_string(previous);
        }
        previous = number;
    }
    return "";
}

// Appends numbered records of 100 B to 16 KiB through a real handler on its
// own thread until it goes away.
class Writer {
public:
    Writer(const fs::path& path, FileLogHandler::Options options)
        : handler(std::make_shared<FileLogHandler>("W", path.string(), true, options)), thread_([this] {
              for (long number = 0; !stop_; ++number) {
                  const long length = 100 + number * 7919 % 16000;
                  handler->log(LogLevel::info, Clock::now(),
                               "W " + std::to_string(number) + " " + std::to_string(length) + " " +
                                   std::string(size_t(length), char('a' + number % 26)));
                  written = number + 1;
              }
          }) {}
    ~Writer() { stop(); }
    void stop() {
        stop_ = true;
        if (thread_.joinable()) thread_.join();
    }

    const std::shared_ptr<FileLogHandler> handler;
    std::atomic<long> written{0};

private:
    std::atomic<bool> stop_{false};
    std::thread thread_;
};

class FileLogManagerTest : public ::testing::Test {
protected:
    fs::path freshFolder(const std::string& name) {
        fs::create_directory(dir / name);
        return dir / name;
    }
    // Every file of the folder: the save left nothing else behind.
    static Files folderContents(const fs::path& folder) {
        std::vector<std::string> paths;
        for (const auto& entry : fs::directory_iterator(folder)) paths.push_back(entry.path().string());
        return filesOf(paths);
    }

    TestSupport::TemporaryDirectory dir;
    const fs::path live = dir / "app.log";
    const fs::path rotated = FileLogHandler::rotatedFilePath(live.string(), 1);
    FileLogManager manager{live.string()};
};

TEST_F(FileLogManagerTest, WholeLogKeepsTheNewestRecordsWithinTheBudget) {
    std::vector<std::string> old, recent;
    for (int i = 0; i < 5; ++i) old.push_back(record("A", i, "I: (X) old " + std::to_string(i)));
    for (int i = 5; i < 10; ++i) recent.push_back(record("A", i, "I: (X) recent " + std::to_string(i)));
    auto join = [](const std::vector<std::string>& records, size_t from) {
        std::string bytes;
        for (size_t i = from; i < records.size(); ++i) bytes += records[i];
        return bytes;
    };
    const std::string R = join(old, 0), L = join(recent, 0),
                      oneRecord = record("A", 1, "I: (X) " + std::string(200, 'z'));
    const int64_t lastTwoOld = int64_t(join(old, 3).size());
    struct Case {
        const char* name;
        std::optional<std::string> rotated;
        std::string live;
        std::optional<int64_t> budget;
        std::string expected;
    } cases[] = {
        {"no budget", R, L, std::nullopt, R + L},
        {"budget larger than both", R, L, 1 << 20, R + L},
        {"cut at a record boundary", R, L, int64_t(L.size()) + lastTwoOld, join(old, 3) + L},
        {"cut inside a record", R, L, int64_t(L.size()) + lastTwoOld + 5, join(old, 3) + L},
        {"live larger than the budget", R, L, int64_t(L.size()) - 3, join(recent, 1)},
        {"no rotated generation", std::nullopt, L, std::nullopt, L},
        {"span without a separator", std::nullopt, oneRecord, 50, oneRecord.substr(oneRecord.size() - 50)},
        {"empty log", std::nullopt, "", 100, ""},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.name);
        fs::remove(rotated);
        if (c.rotated) TestSupport::writeFile(rotated, *c.rotated);
        TestSupport::writeFile(live, c.live);
        const fs::path out = freshFolder(c.name);
        EXPECT_EQ(manager.saveLogs(LogSubsystemSelector::whole(), out,
                                   LogSavingOpts::init(std::nullopt, std::nullopt, c.budget)),
                  std::vector<std::string>{(out / "app.log").string()});
        EXPECT_EQ(folderContents(out), (Files{{"app.log", c.expected}}));
    }
}

TEST_F(FileLogManagerTest, SelectorsTakeTheRecordsOfThePeriodFromBothGenerations) {
    // Seconds 0-9 in generation 1, 10-19 in the live file; subsystems A, B, C in turn.
    std::string generation1, liveRecords;
    std::vector<std::pair<std::string, std::string>> records;  // subsystem, bytes
    for (int second = 0; second < 20; ++second) {
        const std::string subsystem(1, char('A' + second % 3));
        records.emplace_back(subsystem, record(subsystem, second, "I: (X) at " + std::to_string(second)));
        (second < 10 ? generation1 : liveRecords) += records.back().second;
    }
    TestSupport::writeFile(rotated, generation1);
    TestSupport::writeFile(live, liveRecords);
    // Seconds first..last of the subsystems named in `of` ("" for all).
    auto period = [&](int first, int last, const std::string& of = "") {
        std::string bytes;
        for (int second = first; second <= last; ++second) {
            if (of.empty() || of.find(records[second].first) != std::string::npos) bytes += records[second].second;
        }
        return bytes;
    };
    const auto fiveToFourteen = LogSavingOpts::init(at(5), at(14));  // widened: seconds 4-15
    const std::string lastTwoB = records[10].second + records[13].second;
    struct Case {
        const char* name;
        LogSubsystemSelector selector;
        LogSavingOpts opts;
        Files expected;
    } cases[] = {
        {"whole", LogSubsystemSelector::whole(), fiveToFourteen, {{"app.log", period(4, 15)}}},
        {"whole up to an end",
         LogSubsystemSelector::whole(),
         LogSavingOpts::init(std::nullopt, at(5)),
         {{"app.log", period(0, 6)}}},
        {"single", LogSubsystemSelector::single({"A", "C"}), fiveToFourteen, {{"app.log", period(4, 15, "AC")}}},
        {"some", LogSubsystemSelector::some({"A"}), fiveToFourteen, {{"A.log", period(4, 15, "A")}}},
        {"all",
         LogSubsystemSelector::all(),
         fiveToFourteen,
         {{"A.log", period(4, 15, "A")}, {"B.log", period(4, 15, "B")}, {"C.log", period(4, 15, "C")}}},
        {"all, each file cut to the budget",
         LogSubsystemSelector::all(),
         LogSavingOpts::init(at(5), at(14), int64_t(lastTwoB.size()) + 3),
         {{"A.log", period(10, 15, "A")}, {"B.log", lastTwoB}, {"C.log", period(10, 15, "C")}}},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.name);
        const fs::path out = freshFolder(c.name);
        EXPECT_EQ(filesOf(manager.saveLogs(c.selector, out, c.opts)), c.expected);
        EXPECT_EQ(folderContents(out), c.expected);
    }
}

// Run again in processes of other id widths (below): the subsystem is read
// from each record's own header, whatever the width of its process column.
constexpr const char* processIdVariable = "FILE_LOG_MANAGER_TEST_PROCESS_ID";

TEST_F(FileLogManagerTest, SubsystemsOfProcessesOfAnyIdWidth) {
    std::string bytes;
    Files expected;
    for (int second = 0; second < 12; ++second) {
        const int processId = std::array{123, 12345, 123456, 1234567}[second % 4];
        const std::string subsystem = "P" + std::to_string(processId);
        const std::string one = record(subsystem, second, "I: (X) from " + std::to_string(processId), processId);
        bytes += one;
        expected[subsystem + ".log"] += one;
    }
    TestSupport::writeFile(live, bytes);
    EXPECT_EQ(
        filesOf(manager.saveLogs(LogSubsystemSelector::all(), freshFolder("out"), LogSavingOpts::init(at(0), at(11)))),
        expected);

    if (const char* wanted = std::getenv(processIdVariable)) {
        EXPECT_EQ(std::to_string(::getpid()), wanted);
        return;
    }
    if (::geteuid() != 0) GTEST_SKIP() << "needs root for a process id namespace";
    const auto* test = ::testing::UnitTest::GetInstance()->current_test_info();
    const std::string self = fs::read_symlink("/proc/self/exe").string();
    for (int processId : {100, 123456, 1234567}) {
        SCOPED_TRACE(processId);
        // In a new process id namespace the next process gets the id after
        // ns_last_pid; the last command keeps the shell from exec'ing it.
        const std::string command = "unshare --pid --fork --mount-proc sh -c 'echo " + std::to_string(processId - 1) +
                                    " > /proc/sys/kernel/ns_last_pid && env -u GTEST_OUTPUT " + processIdVariable +
                                    "=" + std::to_string(processId) + " " + self +
                                    " --gtest_filter=" + test->test_suite_name() + "." + test->name() +
                                    "; exit $?' > " + (dir / "child.txt").string() + " 2>&1";
        const int status = std::system(command.c_str());
        const std::string output = TestSupport::readFile(dir / "child.txt");
        EXPECT_TRUE(status == 0 && output.find("[  PASSED  ] 1 test.") != std::string::npos)
            << "wait status " << status << ":\n"
            << output;
    }
}

TEST_F(FileLogManagerTest, PeriodsInLargeFilesReadOnlyTheBlocksTheSearchNeeds) {
    // About 32 MiB per generation: records of 3-5 KiB, one a second, A and B in turn.
    constexpr int perFile = 8192;
    std::string generation1, liveRecords;
    std::vector<std::pair<size_t, size_t>> where;  // each record's file (0: generation 1) and offset
    for (int second = 0; second < 2 * perFile; ++second) {
        std::string& file = second < perFile ? generation1 : liveRecords;
        where.emplace_back(second < perFile ? 0 : 1, file.size());
        file += record(second % 2 ? "B" : "A", second,
                       "I: (X) " + std::string(size_t(3000 + second * 37 % 2000), char('a' + second % 26)));
    }
    TestSupport::writeFile(rotated, generation1);
    TestSupport::writeFile(live, liveRecords);
    auto recordAt = [&](int second) {
        const std::string& file = where[second].first == 0 ? generation1 : liveRecords;
        const size_t end = size_t(second + 1) < where.size() && where[second + 1].first == where[second].first
                               ? where[second + 1].second
                               : file.size();
        return std::string_view(file).substr(where[second].second, end - where[second].second);
    };
    const int64_t total = int64_t(generation1.size() + liveRecords.size());

    for (const auto& [first, last] : {std::pair{perFile - 100, perFile + 100}, {perFile + 2000, perFile + 2800}}) {
        SCOPED_TRACE(first);
        Files expected;
        int64_t periodBytes = 0;
        for (int second = first - 1; second <= last + 1; ++second) {
            expected[second % 2 ? "B.log" : "A.log"] += recordAt(second);
            periodBytes += int64_t(recordAt(second).size());
        }
        const int64_t before = manager.bytesRead();
        EXPECT_EQ(filesOf(manager.saveLogs(LogSubsystemSelector::all(), freshFolder(std::to_string(first)),
                                           LogSavingOpts::init(at(first), at(last)))),
                  expected);
        // The period copied and read, small probes and one block per bound and generation.
        const int64_t read = manager.bytesRead() - before;
        EXPECT_LT(read, 2 * periodBytes + 4 * int64_t(LogManagerProtocol::DEFAULT_READ_BUFSIZE) + (1 << 20)) << total;
    }
}

TEST_F(FileLogManagerTest, ForeignBytesAreReportedAndSkipped) {
    TestSupport::writeFile(rotated, "no record separator in here\n");
    const std::string a = record("A", 1, "I: (X) one"), b = record("B", 4, "I: (X) four");
    const std::string noDate = record("A", 2, "I: (X) two").replace(5, 5, "?????");
    const std::string named = record("A", 3, "I: (X) three");
    const std::string unclosed = named.substr(0, named.find(']')) + " the name never ends\n";
    const std::string cut = record("A", 5, "I: (X) five").substr(0, 12);
    TestSupport::writeFile(live, "garbage before" + a + noDate + unclosed + b + cut);
    TestSupport::ScopedLogCapture capture;

    EXPECT_EQ(
        filesOf(manager.saveLogs(LogSubsystemSelector::all(), freshFolder("out"), LogSavingOpts::init(at(0), at(9)))),
        (Files{{"A.log", a}, {"B.log", b}}));
    std::vector<std::string> expected;
    size_t offset = std::string_view("garbage before").size() + a.size();
    for (const std::string* skipped : {&noDate, &unclosed, &b, &cut}) {
        if (skipped != &b) {
            expected.push_back(
                "D: (FileLogManager: doSaveLogs(_:selecting:in:opts:)) SKIP unrecognized subsystem in range " +
                std::to_string(offset) + "..<" + std::to_string(offset + skipped->size()));
        }
        offset += skipped->size();
    }
    auto lines = capture.recorder().lines();
    const std::string noDateFound = "E: (FileLogManager: doSaveLogs(_:selecting:in:opts:)) No Date found in ";
    ASSERT_EQ(lines.size(), 4u);
    EXPECT_TRUE(lines[0].starts_with(noDateFound) && lines[0].ends_with("/app.1.log")) << lines[0];
    EXPECT_EQ(std::vector(lines.begin() + 1, lines.end()), expected);
}

TEST_F(FileLogManagerTest, SavesDuringAppendsAndRotationsHoldWholeConsecutiveRecords) {
    // Rotations every 10 ms at 1 MiB: the two clones must come from one moment.
    Writer writer(live, {.firstCheckDelay = 0.01, .checkInterval = 0.01, .maxSize = 1 << 20});
    ASSERT_TRUE(TestSupport::waitUntil([&] { return fs::exists(rotated) && writer.written > 100; }));
    for (int round = 0; round < 20; ++round) {
        SCOPED_TRACE(round);
        const fs::path out = freshFolder(std::to_string(round));
        for (const auto& opts : {LogSavingOpts::init(), LogSavingOpts::init(base, std::nullopt, 256 << 10)}) {
            const auto paths = manager.saveLogs(LogSubsystemSelector::whole(), out, opts);
            ASSERT_EQ(paths.size(), 1u);
            const std::string bytes = TestSupport::readFile(paths[0]);
            EXPECT_GT(bytes.size(), 0u);
            EXPECT_EQ(checkWriterRecords(bytes), "");
        }
    }
}

TEST_F(FileLogManagerTest, ResetEmptiesTheLogAndReportsOnlyAfterUnlocking) {
    TestSupport::writeFile(live, record("A", 1, "I: (X) live"));
    TestSupport::writeFile(rotated, record("A", 0, "I: (X) old"));
    manager.resetLog();
    EXPECT_FALSE(fs::exists(rotated));
    EXPECT_EQ(fs::file_size(live), 0u);

    // A generation 1 that cannot be unlinked, and this process logging into
    // the very file being reset while another thread appends to it.
    fs::create_directory(rotated);
    Writer writer(live, {.firstCheckDelay = 3600});
    const auto previousHandlers = Logger::shared().handlers();
    Logger::shared().setHandlers({writer.handler});
    ASSERT_TRUE(TestSupport::waitUntil([&] { return writer.written > 100; }));
    std::atomic<bool> reset{false};
    std::thread resetting([&] {
        manager.resetLog();
        reset = true;
    });
    if (!TestSupport::waitUntil([&] { return reset.load(); })) {
        ADD_FAILURE() << "resetLog() never returned";
        std::_Exit(1);  // the thread holds the file lock for good
    }
    resetting.join();
    const long afterReset = writer.written;
    ASSERT_TRUE(TestSupport::waitUntil([&] { return writer.written > afterReset + 100; }));
    Logger::shared().setHandlers(previousHandlers);
    writer.stop();

    const std::string bytes = TestSupport::readFile(live);
    EXPECT_EQ(checkWriterRecords(bytes), "");
    EXPECT_NE(bytes.find("] E: (FileLogManager: resetLog()) unlink (" + rotated.string() + "). Is a directory: 21\n"),
              std::string::npos);
    // Only records from about the reset on are left.
    long first = -1;
    EXPECT_EQ(std::sscanf(bytes.substr(bytes.find("[W] W ") + 4, 40).c_str(), "W %ld", &first), 1);
    EXPECT_GE(first, 100);
}

}  // namespace
}  // namespace Tovik
