#include "Tovik/Logger/Handlers/FileLogHandler.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <sys/xattr.h>
#include <unistd.h>

#include <ctime>
#include <filesystem>
#include <system_error>

#include "FileSystem/CreationTime.h"
#include "Platform/OSLog/JournalCapture.h"
#include "Support/TestSupport.h"

namespace Tovik {
namespace {

using namespace std::chrono_literals;
using Clock = std::chrono::system_clock;
using TestSupport::readFile;
using TestSupport::waitUntil;
namespace fs = std::filesystem;

constexpr int64_t MiB = 1024 * 1024;

Date localDate(int year, int month, int day, int hour, int minute, int second, int millis) {
    std::tm fields{};
    fields.tm_year = year - 1900;
    fields.tm_mon = month - 1;
    fields.tm_mday = day;
    fields.tm_hour = hour;
    fields.tm_min = minute;
    fields.tm_sec = second;
    fields.tm_isdst = -1;
    return Clock::from_time_t(std::mktime(&fields)) + std::chrono::milliseconds(millis);
}

// No rotation check during a test unless it asks for one.
FileLogHandler::Options noChecks() { return {.firstCheckDelay = 3600}; }
FileLogHandler::Options checkNow() { return {.firstCheckDelay = 0}; }

// The record a handler report reads with: "<header>[S] " + text + "\n".
std::string reportText(const std::string& contents, size_t record) {
    size_t start = 0;
    for (size_t i = 0; i <= record; ++i) {
        start = contents.find(FileLogHandler::RECORD_SEPARATOR, start + (i > 0));
        if (start == std::string::npos) return {};
    }
    size_t text = contents.find("[S] ", start);
    size_t end = contents.find('\n', text);
    return text == std::string::npos || end == std::string::npos ? "" : contents.substr(text + 4, end - text - 4);
}

// The bytes of a file from an offset on ("" when absent).
std::string readFrom(const std::string& path, int64_t offset) {
    std::string bytes;
    int fd = ::open(path.c_str(), O_RDONLY);
    char chunk[65536];
    for (ssize_t got; fd >= 0 && (got = ::pread(fd, chunk, sizeof chunk, offset)) > 0; offset += got) {
        bytes.append(chunk, static_cast<size_t>(got));
    }
    if (fd >= 0) ::close(fd);
    return bytes;
}

// A file that starts with a complete record (the handler's, after rotation).
bool startsWithRecord(const std::string& contents) {
    return contents.starts_with(FileLogHandler::RECORD_SEPARATOR) && contents.ends_with('\n');
}

class FileLogHandlerTest : public ::testing::Test {
protected:
    TestSupport::TemporaryDirectory folder_{"filelog"};
    std::string path_ = (folder_ / "Velmora VPN-shared.log").string();
    std::string rotated_ = (folder_ / "Velmora VPN-shared.1.log").string();
};

TEST(FileLogHandlerFormat, RecordLayoutIsByteExact) {
    const Date date = localDate(2024, 1, 2, 9, 5, 3, 7);
    EXPECT_EQ(FileLogHandler::formatRecord("S", date, 812, 0x1a03, "I: (X) hello", true),
              "\x1e" "2024-01-02 09:05:03.007   812:1a03     [S] I: (X) hello\n");
    EXPECT_EQ(FileLogHandler::formatRecord("S", date, 812, 0x1a03, "I: (X) hello", false), "I: (X) hello\n");
    EXPECT_EQ(FileLogHandler::formatRecord("S", date, 812, 0x1a03, "", true), "");
    // Milliseconds are cut, not rounded; wide ids widen the columns.
    EXPECT_EQ(FileLogHandler::headerPrefix(localDate(2024, 12, 31, 23, 59, 59, 0) + 999900us, 4194304, 0xa2b3c4d5),
              "\x1e" "2024-12-31 23:59:59.999 4194304:a2b3c4d5 ");
    // A separator inside a text cannot start a record; line feeds stay.
    EXPECT_EQ(FileLogHandler::formatRecord("S", date, 1, 1, "a\x1e" "b\nc", false), "a\xE2\x90\x9E" "b\nc\n");

    const Date now = Clock::now();
    EXPECT_EQ(FileLogHandler::msgPrefix("S", now), FileLogHandler::headerPrefix(now) + "[S] ");
    EXPECT_EQ(FileLogHandler::headerLength(), FileLogHandler::headerPrefix(now).size());
    EXPECT_EQ(FileLogHandler::msgPrefix("Sub", now).substr(FileLogHandler::subsystemOffset(), 4), "Sub]");
}

TEST(FileLogHandlerFormat, HelpersForFilesAndErrors) {
    EXPECT_EQ(FileLogHandler::rotatedFilePath("/L/Velmora VPN-shared.log", 1), "/L/Velmora VPN-shared.1.log");
    EXPECT_EQ(FileLogHandler::rotatedFilePath("/L/a.b.log", 2), "/L/a.b.2.log");
    EXPECT_EQ(FileLogHandler::rotatedFilePath("/L/a.log", 0), "/L/a.log");
    EXPECT_EQ(FileLogHandler::errorNumberText(EACCES), "Permission denied: 13");
    EXPECT_EQ(FileLogHandler::errorNumberText(9999), "Unknown error 9999");
}

TEST(FileLogHandlerFormat, StripsCredentialHeadersInAnyCase) {
    const std::pair<std::string, std::string> cases[] = {
        {"Authorization: Bearer abc", "Authorization: stripped"},
        {"cookie: x", "cookie: stripped"},
        {"Set-Cookie: a=b; Path=/", "Set-Cookie: stripped"},
        {"I: (X) SET-COOKIE: a\naUtHoRiZaTiOn: b\nHost: h", "I: (X) SET-COOKIE: stripped\naUtHoRiZaTiOn: stripped\nHost: h"},
        {"X-Authorization: t cookie: u", "X-Authorization: stripped"},
        {"cookie:x, Cookies: y, cookie: \n, authorization", "cookie:x, Cookies: y, cookie: \n, authorization"},
        {"no credentials: here", "no credentials: here"},
    };
    for (const auto& [text, expected] : cases) {
        std::string out = "<";
        FileLogHandler::stripCredentials(text, out);
        EXPECT_EQ(out, "<" + expected) << text;
    }
}

TEST_F(FileLogHandlerTest, WritesRecordsAsFormattedForThisProcessAndThread) {
    FileLogHandler handler("S", path_, true, noChecks());
    const Date date = Clock::now();
    handler.log(LogLevel::info, date, "");
    handler.log(LogLevel::info, date, "I: (X) Authorization: Bearer abc");
    handler.log(LogLevel::info, date, false, "plain\x1e");
    EXPECT_EQ(readFile(path_), FileLogHandler::formatRecord("S", date, getpid(), static_cast<uint32_t>(gettid()),
                                                            "I: (X) Authorization: stripped", true) +
                                   "plain\xE2\x90\x9E\n");
}

// Sparse files of the exact sizes, last modified `age` ago, checked once with
// the production thresholds.
TEST_F(FileLogHandlerTest, RotatesAtFiftyMiBOrAtTwoMiBAfterFortyEightHours) {
    struct Case {
        int64_t size;
        std::chrono::seconds age;
        std::string report;  // empty: not rotated
    };
    const Case cases[] = {
        {3 * MiB, 47h, ""},
        {3 * MiB, 48h, "File too old. It needs to be rotated."},
        {2 * MiB, 48h, "File too old. It needs to be rotated."},
        {2 * MiB - 1, 48h, ""},
        {MiB * 19 / 10, 1000h, ""},
        {50 * MiB - 1, 0h, ""},
        {50 * MiB, 0h, "Log file size is 52428800 bytes, which is more than 52428800. It needs to be rotated."},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(std::to_string(c.size) + " bytes, " + std::to_string(c.age.count()) + " s old");
        fs::remove(rotated_);
        fs::remove(path_);
        {
            int fd = ::open(path_.c_str(), O_WRONLY | O_CREAT, 0644);
            ASSERT_EQ(::ftruncate(fd, c.size), 0);
            const timespec times[2] = {{0, UTIME_OMIT}, {Clock::to_time_t(Clock::now() - c.age), 0}};
            ASSERT_EQ(::futimens(fd, times), 0);
            ::close(fd);
        }
        FileLogHandler handler("S", path_, true, checkNow());
        if (c.report.empty()) {
            ASSERT_TRUE(waitUntil([&] { return readFrom(path_, c.size).ends_with('\n'); }));
            EXPECT_EQ(reportText(readFrom(path_, c.size), 0),
                      "I: (FileLogHandler) No need rotating the log file. File size is " + std::to_string(c.size) +
                          " bytes.");
            EXPECT_FALSE(fs::exists(rotated_));
        } else {
            ASSERT_TRUE(waitUntil([&] { return startsWithRecord(readFile(path_)); }));
            EXPECT_EQ(reportText(readFile(path_), 0), "I: (FileLogHandler) Log file has been rotated");
            EXPECT_EQ(reportText(readFrom(rotated_, c.size), 0), "I: (FileLogHandler) " + c.report);
        }
    }
}

TEST_F(FileLogHandlerTest, RotationKeepsOneGenerationAndStartsTheFileAtOffsetZero) {
    TestSupport::writeFile(rotated_, "previous generation\n");
    TestSupport::writeFile(path_, "old records\n");
    const Date started = Clock::now();
    auto options = checkNow();
    options.maxSize = 10;
    FileLogHandler handler("S", path_, true, options);
    ASSERT_TRUE(waitUntil([&] { return startsWithRecord(readFile(path_)); }));
    handler.log(LogLevel::info, Clock::now(), "I: (X) next");

    const std::string active = readFile(path_);
    EXPECT_EQ(reportText(active, 0), "I: (FileLogHandler) Log file has been rotated");
    EXPECT_EQ(reportText(active, 1), "I: (X) next");
    const std::string old = readFile(rotated_);
    EXPECT_EQ(old.rfind("old records\n", 0), 0u);
    EXPECT_EQ(reportText(old, 0), "I: (FileLogHandler) Log file size is 12 bytes, which is more than 10. "
                                  "It needs to be rotated.");
    EXPECT_EQ(old.find("previous generation"), std::string::npos);

    // The creation time restarts where the file system can record it.
    int fd = ::open(path_.c_str(), O_RDONLY);
    char value[64];
    if (::fgetxattr(fd, "user.creation_time", value, sizeof value) >= 0) {
        auto created = FileSystem::creationTime(fd);
        ASSERT_TRUE(created.has_value());
        EXPECT_GE(*created, std::chrono::floor<std::chrono::seconds>(started));
    }
    ::close(fd);
}

TEST_F(FileLogHandlerTest, CloneReplacesTheDestinationAndKeepsModeTimesAndAttributes) {
    TestSupport::writeFile(path_, "contents");
    ASSERT_EQ(::chmod(path_.c_str(), 0640), 0);
    const timespec times[2] = {{1000000000, 5}, {1200000000, 7}};
    ASSERT_EQ(::utimensat(AT_FDCWD, path_.c_str(), times, 0), 0);
    const bool attributes = ::setxattr(path_.c_str(), "user.note", "n", 1, 0) == 0;
    TestSupport::writeFile(rotated_, "previous");
    const std::string link = (folder_ / "link").string();
    ASSERT_EQ(::link(rotated_.c_str(), link.c_str()), 0);

    FileLogHandler::clonefile(path_, rotated_);
    EXPECT_EQ(readFile(rotated_), "contents");
    EXPECT_EQ(readFile(link), "previous");  // unlinked first, never written through
    struct stat status {};
    ASSERT_EQ(::stat(rotated_.c_str(), &status), 0);
    EXPECT_EQ(status.st_mode & 0777, 0640u);
    EXPECT_EQ(status.st_mtim.tv_sec, 1200000000);
    EXPECT_EQ(status.st_mtim.tv_nsec, 7);
    char note[8] = {};
    if (attributes) {
        EXPECT_EQ(::getxattr(rotated_.c_str(), "user.note", note, sizeof note), 1);
    }

    try {
        FileLogHandler::clonefile(path_ + ".missing", rotated_);
        ADD_FAILURE() << "no error";
    } catch (const std::system_error& error) {
        EXPECT_EQ(error.code().value(), ENOENT);
        EXPECT_EQ(std::string(error.what()).rfind("clonefile(_:to:), copyfile (" + path_ + ".missing, " + rotated_ + ")", 0), 0u);
    }
}

TEST_F(FileLogHandlerTest, FailedCopyLeavesTheFileAsItWas) {
    TestSupport::writeFile(path_, "old records\n");
    fs::create_directory(rotated_);  // the generation name cannot be replaced
    auto options = checkNow();
    options.maxSize = 10;
    FileLogHandler handler("S", path_, true, options);
    ASSERT_TRUE(waitUntil([&] { return reportText(readFile(path_), 1) != ""; }));
    const std::string active = readFile(path_);
    EXPECT_EQ(active.rfind("old records\n", 0), 0u);
    EXPECT_EQ(reportText(active, 1), "E: (FileLogHandler: loggerLogLk(_:level:)) Failed to rotate file " + path_ +
                                         ": clonefile(_:to:), copyfile (" + path_ + ", " + rotated_ +
                                         "): Is a directory");
}

TEST_F(FileLogHandlerTest, ReopensAfterDeleteAndAfterRename) {
    TestSupport::JournalCapture journal;
    FileLogHandler handler("S", path_, true, noChecks());
    handler.log(LogLevel::info, Clock::now(), "I: (X) before");

    ASSERT_EQ(::unlink(path_.c_str()), 0);
    ASSERT_TRUE(waitUntil([&] { return reportText(readFile(path_), 0) != ""; }));
    EXPECT_EQ(reportText(readFile(path_), 0), "I: (FileLogHandler) Reopened the log file on removal");
    auto entry = journal.next();
    EXPECT_EQ(entry["MESSAGE"], "Reopened the log file on removal");
    EXPECT_EQ(entry["PRIORITY"], "5");
    EXPECT_EQ(entry["SUBSYSTEM"], "S");
    EXPECT_EQ(entry["CATEGORY"], "logger");

    const std::string moved = (folder_ / "moved.log").string();
    ASSERT_EQ(::rename(path_.c_str(), moved.c_str()), 0);
    ASSERT_TRUE(waitUntil([&] { return reportText(readFile(path_), 0) != ""; }));
    handler.log(LogLevel::info, Clock::now(), "I: (X) after");
    EXPECT_EQ(reportText(readFile(path_), 0), "I: (FileLogHandler) Reopened the log file on removal");
    EXPECT_EQ(reportText(readFile(path_), 1), "I: (X) after");
    EXPECT_EQ(readFile(moved).find("after"), std::string::npos);
}

TEST_F(FileLogHandlerTest, UnwritablePathDropsRecordsAndReportsBothOpens) {
    TestSupport::JournalCapture journal;
    TestSupport::writeFile(folder_ / "file", "");
    const std::string path = (folder_ / "file" / "x.log").string();
    FileLogHandler handler("S", path, true, noChecks());
    handler.log(LogLevel::error, Clock::now(), "E: (X) lost");
    for (int open = 0; open < 2; ++open) {
        auto entry = journal.next();
        EXPECT_EQ(entry["MESSAGE"], "Failed to open " + path + ": Not a directory: 20");
        EXPECT_EQ(entry["PRIORITY"], "3");
    }
    EXPECT_FALSE(journal.nextRaw(200ms).has_value());
}

}  // namespace
}  // namespace Tovik
