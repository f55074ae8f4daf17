#include "Tovik/Logger/Logger.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <atomic>
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

namespace {

// Counts the calls it gets into a counter that outlives it; a handler used
// after its list let it go is a use after free the sanitizers report.
class CountingHandler : public LogHandlerProtocol {
public:
    explicit CountingHandler(std::shared_ptr<std::atomic<int>> calls) : calls_(std::move(calls)) {}
    void log(LogLevel, Date, std::string_view text) noexcept override {
        if (text == "I: (T) m") calls_->fetch_add(1);
    }

private:
    std::shared_ptr<std::atomic<int>> calls_;
};

}  // namespace

TEST(LoggerTests, HandlerListCanBeReplacedWhileOtherThreadsLog) {
    Logger logger;
    auto calls = std::make_shared<std::atomic<int>>(0);
    logger.setHandlers({std::make_shared<CountingHandler>(calls)});

    constexpr int threadCount = 4, callsPerThread = 500;
    std::vector<std::thread> threads;
    for (int t = 0; t < threadCount; ++t) {
        threads.emplace_back([&logger] {
            for (int i = 0; i < callsPerThread; ++i) {
                logger.log(LogLevel::info, [] { return std::string("m"); }, "T.cpp", "f()", 1);
            }
        });
    }
    // Only the logger holds the handlers: each replacement releases the old one.
    for (int i = 0; i < 100; ++i) logger.setHandlers({std::make_shared<CountingHandler>(calls)});
    for (auto& thread : threads) thread.join();

    // Every call reached exactly one of the lists it could have read.
    EXPECT_EQ(calls->load(), threadCount * callsPerThread);
}

TEST(LoggerTests, AHandlerMayLogAndReplaceTheListItIsCalledFrom) {
    Logger logger;
    auto later = std::make_shared<RecordingHandler>();
    auto replacement = std::make_shared<RecordingHandler>();

    // The first handler logs from inside its call, then replaces the list that
    // holds it and `later`; `later` must still get the record.
    class Replacing : public LogHandlerProtocol {
    public:
        Replacing(Logger& logger, std::shared_ptr<RecordingHandler> replacement)
            : logger_(logger), replacement_(std::move(replacement)) {}
        void log(LogLevel, Date, std::string_view text) noexcept override {
            if (text != "I: (T) replace") return;
            logger_.log(LogLevel::info, [] { return std::string("nested"); }, "T.cpp", "f()", 1);
            logger_.setHandlers({replacement_});
        }

    private:
        Logger& logger_;
        std::shared_ptr<RecordingHandler> replacement_;
    };
    std::weak_ptr<LogHandlerProtocol> replacing;
    {
        auto handler = std::make_shared<Replacing>(logger, replacement);
        replacing = handler;
        logger.setHandlers({handler, later});
    }
    logger.log(LogLevel::info, [] { return std::string("replace"); }, "T.cpp", "f()", 1);

    EXPECT_THAT(later->lines(), ElementsAre("I: (T) nested", "I: (T) replace"));
    EXPECT_TRUE(replacing.expired());  // released when the call that used it ended
    logger.log(LogLevel::info, [] { return std::string("after"); }, "T.cpp", "f()", 1);
    EXPECT_THAT(replacement->lines(), ElementsAre("I: (T) after"));
}
