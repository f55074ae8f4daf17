// Many writers on one log file while it rotates once: afterwards generation 1
// (the rotation's copy) and the active file together hold every record, each
// whole, none interleaved, none twice.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cinttypes>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <numeric>
#include <random>
#include <string>
#include <thread>
#include <vector>

#include "Support/TestSupport.h"
#include "Tovik/Logger/Handlers/FileLogHandler.h"

extern char** environ;

namespace Tovik {
namespace {

using Clock = std::chrono::system_clock;

constexpr int writerProcesses = 8, recordsPerProcess = 50000;
constexpr const char* writerVariable = "FILE_LOG_HANDLER_TEST_WRITER";  // "<process> <path>"

uint64_t checksum(std::string_view bytes) {  // FNV-1a
    uint64_t hash = 0xcbf29ce484222325ULL;
    for (unsigned char byte : bytes) hash = (hash ^ byte) * 0x100000001b3ULL;
    return hash;
}

// "W<writer> <sequence> <checksum> " in fixed columns, then a payload of a
// random letter repeated 1 B to 16 KiB times, log-uniform so that short and
// long records are equally common.
std::string recordText(std::mt19937_64& random, int writer, int sequence) {
    const size_t size = size_t(std::exp2(std::uniform_real_distribution<double>(0, 14)(random)));
    std::string text(28 + size, char('a' + random() % 26));
    char head[48];  // 28 used; room for any int the compiler cannot rule out
    std::snprintf(head, sizeof head, "W%02d %06d %016" PRIx64 " ", writer, sequence,
                  checksum(std::string_view(text).substr(28)));
    return text.replace(0, 28, head);
}

bool writeRecords(FileLogHandler& handler, int writer, int count) {
    const std::string rotated = FileLogHandler::rotatedFilePath(handler.filepath(), 1);
    std::mt19937_64 random(writer);
    for (int sequence = 0; sequence < count; ++sequence) {
        if (sequence == count * 65 / 100 &&
            !TestSupport::waitUntil([&] { return std::filesystem::exists(rotated); }, std::chrono::minutes(2))) {
            return false;
        }
        handler.log(LogLevel::info, Clock::now(), recordText(random, writer, sequence));
    }
    return true;
}

// What is wrong with the records of `writers` writers x `count` in the two files
// read in order, or "": each file starts with a record, each record is whole and
// each writer's records come once each, in the order written.
std::string checkRecords(const std::string& generation1, const std::string& active, int writers, int count) {
    std::vector<int> next(size_t(writers), 0);
    for (const std::string* contents : {&generation1, &active}) {
        if (!contents->empty() && contents->front() != FileLogHandler::RECORD_SEPARATOR) return "no record at offset 0";
        for (size_t start = 0, end; start < contents->size(); start = end) {
            end = std::min(contents->find(FileLogHandler::RECORD_SEPARATOR, start + 1), contents->size());
            const std::string_view record(contents->data() + start, end - start);
            const std::string where = " at offset " + std::to_string(start);
            const size_t text = record.find("[S] ");
            if (text == std::string_view::npos || !record.ends_with('\n')) return "torn record" + where;
            const std::string_view body = record.substr(text + 4, record.size() - text - 5);
            if (body.starts_with("I: (FileLogHandler) ")) continue;  // the rotating handler's reports
            int writer = -1, sequence = -1;
            uint64_t sum = 0;
            const std::string head(body.substr(0, 28));
            if (std::sscanf(head.c_str(), "W%2d %6d %16" SCNx64, &writer, &sequence, &sum) != 3 || body.size() < 29 ||
                writer < 0 || writer >= writers || checksum(body.substr(28)) != sum) {
                return "interleaved record" + where;
            }
            const std::string name = "writer " + std::to_string(writer) + ": record ";
            if (sequence < next[writer]) return name + std::to_string(sequence) + " duplicated";
            if (sequence > next[writer]) return name + std::to_string(next[writer]) + " missing";
            ++next[writer];
        }
    }
    for (int writer = 0; writer < writers; ++writer) {
        if (next[writer] != count) return "writer " + std::to_string(writer) + ": last record missing";
    }
    return "";
}

std::string readWhole(const std::string& path) {  // hundreds of MiB: read at once, not grown
    std::string contents(std::filesystem::file_size(path), '\0');
    std::ifstream(path, std::ios::binary).read(contents.data(), std::streamsize(contents.size()));
    return contents;
}

// A writer process is this test program started again with the variable set:
// before any test runs, it writes its records from two threads sharing one
// handler (writers 2p and 2p + 1) and exits.
class WriterProcess : public ::testing::Environment {
public:
    void SetUp() override {
        std::string_view job = std::getenv(writerVariable);
        const int process = std::atoi(job.data());
        bool written[2] = {};
        {
            FileLogHandler handler("S", std::string(job.substr(job.find(' ') + 1)), true, {.firstCheckDelay = 3600});
            std::thread second([&] { written[1] = writeRecords(handler, 2 * process + 1, recordsPerProcess / 2); });
            written[0] = writeRecords(handler, 2 * process, recordsPerProcess / 2);
            second.join();
        }
        std::_Exit(written[0] && written[1] ? 0 : 2);
    }
};
[[maybe_unused]] const auto* writerProcess =
    std::getenv(writerVariable) ? ::testing::AddGlobalTestEnvironment(new WriterProcess) : nullptr;

pid_t startWriter(int process, const std::string& path) {
    std::string job = std::string(writerVariable) + "=" + std::to_string(process) + " " + path;
    std::vector<char*> environment{job.data()};
    for (char** variable = environ; *variable != nullptr; ++variable) environment.push_back(*variable);
    environment.push_back(nullptr);
    char program[] = "/proc/self/exe";
    char* argv[] = {program, nullptr};
    posix_spawn_file_actions_t actions;
    ::posix_spawn_file_actions_init(&actions);
    ::posix_spawn_file_actions_addopen(&actions, STDOUT_FILENO, "/dev/null", O_WRONLY, 0);  // gtest's banner
    pid_t pid = -1;
    EXPECT_EQ(::posix_spawn(&pid, program, &actions, nullptr, argv, environment.data()), 0);
    ::posix_spawn_file_actions_destroy(&actions);
    return pid;
}

TEST(FileLogHandlerConcurrency, CheckerFindsDroppedDuplicatedAndTornRecords) {
    std::mt19937_64 random(0);
    std::vector<std::string> records;
    for (int i = 0; i < 12; ++i) {  // writers 0 and 1 take turns
        records.push_back(FileLogHandler::formatRecord("S", Clock::now(), 1, 1, recordText(random, i % 2, i / 2),
                                                       true));
    }
    auto check = [](const std::vector<std::string>& file) {
        return checkRecords(std::accumulate(file.begin(), file.end(), std::string()), "", 2, 6);
    };
    EXPECT_EQ(check(records), "");
    auto dropped = records;
    dropped.erase(dropped.begin() + 5);
    EXPECT_EQ(check(dropped), "writer 1: record 2 missing");
    auto duplicated = records;
    duplicated.insert(duplicated.begin() + 7, records[4]);
    EXPECT_EQ(check(duplicated), "writer 0: record 2 duplicated");
    auto torn = records;
    torn[3].resize(torn[3].size() / 2);
    const size_t offset = records[0].size() + records[1].size() + records[2].size();
    EXPECT_EQ(check(torn), "torn record at offset " + std::to_string(offset));
    auto interleaved = records;
    interleaved[3].insert(interleaved[3].end() - 1, 'x');  // a foreign byte inside a whole record
    EXPECT_EQ(check(interleaved), "interleaved record at offset " + std::to_string(offset));
}

TEST(FileLogHandlerConcurrency, ProcessesAndThreadsShareOneFileWhileItRotates) {
    TestSupport::TemporaryDirectory folder("filelog");
    const std::string path = (folder / "shared.log").string();
    {
        // This process only rotates (its reports are the records the checker skips): it checks every 5 ms and
        // rotates past 55 % of the bytes written (a payload averages 16383 / ln 16384 B). Writers pause at 65 %
        // of their records until the rotation has happened, so it happens exactly once, while they write.
        const double recordSize = 16383 / std::log(16384.0) + 28 + FileLogHandler::headerLength() + 5;
        const auto maxSize = int64_t(writerProcesses * recordsPerProcess * recordSize * 0.55);
        FileLogHandler rotator("S", path, true, {.firstCheckDelay = 0.005, .checkInterval = 0.005, .maxSize = maxSize});
        std::vector<pid_t> writers;
        for (int process = 0; process < writerProcesses; ++process) writers.push_back(startWriter(process, path));
        for (pid_t pid : writers) {
            int status = 0;
            ASSERT_EQ(::waitpid(pid, &status, 0), pid);
            EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0) << "status " << status;
        }
    }
    EXPECT_EQ(checkRecords(readWhole(FileLogHandler::rotatedFilePath(path, 1)), readWhole(path), 2 * writerProcesses,
                           recordsPerProcess / 2),
              "");
}

}  // namespace
}  // namespace Tovik
