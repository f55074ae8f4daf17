#include "Tovik/SystemUtils.h"

#include <gtest/gtest.h>

#include <filesystem>
#include <string>
#include <vector>

#include "Support/LogCapture.h"
#include "Support/TestSupport.h"

namespace {

namespace fs = std::filesystem;
using Tovik::SystemUtil;
using TestSupport::readFile;
using TestSupport::writeFile;

class SystemUtilTest : public testing::Test {
protected:
    std::vector<std::string> logLines() { return log_.recorder().lines(); }

    TestSupport::ScopedLogCapture log_;
    TestSupport::TemporaryDirectory temporary_;
};

TEST_F(SystemUtilTest, CliUtilCollectsBothStreamsInOrderAndGivesMinus1111WhenItCannotLaunch) {
    auto [status, output] =
        SystemUtil::cliUtil("/bin/sh", {"-c", "pwd; echo err >&2; echo more; exit 3"}, temporary_.path(), true);
    EXPECT_EQ(status, 3);
    ASSERT_TRUE(output.has_value());
    EXPECT_EQ(std::string(output->begin(), output->end()), fs::canonical(temporary_.path()).string() + "\nerr\nmore\n");
    EXPECT_FALSE(SystemUtil::cliUtil("/bin/sh", {"-c", "exit 7"}, std::nullopt, false).second.has_value());
    EXPECT_FALSE(SystemUtil::cliUtilText("/usr/bin/printf", {"a\\377b"}, std::nullopt, true).second) << "not UTF-8";
    EXPECT_TRUE(logLines().empty());

    std::tie(status, output) = SystemUtil::cliUtil(temporary_ / "no-such-tool", {"x"}, std::nullopt, true);
    EXPECT_EQ(status, -1111);
    EXPECT_FALSE(output.has_value());
    const auto lines = logLines();
    ASSERT_EQ(lines.size(), 1u);
    EXPECT_TRUE(
        lines[0].starts_with("E: (SystemUtils: cliUtil(path:arguments:currentDirPath:output:)) Error occured: "))
        << lines[0];
    EXPECT_NE(lines[0].find("No such file or directory"), std::string::npos) << lines[0];
}

TEST_F(SystemUtilTest, CompressesAFolderOrItsContentsAndUnpacksThemAgain) {
    const fs::path logs = temporary_ / "logs";
    fs::create_directories(logs / "nested/deeper");
    writeFile(logs / "top.log", "top");
    writeFile(logs / "nested/deeper/inner.log", "inner");

    const auto folderArchive = SystemUtil::compressFolder(logs, "zip", false);
    ASSERT_EQ(folderArchive, temporary_ / "logs.zip");
    fs::rename(*folderArchive, temporary_ / "folder.zip");
    const auto contentsArchive = SystemUtil::compressFolder(logs / "", "zip", true);
    ASSERT_EQ(contentsArchive, temporary_ / "logs.zip");

    const fs::path target = temporary_ / "unpacked";
    fs::create_directories(target);
    writeFile(target / "top.log", "stale");
    EXPECT_EQ(SystemUtil::uncompress(*contentsArchive, target), true);
    EXPECT_EQ(readFile(target / "top.log"), "top");
    EXPECT_EQ(readFile(target / "nested/deeper/inner.log"), "inner");
    EXPECT_EQ(SystemUtil::uncompress(temporary_ / "folder.zip", target), true);
    EXPECT_EQ(readFile(target / "logs/nested/deeper/inner.log"), "inner");
    EXPECT_EQ(logLines().back(), "I: (SystemUtils) Archive uncompressed into: " + target.string());
}

TEST_F(SystemUtilTest, CompressAndUncompressFailuresAreLogged) {
    writeFile(temporary_ / "file.txt", "x");
    EXPECT_FALSE(SystemUtil::compressFolder(temporary_ / "file.txt", "zip", false));
    fs::create_directories(temporary_ / "logs");
    EXPECT_FALSE(SystemUtil::compressFolder(temporary_ / "logs", "a/b", false));
    // A folder in the archive's place makes zip fail.
    fs::create_directories(temporary_ / "logs.zip");
    writeFile(temporary_ / "logs/a.log", "a");
    EXPECT_FALSE(SystemUtil::compressFolder(temporary_ / "logs", "zip", false));
    writeFile(temporary_ / "broken.zip", "this is not a zip archive");
    EXPECT_EQ(SystemUtil::uncompress(temporary_ / "broken.zip", temporary_.path()), std::nullopt);

    const auto lines = logLines();
    ASSERT_EQ(lines.size(), 4u);
    const std::string prefix = "E: (SystemUtils: compressFolder(folderUrl:ext:onlyContents:)) ";
    EXPECT_EQ(lines[0], prefix + "Input URL \"file://" + (temporary_ / "file.txt").string() + "\" must be a directory");
    EXPECT_EQ(lines[1], prefix + "Can't add \"a/b\" extension to: file://" + (temporary_ / "logs").string());
    EXPECT_TRUE(lines[2].starts_with(prefix + "Zipping util failed with code: ")) << lines[2];
    EXPECT_NE(lines[2].find("\nOutput:\n"), std::string::npos) << lines[2];
    EXPECT_TRUE(lines[3].starts_with(
        "E: (SystemUtils: uncompress(_:targetFolderUrl:)) Archive uncompressing result: 9. Output: "))
        << lines[3];
}

}  // namespace
