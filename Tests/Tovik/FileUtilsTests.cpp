#include "Tovik/FileUtils.h"

#include <gtest/gtest.h>
#include <sys/stat.h>

#include <chrono>
#include <system_error>

#include "Support/LogCapture.h"
#include "Support/TestSupport.h"

namespace Tovik {
namespace {

namespace fs = std::filesystem;
using Lines = std::vector<std::string>;

TEST(FileUtilsTests, FindFileKeepsFilesOfTheSuffixNewestFirstWhenSorted) {
    TestSupport::TemporaryDirectory dir;
    for (const char* name : {"a.log", "b.txt", ".d.log", "same1.log", "same2.log"})
        TestSupport::writeFile(dir / name, "x");
    fs::create_directory(dir / "c.log");
    fs::create_symlink(dir / "missing", dir / "dangling.log");  // no date to read
    const auto now = fs::file_time_type::clock::now();
    fs::last_write_time(dir / "a.log", now);
    fs::last_write_time(dir / "same1.log", now - std::chrono::hours(1));
    fs::last_write_time(dir / "same2.log", now - std::chrono::hours(1));

    const auto listed = FileUtils::findFile(".log", dir.path() / "." / "", false);
    ASSERT_EQ(listed.size(), 4u);
    for (const auto& url : listed) EXPECT_EQ(url.parent_path(), dir.path()) << url;  // "." resolved
    std::vector<fs::path> sameOrder;                                                 // the two of equal date, as listed
    for (const auto& url : listed) {
        if (url.filename().string().starts_with("same")) sameOrder.push_back(url);
    }
    EXPECT_EQ(FileUtils::findFile(".log", dir.path(), true),
              (std::vector<fs::path>{dir / "a.log", sameOrder[0], sameOrder[1], dir / "dangling.log"}));
}

TEST(FileUtilsTests, FailuresAreLoggedAndNotPassedOn) {
    TestSupport::TemporaryDirectory dir;
    TestSupport::ScopedLogCapture capture;
    const std::string folder = "file://" + (dir / "missing").string();

    EXPECT_TRUE(FileUtils::findFile(".log", dir / "missing", false).empty());

    TestSupport::writeFile(dir / "a.log", "moved");
    fs::create_directory(dir / "to");
    TestSupport::writeFile(dir / "to" / "a.log", "there");
    FileUtils::moveFile(dir / "a.log", dir / "to");
    EXPECT_EQ(TestSupport::readFile(dir / "a.log"), "moved");
    EXPECT_EQ(TestSupport::readFile(dir / "to" / "a.log"), "there");

    FileUtils::removeFile("https://example.com/a.log");  // not a file URL: ignored
    FileUtils::removeFile("a.log");                      // relative: never resolved against the working folder
    FileUtils::removeFile(dir / "missing");

    EXPECT_EQ(capture.recorder().lines(),
              (Lines{"E: (FileUtils: findFile(suffix:in:sorted:)) Can't get all files with .log in directory: " +
                         folder + " with error: No such file or directory",
                     "E: (FileUtils: moveFile(name:to:)) filed to move file file://" + (dir / "a.log").string() +
                         " to directory: file://" + (dir / "to").string() + " with error: File exists",
                     "W: (FileUtils) Error deleting " + folder + " with error: No such file or directory"}));
}

TEST(FileUtilsTests, MoveRemoveAndTemporaryFolders) {
    TestSupport::TemporaryDirectory dir;
    TestSupport::writeFile(dir / "a.log", "a");
    fs::create_directory(dir / "to");
    FileUtils::moveFile(dir / "a.log", dir / "to");
    EXPECT_EQ(TestSupport::readFile(dir / "to" / "a.log"), "a");
    FileUtils::removeFile(dir / "to");
    EXPECT_FALSE(fs::exists(dir / "to"));

    const fs::path first = FileUtils::makeTemporaryFolder("log", dir.path(), "label");
    const fs::path second = FileUtils::makeTemporaryFolder("log", dir.path(), "label");
    EXPECT_NE(first, second);
    for (const auto& folder : {first, second}) {
        EXPECT_EQ(folder.parent_path(), dir.path());
        EXPECT_TRUE(folder.filename().string().starts_with("log") && fs::is_directory(folder)) << folder;
    }
    try {
        FileUtils::makeTemporaryFolder("log", dir / "missing", "saveLogs(selecting:inFolder:opts:)");
        ADD_FAILURE() << "no error";
    } catch (const std::system_error& error) {
        EXPECT_EQ(error.code(), std::errc::no_such_file_or_directory);
        EXPECT_TRUE(std::string(error.what())
                        .starts_with("saveLogs(selecting:inFolder:opts:): mkdtemp (" +
                                     (dir / "missing" / "logXXXXXX").string() + ")"))
            << error.what();
    }
}

}  // namespace
}  // namespace Tovik
