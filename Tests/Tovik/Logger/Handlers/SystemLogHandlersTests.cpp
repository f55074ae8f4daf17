#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include "Platform/OSLog/JournalCapture.h"
#include "Tovik/Logger/Handlers/NSLogHandler.h"
#include "Tovik/Logger/Handlers/OSLogHandler.h"
#include "Tovik/Logger/Handlers/StdoutLogHandler.h"

using namespace Tovik;

TEST(OSLogHandlerTests, LevelsMapToLogTypesOnRealEntries) {
    TestSupport::JournalCapture journal;
    OSLogHandler handler("com.velmora.test");
    const std::tuple<LogLevel, std::string, std::string> cases[] = {
        {LogLevel::verbose, "5", "V: (X: f()) 1%d %@"}, {LogLevel::debug, "5", "D: (X: f()) 2"},
        {LogLevel::info, "5", "I: (X) 3"},              {LogLevel::warning, "3", "W: (X) 4"},
        {LogLevel::error, "2", ""},
    };
    for (const auto& [level, priority, text] : cases) {
        handler.log(level, Date{}, text);
        auto fields = journal.next();
        EXPECT_EQ(fields["PRIORITY"], priority) << description(level);
        EXPECT_EQ(fields["MESSAGE"], text);
        EXPECT_EQ(fields["SUBSYSTEM"], "com.velmora.test");
        EXPECT_EQ(fields["CATEGORY"], "main");
    }
}

TEST(ConsoleLogHandlerTests, NSLogAndStdoutHandlersWriteTextsLiterally) {
    ::testing::internal::CaptureStderr();
    NSLogHandler().log(LogLevel::error, Date{}, "I: (A) 7%d %@");
    NSLogHandler().log(LogLevel::info, Date{}, "");
    const std::string prefix = "[0-9]{4}-[0-9]{2}-[0-9]{2} [0-9]{2}:[0-9]{2}:[0-9]{2}\\.[0-9]{3} " +
                               ("SystemLogHandlersTests\\[" + std::to_string(::getpid()) + ":") +
                               std::to_string(::gettid()) + "\\] ";
    EXPECT_THAT(::testing::internal::GetCapturedStderr(),
                ::testing::MatchesRegex(prefix + "I: \\(A\\) 7%d %@\n" + prefix + "\n"));

    ::testing::internal::CaptureStdout();
    StdoutLogHandler handler;
    handler.log(LogLevel::warning, Date{}, "W: (B) 9%d %@");
    handler.log(LogLevel::warning, Date{}, "");
    handler.log(LogLevel::warning, Date{}, "last");
    EXPECT_EQ(::testing::internal::GetCapturedStdout(), "W: (B) 9%d %@\n\nlast\n");
}
