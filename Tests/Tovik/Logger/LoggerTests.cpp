#include "Tovik/Logger/Logger.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <mutex>
#include <thread>

using namespace Tovik;

namespace {

struct Entry {
    LogLevel level;
    Date date;
    std::string text;
};

class RecordingHandler : public LogHandlerProtocol {
public:
    void log(LogLevel level, Date date, std::string_view text) noexcept override {
        std::lock_guard guard(mutex_);
        entries_.push_back({level, date, std::string(text)});
    }
    std::vector<Entry> entries() const {
        std::lock_guard guard(mutex_);
        return entries_;
    }
    std::vector<std::string> texts() const {
        std::vector<std::string> result;
        for (const auto& entry : entries()) result.push_back(entry.text);
        return result;
    }

private:
    mutable std::mutex mutex_;
    std::vector<Entry> entries_;
};

// Restores the shared logger's threshold and handlers after a test.
class SharedLoggerTest : public ::testing::Test {
protected:
    void SetUp() override {
        savedLevel_ = Logger::shared().logLevel();
        savedHandlers_ = Logger::shared().handlers();
        Logger::shared().setHandlers({recorder_});
    }
    void TearDown() override {
        Logger::shared().setLogLevel(savedLevel_);
        Logger::shared().setHandlers(savedHandlers_);
    }

    std::shared_ptr<RecordingHandler> recorder_ = std::make_shared<RecordingHandler>();

private:
    LogLevel savedLevel_{};
    Logger::HandlerList savedHandlers_;
};

}  // namespace

TEST(LogLevelTests, ConstructionFromDescriptionAndRawValue) {
    EXPECT_EQ(logLevelFromDescription("warning"), LogLevel::warning);
    EXPECT_EQ(logLevelFromDescription("verbose"), LogLevel::verbose);
    EXPECT_EQ(logLevelFromDescription("error"), LogLevel::error);
    EXPECT_EQ(logLevelFromDescription("WARNING"), LogLevel::info);
    EXPECT_EQ(logLevelFromDescription("Error"), LogLevel::info);
    EXPECT_EQ(logLevelFromDescription("warn"), LogLevel::info);
    EXPECT_EQ(logLevelFromDescription(""), LogLevel::info);

    EXPECT_EQ(logLevelFromRawValue(0), LogLevel::verbose);
    EXPECT_EQ(logLevelFromRawValue(4), LogLevel::error);
    EXPECT_EQ(logLevelFromRawValue(5), std::nullopt);
    EXPECT_EQ(logLevelFromRawValue(-1), std::nullopt);
}

TEST(LoggerTests, FormatsLetterAndLocation) {
    EXPECT_EQ(Logger::formattedText(LogLevel::warning, "x", "A/B", "f()"), "W: (B) x");
    EXPECT_EQ(Logger::formattedText(LogLevel::error, "x", "A/B", "f()"), "E: (B: f()) x");
    EXPECT_EQ(Logger::formattedText(LogLevel::info, "x", "", "f()"), "I: x");
    EXPECT_EQ(Logger::formattedText(LogLevel::debug, "x", "", "f()"), "D: (: f()) x");
    EXPECT_EQ(Logger::formattedText(LogLevel::verbose, "x", "Tovik/FileLogManager.cpp", "run()"),
              "V: (FileLogManager: run()) x");
    EXPECT_EQ(Logger::formattedText(LogLevel::info, "", "/src/Tovik/FileLogHandler.cpp", "g()"), "I: (FileLogHandler) ");
    EXPECT_EQ(Logger::sourceName("Tovik/Logger/Logger.cpp"), "Logger");
    EXPECT_EQ(Logger::sourceName("Archive.tar.gz"), "Archive.tar");
}

TEST(LoggerTests, MessageIsBuiltOnlyWhenLevelPassesAndOnlyOnce) {
    Logger logger;
    auto handlers = std::vector{std::make_shared<RecordingHandler>(), std::make_shared<RecordingHandler>(),
                                std::make_shared<RecordingHandler>()};
    logger.setHandlers({handlers[0], handlers[1], handlers[2]});
    logger.setLogLevel(LogLevel::debug);

    int evaluations = 0;
    auto message = [&] {
        ++evaluations;
        return std::string("built");
    };
    logger.log(LogLevel::verbose, message, "A/B.cpp", "f()", 1);
    EXPECT_EQ(evaluations, 0);
    EXPECT_TRUE(handlers[0]->entries().empty());

    logger.log(LogLevel::debug, message, "A/B.cpp", "f()", 2);
    EXPECT_EQ(evaluations, 1);

    // Every handler of one call gets the same timestamp and text, in list order.
    for (const auto& handler : handlers) {
        auto entries = handler->entries();
        ASSERT_EQ(entries.size(), 1U);
        EXPECT_EQ(entries[0].level, LogLevel::debug);
        EXPECT_EQ(entries[0].text, "D: (B: f()) built");
        EXPECT_EQ(entries[0].date, handlers[0]->entries()[0].date);
    }

    // No handlers: the message is still built, nothing is written.
    logger.setHandlers({});
    logger.log(LogLevel::error, message, "A/B.cpp", "f()", 3);
    EXPECT_EQ(evaluations, 2);
}

TEST_F(SharedLoggerTest, MacrosNameThisFileAndEvaluateLazily) {
    Logger::shared().setLogLevel(LogLevel::info);
    int evaluations = 0;
    auto expensive = [&] {
        ++evaluations;
        return std::string("value");
    };
    TLOG_DEBUG("macro()", "dropped " + expensive());
    TLOG_INFO("macro()", "kept " + expensive());
    TLOG_WARN("macro()", "warned");
    TLOG_ERROR("macro(with:)", "failed");

    EXPECT_EQ(evaluations, 1);
    EXPECT_THAT(recorder_->texts(), ::testing::ElementsAre("I: (LoggerTests) kept value", "W: (LoggerTests) warned",
                                                           "E: (LoggerTests: macro(with:)) failed"));
}

TEST_F(SharedLoggerTest, PlainStringBridgesLogLikeTheClosureCall) {
    Logger::shared().setLogLevel(LogLevel::verbose);
    Logger::shared().objcLog(LogLevel::error, "100%d %@", "Bridge/Caller.m", "call:", 9);
    TovikLog(0, "from C", "x/Plain.c", "main", 1);
    TovikLog(7, "out of range", "x/Plain.c", "main", 1);
    TovikLog(2, nullptr, nullptr, nullptr, 1);
    Logger::info([] { return std::string("shortcut"); }, "Tovik/Short.cpp", "s()", 1);

    EXPECT_THAT(recorder_->texts(), ::testing::ElementsAre("E: (Caller: call:) 100%d %@", "V: (Plain: main) from C",
                                                           "I: ", "I: (Short) shortcut"));
}

TEST(LoggerTests, HandlerListCanBeReplacedWhileOtherThreadsLog) {
    Logger logger;
    auto first = std::make_shared<RecordingHandler>();
    auto second = std::make_shared<RecordingHandler>();
    logger.setHandlers({first});

    constexpr int threadCount = 4;
    constexpr int callsPerThread = 500;
    std::vector<std::thread> threads;
    for (int t = 0; t < threadCount; ++t) {
        threads.emplace_back([&logger] {
            for (int i = 0; i < callsPerThread; ++i) {
                logger.log(LogLevel::info, [] { return std::string("m"); }, "T.cpp", "f()", 1);
            }
        });
    }
    for (int i = 0; i < 100; ++i) logger.setHandlers(i % 2 == 0 ? Logger::HandlerList{second} : Logger::HandlerList{first});
    for (auto& thread : threads) thread.join();

    // Every call reached exactly one of the lists it could have read.
    EXPECT_EQ(first->entries().size() + second->entries().size(), size_t{threadCount * callsPerThread});
}
