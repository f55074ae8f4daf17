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

/// Keeps every formatted line.
class RecordingLogHandler : public Tovik::LogHandlerProtocol {
public:
    void log(Tovik::LogLevel, Tovik::Date, std::string_view text) noexcept override {
        std::lock_guard guard(mutex_);
        lines_.emplace_back(text);
    }
    /// The lines so far, in arrival order.
    std::vector<std::string> lines() const {
        std::lock_guard guard(mutex_);
        return lines_;
    }
    /// How many lines so far are exactly line.
    long count(std::string_view line) const {
        std::lock_guard guard(mutex_);
        return std::count(lines_.begin(), lines_.end(), line);
    }

private:
    mutable std::mutex mutex_;
    std::vector<std::string> lines_;
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
