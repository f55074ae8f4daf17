#include "Tovik/Logger/Handlers/FileLogHandler.h"

#include <fcntl.h>
#include <gtest/gtest.h>

#include <random>
#include <sys/mount.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cctype>
#include <cstring>
#include <ctime>
#include <filesystem>
#include <fstream>
#include <set>
#include <vector>

#include "Kernel/FileDescriptor.h"
#include "Platform/OSLog/JournalCapture.h"
#include "Support/MountNamespace.h"
#include "Support/TestSupport.h"

namespace Tovik {
namespace {

using namespace std::chrono_literals;
using Clock = std::chrono::system_clock;
using TestSupport::readFile;
using TestSupport::waitUntil;
namespace fs = std::filesystem;

constexpr int64_t MiB = 1024 * 1024;
// No rotation check during a test unless it asks for one.
const FileLogHandler::Options noChecks{.firstCheckDelay = 3600};

Date localDate(const char* text) {
    std::tm fields{};
    ::strptime(text, "%Y-%m-%d %H:%M:%S", &fields);
    fields.tm_isdst = -1;
    return Clock::from_time_t(std::mktime(&fields));
}

// The texts after "[S] " of the records in a file from `offset` on, cut to 200
// bytes, and "torn" for a piece that is not one whole record of one line.
std::vector<std::string> recordTexts(const std::string& path, size_t offset = 0) {
    std::ifstream file(path, std::ios::binary);
    file.seekg(std::streamoff(offset));
    const std::string contents{std::istreambuf_iterator<char>(file), {}};
    std::vector<std::string> texts;
    for (size_t start = 0, end; start < contents.size(); start = end) {
        end = std::min(contents.find(FileLogHandler::RECORD_SEPARATOR, start + 1), contents.size());
        const std::string_view record(contents.data() + start, end - start);
        const size_t text = record.find("[S] ");
        const bool whole = record.front() == FileLogHandler::RECORD_SEPARATOR && text != std::string_view::npos &&
                           record.find('\n') == record.size() - 1;
        texts.emplace_back(whole ? record.substr(text + 4, std::min<size_t>(record.size() - text - 5, 200)) : "torn");
    }
    return texts;
}

// The n-th of those texts; "" when that record is missing or not whole (yet).
std::string recordText(const std::string& path, size_t n = 0, size_t offset = 0) {
    const auto texts = recordTexts(path, offset);
    return n < texts.size() && texts[n] != "torn" ? texts[n] : "";
}

// A text whose record, as this thread writes it for subsystem S, is `size` bytes long.
std::string textOfRecordSize(size_t size, char letter) {
    return "I: (X) " + std::string(size - FileLogHandler::msgPrefix("S", Clock::now()).size() - 8, letter);
}

class FileLogHandlerTest : public ::testing::Test {
protected:
    TestSupport::TemporaryDirectory folder_{"filelog"};
    std::string path_ = (folder_ / "Velmora VPN-shared.log").string();
    std::string rotated_ = (folder_ / "Velmora VPN-shared.1.log").string();
};

TEST(FileLogHandlerFormat, RecordLayoutIsByteExact) {
    const Date date = localDate("2024-01-02 09:05:03") + 7ms;
    EXPECT_EQ(FileLogHandler::formatRecord("S", date, 812, 0x1a03, "I: (X) hello", true),
              "\x1e" "2024-01-02 09:05:03.007   812:1a03     [S] I: (X) hello\n");
    EXPECT_EQ(FileLogHandler::formatRecord("S", date, 812, 0x1a03, "I: (X) hello", false), "I: (X) hello\n");
    EXPECT_EQ(FileLogHandler::formatRecord("S", date, 812, 0x1a03, "", true), "");
    // Milliseconds are cut, not rounded; wide ids widen the columns.
    EXPECT_EQ(FileLogHandler::headerPrefix(localDate("2024-12-31 23:59:59") + 999900us, 4194304, 0xa2b3c4d5),
              "\x1e" "2024-12-31 23:59:59.999 4194304:a2b3c4d5 ");
    // A separator inside a text cannot start a record; line feeds stay.
    EXPECT_EQ(FileLogHandler::formatRecord("S", date, 1, 1, "a\x1e" "b\nc", false),
              "a\xE2\x90\x9E" "b\nc\n");
    EXPECT_EQ(FileLogHandler::rotatedFilePath("/L/a.b.log", 2), "/L/a.b.2.log");
}

TEST(FileLogHandlerFormat, StripsCredentialHeadersInAnyCase) {
    const std::pair<std::string, std::string> cases[] = {
        {"Set-Cookie: a=b; Path=/", "Set-Cookie: stripped"},
        {"I: (X) SET-COOKIE: a\naUtHoRiZaTiOn: b\nHost: h", "I: (X) SET-COOKIE: stripped\naUtHoRiZaTiOn: stripped\nHost: h"},
        {"X-Authorization: t cookie: u", "X-Authorization: stripped"},
        {"cookie:x, Cookies: y, cookie: \n, authorization", "cookie:x, Cookies: y, cookie: \n, authorization"},
    };
    for (const auto& [text, expected] : cases) {
        std::string out = "<";
        FileLogHandler::stripCredentials(text, out);
        EXPECT_EQ(out, "<" + expected) << text;
    }
}

TEST(FileLogHandlerFormat, StrippingAgreesWithTheExpressionOnTextsOfEveryLength) {
    // Texts of 0 to 99 bytes from the pattern's own letters, with the words
    // planted at every offset: the quick scan must never miss what the
    // expression would strip, wherever block boundaries fall.
    // The expression's meaning, spelled out: a header word (any case), ": ",
    // then a value up to the line's end becomes the word and ": stripped".
    auto expected = [](const std::string& text) {
        std::string out;
        for (size_t at = 0; at < text.size();) {
            size_t length = 0;
            for (std::string_view word : {"cookie", "authorization"}) {
                if (text.size() - at >= word.size() + 3 &&
                    std::equal(word.begin(), word.end(), text.begin() + at,
                               [](char w, char c) { return w == (c | 0x20) && std::isalpha(c); }) &&
                    text.compare(at + word.size(), 2, ": ") == 0 && text[at + word.size() + 2] != '\n')
                    length = word.size();
            }
            if (length == 0) {
                out += text[at++];
                continue;
            }
            out.append(text, at, length).append(": stripped");
            at = std::min(text.find('\n', at), text.size());
        }
        return out;
    };
    const std::string alphabet = "cCoOkKiIeEzZaAuUtThHrRnN:: \n-x";
    const std::string_view words[] = {"Cookie: v", "AUTHORIZATION: v", "cookie:v", "authorizatioN: \n", "k: z: "};
    std::mt19937 random(20261125);
    for (int round = 0; round < 20000; ++round) {
        std::string text(random() % 100, ' ');
        for (char& c : text) c = alphabet[random() % alphabet.size()];
        if (round % 2 == 0) {
            const std::string_view word = words[random() % std::size(words)];
            text.replace(random() % (text.size() + 1), 0, word);
        }
        std::string out;
        FileLogHandler::stripCredentials(text, out);
        ASSERT_EQ(out, expected(text)) << text;
    }
}

TEST_F(FileLogHandlerTest, WritesRecordsAsFormattedForThisProcessAndThread) {
    FileLogHandler handler("S", path_, true, noChecks);
    const Date date = Clock::now();
    handler.log(LogLevel::info, date, "I: (X) Authorization: Bearer abc");
    handler.log(LogLevel::info, date, false, "plain\x1e");
    EXPECT_EQ(readFile(path_), FileLogHandler::formatRecord("S", date, getpid(), static_cast<uint32_t>(gettid()),
                                                            "I: (X) Authorization: stripped", true) +
                                   "plain\xE2\x90\x9E\n");
}

// Sparse files of the exact sizes, last modified `age` ago, checked once with
// the production thresholds.
TEST_F(FileLogHandlerTest, RotatesAtFiftyMiBOrAtTwoMiBAfterFortyEightHours) {
    const std::tuple<int64_t, std::chrono::hours, std::string> cases[] = {
        {3 * MiB, 47h, "No need rotating the log file. File size is 3145728 bytes."},
        {3 * MiB, 48h, "File too old. It needs to be rotated."},
        {2 * MiB, 48h, "File too old. It needs to be rotated."},
        {2 * MiB - 1, 48h, "No need rotating the log file. File size is 2097151 bytes."},
        {50 * MiB - 1, 0h, "No need rotating the log file. File size is 52428799 bytes."},
        {50 * MiB, 0h, "Log file size is 52428800 bytes, which is more than 52428800. It needs to be rotated."},
    };
    for (const auto& [checkedSize, age, report] : cases) {
        const int64_t size = checkedSize;  // captured below, which clang 14 refuses for a binding
        SCOPED_TRACE(std::to_string(size) + " bytes, " + std::to_string(age.count()) + " h old");
        fs::remove(rotated_);
        TestSupport::writeFile(path_, "");
        fs::resize_file(path_, uintmax_t(size));
        fs::last_write_time(path_, fs::file_time_type::clock::now() - age);

        FileLogHandler handler("S", path_, true, {.firstCheckDelay = 0});
        // The check's report follows the checked contents; a rotation moves both to generation 1.
        const bool rotated = !report.starts_with("No need");
        const size_t next = rotated ? 0 : size_t(size);  // where the active file's next record starts
        ASSERT_TRUE(waitUntil([&] { return recordText(path_, 0, next) != ""; }));
        EXPECT_EQ(recordText(rotated ? rotated_ : path_, 0, size_t(size)), "I: (FileLogHandler) " + report);
        EXPECT_EQ(recordText(path_, 0, next),
                  "I: (FileLogHandler) " + (rotated ? "Log file has been rotated" : report));
        EXPECT_EQ(fs::exists(rotated_), rotated);
    }
}

TEST_F(FileLogHandlerTest, RotationReplacesGenerationOneAndStartsTheFileAnew) {
    TestSupport::writeFile(rotated_, "previous generation\n");
    const std::string link = (folder_ / "link").string();
    ASSERT_EQ(::link(rotated_.c_str(), link.c_str()), 0);
    TestSupport::writeFile(path_, "old records\n");
    ASSERT_EQ(::chmod(path_.c_str(), 0640), 0);
    FileLogHandler handler("S", path_, true, {.firstCheckDelay = 0, .maxSize = 10});
    ASSERT_TRUE(waitUntil([&] { return readFile(path_).starts_with(FileLogHandler::RECORD_SEPARATOR); }));
    handler.log(LogLevel::info, Clock::now(), "I: (X) next");

    EXPECT_EQ(recordText(path_, 0), "I: (FileLogHandler) Log file has been rotated");
    EXPECT_EQ(recordText(path_, 1), "I: (X) next");
    EXPECT_TRUE(readFile(rotated_).starts_with("old records\n"));
    EXPECT_EQ(recordTexts(rotated_, 12), std::vector<std::string>{"I: (FileLogHandler) Log file size is 12 bytes, "
                                                                  "which is more than 10. It needs to be rotated."});
    // The copy replaces the old generation (never writes through it) and keeps the mode.
    EXPECT_EQ(readFile(link), "previous generation\n");
    EXPECT_EQ(fs::status(rotated_).permissions(), fs::perms(0640));
}

// On a full disk (a tmpfs of 16 pages, in a mount namespace of the test's own)
// a record reaches the file whole or not at all, the handler's own reports
// too, and a rotation that cannot copy keeps both files; once space returns,
// records and rotation go on.
TEST_F(FileLogHandlerTest, FullDiskKeepsRecordsWholeAndGenerationOneIntact) {
    TestSupport::TemporaryDirectory sandbox("sandbox");
    if (!TestSupport::insideSandbox(sandbox.path())) return;
    const size_t page = size_t(::sysconf(_SC_PAGESIZE));
    ASSERT_EQ(::mount("filelog", folder_.path().c_str(), "tmpfs", 0, ("size=" + std::to_string(16 * page)).c_str()),
              0) << std::strerror(errno);
    struct Unmount {
        const char* path;
        ~Unmount() { ::umount2(path, MNT_DETACH); }
    } unmount{folder_.path().c_str()};
    TestSupport::JournalCapture journal;
    TestSupport::writeFile(rotated_, "previous generation\n");
    FileLogHandler writer("S", path_, true, noChecks);
    // Two pages but 20 bytes: more than the old generation frees.
    const std::string first = textOfRecordSize(2 * page - 20, 'a');
    writer.log(LogLevel::info, Clock::now(), first);
    ASSERT_EQ(fs::file_size(path_), 2 * page - 20);

    Kernel::FileDescriptor filler(::open((folder_ / "filler").c_str(), O_WRONLY | O_CREAT | O_CLOEXEC, 0644));
    const std::string block(page, 'f');
    while (::write(filler.get(), block.data(), block.size()) > 0) {
    }
    ASSERT_EQ(errno, ENOSPC);
    // Only 20 bytes of a record fit, here and in the rotation's reports.
    writer.log(LogLevel::info, Clock::now(), textOfRecordSize(100, 'b'));
    writer.log(LogLevel::info, Clock::now(), textOfRecordSize(100, 'c'));
    std::string message;
    auto nextFailure = [&] {
        message.clear();
        while (!message.starts_with("Failed") && !::testing::Test::HasFailure()) message = journal.next()["MESSAGE"];
    };
    // The first lost record is reported, the second is not.
    nextFailure();
    EXPECT_EQ(message, "Failed to write " + path_ + ": No space left on device: 28");
    {
        FileLogHandler rotator("S", path_, true, {.firstCheckDelay = 0, .maxSize = 10});
        nextFailure();
        EXPECT_EQ(message, "Failed to rotate file " + path_ + ": clonefile(_:to:), copyfile (" + path_ + ", " +
                               rotated_ + "): No space left on device");
    }
    EXPECT_EQ(fs::file_size(path_), 2 * page - 20);
    EXPECT_EQ(readFile(rotated_), "previous generation\n");
    std::set<std::string> names;
    for (const auto& entry : fs::directory_iterator(folder_.path())) names.insert(entry.path().filename());
    EXPECT_EQ(names, (std::set<std::string>{"Velmora VPN-shared.log", "Velmora VPN-shared.1.log", "filler"}));

    filler.reset();
    fs::remove(folder_ / "filler");
    writer.log(LogLevel::info, Clock::now(), "I: (X) after");
    const auto size = fs::file_size(path_);
    {
        FileLogHandler rotator("S", path_, true, {.firstCheckDelay = 0, .maxSize = 10});
        ASSERT_TRUE(waitUntil([&] { return recordText(path_) == "I: (FileLogHandler) Log file has been rotated"; }));
    }
    writer.log(LogLevel::info, Clock::now(), "I: (X) next");
    EXPECT_EQ(recordTexts(rotated_),
              (std::vector<std::string>{first.substr(0, 200), "I: (X) after",
                                        "I: (FileLogHandler) Log file size is " + std::to_string(size) +
                                            " bytes, which is more than 10. It needs to be rotated."}));
    EXPECT_EQ(recordTexts(path_),
              (std::vector<std::string>{"I: (FileLogHandler) Log file has been rotated", "I: (X) next"}));
}

TEST_F(FileLogHandlerTest, ReopensAfterDeleteAndAfterRename) {
    TestSupport::JournalCapture journal;
    FileLogHandler handler("S", path_, true, noChecks);
    ASSERT_EQ(::unlink(path_.c_str()), 0);
    ASSERT_TRUE(waitUntil([&] { return recordText(path_) != ""; }));
    EXPECT_EQ(recordText(path_), "I: (FileLogHandler) Reopened the log file on removal");
    auto entry = journal.next();
    EXPECT_EQ(entry["MESSAGE"], "Reopened the log file on removal");
    EXPECT_EQ(entry["CATEGORY"], "logger");

    const std::string moved = (folder_ / "moved.log").string();
    ASSERT_EQ(::rename(path_.c_str(), moved.c_str()), 0);
    ASSERT_TRUE(waitUntil([&] { return recordText(path_) != ""; }));
    handler.log(LogLevel::info, Clock::now(), "I: (X) after");
    EXPECT_EQ(recordText(path_, 0), "I: (FileLogHandler) Reopened the log file on removal");
    EXPECT_EQ(recordText(path_, 1), "I: (X) after");
    EXPECT_EQ(readFile(moved).find("after"), std::string::npos);
}

TEST_F(FileLogHandlerTest, UnwritablePathDropsRecordsAndReportsBothOpens) {
    TestSupport::JournalCapture journal;
    TestSupport::writeFile(folder_ / "file", "");
    const std::string path = (folder_ / "file" / "x.log").string();
    FileLogHandler handler("S", path, true, noChecks);
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
