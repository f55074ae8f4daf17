#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <cstdio>

#include "Platform/OSLog/JournalCapture.h"
#include "Tovik/Logger/Handlers/NSLogHandler.h"
#include "Tovik/Logger/Handlers/OSLogHandler.h"
#include "Tovik/Logger/Handlers/StdoutLogHandler.h"

using namespace Tovik;

namespace {

// Everything written to `fd` while `write` runs.
template <class Write>
std::string captureOutput(int fd, Write&& write) {
    TestSupport::TemporaryDirectory folder("handlers");
    auto path = folder / "captured";
    int file = ::open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0600);
    std::fflush(nullptr);
    int saved = ::dup(fd);
    ::dup2(file, fd);
    write();
    ::dup2(saved, fd);
    ::close(saved);
    ::close(file);
    return TestSupport::readFile(path);
}

}  // namespace

TEST(OSLogHandlerTests, LevelsMapToLogTypesOnRealEntries) {
    TestSupport::JournalCapture journal;
    OSLogHandler handler("com.velmora.test");
    const std::pair<LogLevel, std::string> cases[] = {
        {LogLevel::verbose, "5"}, {LogLevel::debug, "5"}, {LogLevel::info, "5"},
        {LogLevel::warning, "3"}, {LogLevel::error, "2"},
    };
    for (const auto& [level, priority] : cases) {
        handler.log(level, Date{}, "level " + std::string(description(level)));
        auto fields = journal.next();
        EXPECT_EQ(fields["PRIORITY"], priority) << description(level);
        EXPECT_EQ(fields["MESSAGE"], "level " + std::string(description(level)));
        EXPECT_EQ(fields["SUBSYSTEM"], "com.velmora.test");
        EXPECT_EQ(fields["CATEGORY"], "main");
    }
}

TEST(OSLogHandlerTests, CategoryAndLiteralTexts) {
    TestSupport::JournalCapture journal;
    OSLogHandler handler("com.velmora.test", "network");
    handler.log(LogLevel::info, Date{}, "E: (X: f()) 5%d %@");
    auto fields = journal.next();
    EXPECT_EQ(fields["CATEGORY"], "network");
    EXPECT_EQ(fields["MESSAGE"], "E: (X: f()) 5%d %@");

    handler.log(LogLevel::info, Date{}, "");
    auto empty = journal.next();
    ASSERT_EQ(empty.count("MESSAGE"), 1U);
    EXPECT_EQ(empty["MESSAGE"], "");
}

TEST(ConsoleLogHandlerTests, NSLogHandlerWritesConsoleLinesToStandardError) {
    NSLogHandler handler;
    std::string written = captureOutput(STDERR_FILENO, [&] {
        handler.log(LogLevel::error, Date{}, "I: (A) 7%d %@");
        handler.log(LogLevel::info, Date{}, "");
    });
    const std::string prefix =
        "[0-9]{4}-[0-9]{2}-[0-9]{2} [0-9]{2}:[0-9]{2}:[0-9]{2}\\.[0-9]{3} SystemLogHandlersTests\\[[0-9]+:[0-9]+\\] ";
    EXPECT_THAT(written, ::testing::MatchesRegex(prefix + "I: \\(A\\) 7%d %@\n" + prefix + "\n"));
}

TEST(ConsoleLogHandlerTests, StdoutLogHandlerPrintsTextAndLineFeed) {
    StdoutLogHandler handler;
    std::string written = captureOutput(STDOUT_FILENO, [&] {
        handler.log(LogLevel::warning, Date{}, "W: (B) 9%d %@");
        handler.log(LogLevel::warning, Date{}, "");
        handler.log(LogLevel::warning, Date{}, "last");
    });
    EXPECT_EQ(written, "W: (B) 9%d %@\n\nlast\n");
}
