// A scope that makes a recording handler the shared logger's only handler,
// for tests that check messages.
#pragma once

#include <algorithm>
#include <memory>
#include <mutex>
#include <string>
#include <string_view>
#include <vector>

#include "Tovik/Logger/LogHandlerProtocol.h"
#include "Tovik/Logger/Logger.h"

namespace TestSupport {

/// Keeps every formatted line with its level and date.
class RecordingLogHandler : public Tovik::LogHandlerProtocol {
public:
    struct Entry {
        Tovik::LogLevel level;
        Tovik::Date date;
        std::string text;
        bool operator==(const Entry&) const = default;
    };
    void log(Tovik::LogLevel level, Tovik::Date date, std::string_view text) noexcept override {
        std::lock_guard guard(mutex_);
        entries_.push_back({level, date, std::string(text)});
    }
    /// The calls so far, in arrival order.
    std::vector<Entry> entries() const {
        std::lock_guard guard(mutex_);
        return entries_;
    }
    /// Their lines.
    std::vector<std::string> lines() const {
        std::vector<std::string> lines;
        for (const auto& entry : entries()) lines.push_back(entry.text);
        return lines;
    }
    /// How many lines so far are exactly line.
    long count(std::string_view line) const {
        std::lock_guard guard(mutex_);
        return std::count_if(entries_.begin(), entries_.end(), [&](const Entry& e) { return e.text == line; });
    }

private:
    mutable std::mutex mutex_;
    std::vector<Entry> entries_;
};

/// Installs a fresh RecordingLogHandler as the only handler of
/// Logger::shared() at `level`; restores the previous handlers and level when
/// it goes away.
class ScopedLogCapture {
public:
    explicit ScopedLogCapture(Tovik::LogLevel level = Tovik::LogLevel::verbose)
        : previousHandlers_(Tovik::Logger::shared().handlers()),
          previousLevel_(Tovik::Logger::shared().logLevel()) {
        Tovik::Logger::shared().setHandlers({recorder_});
        Tovik::Logger::shared().setLogLevel(level);
    }
    ~ScopedLogCapture() {
        Tovik::Logger::shared().setHandlers(previousHandlers_);
        Tovik::Logger::shared().setLogLevel(previousLevel_);
    }
    ScopedLogCapture(const ScopedLogCapture&) = delete;
    ScopedLogCapture& operator=(const ScopedLogCapture&) = delete;

    const RecordingLogHandler& recorder() const { return *recorder_; }

private:
    std::shared_ptr<RecordingLogHandler> recorder_ = std::make_shared<RecordingLogHandler>();
    Tovik::Logger::HandlerList previousHandlers_;
    Tovik::LogLevel previousLevel_;
};

}  // namespace TestSupport
