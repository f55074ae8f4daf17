#include "Tovik/Logger/Logger.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <thread>

#include "Support/LogCapture.h"

using namespace Tovik;
using ::testing::ElementsAre;
using RecordingHandler = TestSupport::RecordingLogHandler;

TEST(LoggerTests, FormatsLetterAndLocation) {
    // Warning, info and error records through the macros are checked below.
    EXPECT_EQ(Logger::formattedText(LogLevel::info, "x", "", "f()"), "I: x");
    EXPECT_EQ(Logger::formattedText(LogLevel::debug, "x", "", "f()"), "D: (: f()) x");
    EXPECT_EQ(Logger::formattedText(LogLevel::verbose, "x", "Tovik/FileLogManager.cpp", "run()"),
              "V: (FileLogManager: run()) x");
    EXPECT_EQ(Logger::formattedText(LogLevel::info, "", "/src/FileLogHandler.cpp", "g()"), "I: (FileLogHandler) ");
    EXPECT_EQ(Logger::sourceName("Archive.tar.gz"), "Archive.tar");
}

// The macros, the string bridges and the shortcuts on the shared logger: messages
// below the threshold are never built, the others once, for every handler alike.
TEST(LoggerTests, SharedLoggerBuildsMessagesOnlyAboveThreshold) {
    TestSupport::ScopedLogCapture restored(LogLevel::debug);  // puts the shared handlers and level back
    Logger& logger = Logger::shared();
    auto first = std::make_shared<RecordingHandler>();
    auto second = std::make_shared<RecordingHandler>();
    logger.setHandlers({first, second});

    int evaluations = 0;
    auto expensive = [&] {
        ++evaluations;
        return std::string("value");
    };
    TLOG_VERBOSE("macro()", "dropped " + expensive());
    TLOG_DEBUG("macro()", "kept " + expensive());
    TLOG_INFO("macro()", "informed");
    TLOG_ERROR("macro(with:)", "failed");
    logger.objcLog(LogLevel::error, "100%d %@", "Bridge/Caller.m", "call:", 9);
    TovikLog(1, "from C", "x/Plain.c", "main", 1);
    TovikLog(5, "out of range", "x/Plain.c", "main", 1);
    TovikLog(-1, "out of range", "x/Plain.c", "main", 1);
    TovikLog(2, nullptr, nullptr, nullptr, 1);
    Logger::warn([] { return std::string("shortcut"); }, "Tovik/Short.cpp", "s()", 1);

    EXPECT_EQ(evaluations, 1);
    EXPECT_THAT(first->lines(),
                ElementsAre("D: (LoggerTests: macro()) kept value", "I: (LoggerTests) informed",
                            "E: (LoggerTests: macro(with:)) failed", "E: (Caller: call:) 100%d %@",
                            "D: (Plain: main) from C", "I: ", "W: (Short) shortcut"));
    EXPECT_EQ(first->entries().back().level, LogLevel::warning);
    EXPECT_EQ(first->entries(), second->entries());  // same level, timestamp and text
}

TEST(LoggerTests, HandlerListCanBeReplacedWhileOtherThreadsLog) {
    Logger logger;
    auto first = std::make_shared<RecordingHandler>();
    auto second = std::make_shared<RecordingHandler>();
    logger.setHandlers({first});

    constexpr int threadCount = 4, callsPerThread = 500;
    std::vector<std::thread> threads;
    for (int t = 0; t < threadCount; ++t) {
        threads.emplace_back([&logger] {
            for (int i = 0; i < callsPerThread; ++i) {
                logger.log(LogLevel::info, [] { return std::string("m"); }, "T.cpp", "f()", 1);
            }
        });
    }
    for (int i = 0; i < 100; ++i) logger.setHandlers({i % 2 == 0 ? second : first});
    for (auto& thread : threads) thread.join();

    // Every call reached exactly one of the lists it could have read.
    EXPECT_EQ(first->entries().size() + second->entries().size(), size_t{threadCount * callsPerThread});
}
