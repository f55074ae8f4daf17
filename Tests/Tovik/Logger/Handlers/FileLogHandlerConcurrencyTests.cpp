// Many writers on one log file while it rotates once: afterwards generation 1
// (the rotation's copy) and the active file together hold every record, each
// whole, none interleaved, none twice.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <charconv>
#include <cmath>
#include <cstdlib>
#include <map>
#include <string>
#include <thread>
#include <vector>

#include "Support/TestSupport.h"
#include "Tovik/Logger/Handlers/FileLogHandler.h"

extern char** environ;

namespace Tovik {
namespace {

using Clock = std::chrono::system_clock;

// Sanitized builds (CI, two cores) write a tenth of the records; the layout
// and the checks are the same.
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
constexpr int recordsPerWriter = 5000;
#else
constexpr int recordsPerWriter = 50000;
#endif
constexpr int writerProcesses = 8;
constexpr const char* writerVariable = "FILE_LOG_HANDLER_TEST_WRITER";  // "<writer> <path>"

uint64_t mix(uint64_t& state) {  // splitmix64
    uint64_t z = (state += 0x9e3779b97f4a7c15ULL);
    z = (z ^ (z >> 30)) * 0xbf58476d1ce4e5b9ULL;
    z = (z ^ (z >> 27)) * 0x94d049bb133111ebULL;
    return z ^ (z >> 31);
}

uint64_t checksum(std::string_view bytes) {  // FNV-1a
    uint64_t hash = 0xcbf29ce484222325ULL;
    for (unsigned char byte : bytes) hash = (hash ^ byte) * 0x100000001b3ULL;
    return hash;
}

// "W<writer> <sequence> <checksum> <payload>": payload of 1 B to 16 KiB,
// log-uniform so that short and long records are equally common.
std::string recordText(int writer, int sequence) {
    uint64_t state = (uint64_t(writer) << 32) | uint32_t(sequence);
    const double unit = double(mix(state) >> 11) / double(1ULL << 53);
    const size_t size = std::min<size_t>(16384, size_t(std::exp(unit * std::log(16384.0))));
    std::string payload(size, 'a');
    for (size_t i = 0; i < size; i += 12) {
        uint64_t random = mix(state);
        for (size_t j = i; j < std::min(size, i + 12); ++j, random /= 26) payload[j] = char('a' + random % 26);
    }
    return "W" + std::to_string(writer) + " " + std::to_string(sequence) + " " + std::to_string(checksum(payload)) +
           " " + payload;
}

// The bytes `writers` writers leave in the file.
int64_t expectedBytes(int writers, int count) {
    int64_t total = 0;
    for (int writer = 0; writer < writers; ++writer) {
        for (int sequence = 0; sequence < count; ++sequence) {
            total += int64_t(FileLogHandler::headerLength() + recordText(writer, sequence).size() + 5);
        }
    }
    return total;
}

// The rotating handler: checks every 5 ms and rotates past 55 % of the
// expected bytes. Writers pause at 65 % of their records until the rotation
// has happened, so it happens exactly once, while they write.
FileLogHandler::Options rotateOnce(int64_t total) {
    return {.firstCheckDelay = 0.005, .checkInterval = 0.005, .maxSize = total * 55 / 100};
}

bool writeRecords(FileLogHandler& handler, int writer, int count) {
    const std::string rotated = FileLogHandler::rotatedFilePath(handler.filepath(), 1);
    for (int sequence = 0; sequence < count; ++sequence) {
        if (sequence == count * 65 / 100 &&
            !TestSupport::waitUntil([&] { return std::filesystem::exists(rotated); }, std::chrono::seconds(120))) {
            return false;
        }
        handler.log(LogLevel::info, Clock::now(), recordText(writer, sequence));
    }
    return true;
}

// Adds the writers' sequence numbers found in one file, in file order.
// Returns what is wrong with the file, or "".
std::string collectRecords(const std::string& contents, std::map<int, std::vector<int>>& sequences) {
    if (!contents.empty() && contents[0] != FileLogHandler::RECORD_SEPARATOR) return "no record at offset 0";
    for (size_t start = 0; start < contents.size();) {
        size_t next = contents.find(FileLogHandler::RECORD_SEPARATOR, start + 1);
        if (next == std::string::npos) next = contents.size();
        const std::string_view record(contents.data() + start, next - start);
        const std::string where = " at offset " + std::to_string(start);
        start = next;
        const size_t text = record.find("[S] ");
        if (!record.ends_with('\n') || text == std::string_view::npos || record.size() < 46 || record[5] != '-' || record[20] != '.') {
            return "torn record" + where;
        }
        const std::string_view body = record.substr(text + 4, record.size() - text - 5);
        if (body.starts_with("I: (FileLogHandler) ")) continue;  // the rotating handler's reports
        int writer = -1, sequence = -1;
        uint64_t sum = 0;
        const char* cursor = body.data() + 1;
        const char* end = body.data() + body.size();
        auto w = std::from_chars(cursor, end, writer);
        auto s = std::from_chars(w.ptr + 1, end, sequence);
        auto c = std::from_chars(s.ptr + 1, end, sum);
        if (!body.starts_with('W') || w.ec != std::errc() || s.ec != std::errc() || c.ec != std::errc() ||
            c.ptr >= end || checksum(std::string_view(c.ptr + 1, size_t(end - c.ptr - 1))) != sum) {
            return "torn or interleaved record" + where;
        }
        sequences[writer].push_back(sequence);
    }
    return "";
}

// Each writer's records must all be there, once, in the order written.
std::string checkSequences(const std::map<int, std::vector<int>>& sequences, int writers, int count) {
    for (int writer = 0; writer < writers; ++writer) {
        auto found = sequences.find(writer);
        if (found == sequences.end()) return "writer " + std::to_string(writer) + ": no records";
        const std::vector<int>& list = found->second;
        if (list.front() != 0) return "writer " + std::to_string(writer) + ": first record missing";
        for (size_t i = 1; i < list.size(); ++i) {
            if (list[i] <= list[i - 1]) return "writer " + std::to_string(writer) + ": record " + std::to_string(list[i]) + " duplicated";
            if (list[i] != list[i - 1] + 1) return "writer " + std::to_string(writer) + ": record " + std::to_string(list[i - 1] + 1) + " missing";
        }
        if (list.back() != count - 1) return "writer " + std::to_string(writer) + ": last record missing";
    }
    return "";
}

std::string checkLogFiles(const std::string& path, int writers, int count) {
    std::map<int, std::vector<int>> sequences;
    std::string problem = collectRecords(TestSupport::readFile(FileLogHandler::rotatedFilePath(path, 1)), sequences);
    if (problem.empty()) problem = collectRecords(TestSupport::readFile(path), sequences);
    return problem.empty() ? checkSequences(sequences, writers, count) : problem;
}

// A writer process is this test program started again with the variable set:
// it writes its records before any test runs and exits.
class WriterProcess : public ::testing::Environment {
public:
    void SetUp() override {
        std::string_view job = std::getenv(writerVariable);
        const int writer = std::atoi(job.data());
        {
            FileLogHandler handler("S", std::string(job.substr(job.find(' ') + 1)), true, {.firstCheckDelay = 3600});
            if (!writeRecords(handler, writer, recordsPerWriter)) std::_Exit(2);
        }
        std::_Exit(0);
    }
};
[[maybe_unused]] const auto* writerProcess =
    std::getenv(writerVariable) ? ::testing::AddGlobalTestEnvironment(new WriterProcess) : nullptr;

pid_t startWriter(int writer, const std::string& path) {
    std::vector<std::string> environment{std::string(writerVariable) + "=" + std::to_string(writer) + " " + path};
    for (char** variable = environ; *variable != nullptr; ++variable) environment.emplace_back(*variable);
    std::vector<char*> envp;
    for (std::string& variable : environment) envp.push_back(variable.data());
    envp.push_back(nullptr);
    std::string program = "/proc/self/exe", filter = "--gtest_filter=FileLogHandlerConcurrency.*";
    char* argv[] = {program.data(), filter.data(), nullptr};
    posix_spawn_file_actions_t actions;
    ::posix_spawn_file_actions_init(&actions);
    ::posix_spawn_file_actions_addopen(&actions, STDOUT_FILENO, "/dev/null", O_WRONLY, 0);  // gtest's banner
    pid_t pid = -1;
    EXPECT_EQ(::posix_spawn(&pid, program.c_str(), &actions, nullptr, argv, envp.data()), 0);
    ::posix_spawn_file_actions_destroy(&actions);
    return pid;
}

TEST(FileLogHandlerConcurrency, CheckerFindsDroppedDuplicatedAndTornRecords) {
    std::vector<std::string> records;
    for (int sequence = 0; sequence < 6; ++sequence) {
        for (int writer = 0; writer < 2; ++writer) {
            records.push_back(FileLogHandler::formatRecord("S", Clock::now(), 1, 1, recordText(writer, sequence), true));
        }
    }
    auto check = [&](std::vector<std::string> file) {
        std::map<int, std::vector<int>> sequences;
        std::string all;
        for (const std::string& record : file) all += record;
        std::string problem = collectRecords(all, sequences);
        return problem.empty() ? checkSequences(sequences, 2, 6) : problem;
    };
    EXPECT_EQ(check(records), "");
    EXPECT_EQ(check({records.begin() + 2, records.end()}), "writer 0: first record missing");
    auto dropped = records;
    dropped.erase(dropped.begin() + 5);
    EXPECT_EQ(check(dropped), "writer 1: record 2 missing");
    auto duplicated = records;
    duplicated.insert(duplicated.begin() + 7, records[4]);
    EXPECT_EQ(check(duplicated), "writer 0: record 2 duplicated");
    auto torn = records;
    torn[3].resize(torn[3].size() / 2);
    EXPECT_EQ(check(torn).rfind("torn", 0), 0u);
    auto lastLost = records;
    lastLost.pop_back();
    EXPECT_EQ(check(lastLost), "writer 1: last record missing");
}

TEST(FileLogHandlerConcurrency, ThreadsShareOneHandlerWhileItRotates) {
    TestSupport::TemporaryDirectory folder("filelog");
    const std::string path = (folder / "shared.log").string();
    const int threads = 4, count = recordsPerWriter / 10;
    {
        FileLogHandler handler("S", path, true, rotateOnce(expectedBytes(threads, count)));
        std::vector<std::thread> writers;
        for (int writer = 0; writer < threads; ++writer) {
            writers.emplace_back([&handler, writer] { EXPECT_TRUE(writeRecords(handler, writer, count)); });
        }
        for (std::thread& writer : writers) writer.join();
    }
    EXPECT_EQ(checkLogFiles(path, threads, count), "");
}

TEST(FileLogHandlerConcurrency, ProcessesShareOneFileWhileItRotates) {
    TestSupport::TemporaryDirectory folder("filelog");
    const std::string path = (folder / "shared.log").string();
    {
        // This process only rotates; its reports are the records the checker skips.
        FileLogHandler rotator("S", path, true, rotateOnce(expectedBytes(writerProcesses, recordsPerWriter)));
        std::vector<pid_t> writers;
        for (int writer = 0; writer < writerProcesses; ++writer) writers.push_back(startWriter(writer, path));
        for (pid_t pid : writers) {
            int status = 0;
            ASSERT_EQ(::waitpid(pid, &status, 0), pid);
            EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0) << "status " << status;
        }
    }
    EXPECT_EQ(checkLogFiles(path, writerProcesses, recordsPerWriter), "");
}

}  // namespace
}  // namespace Tovik
