// A log handler that keeps every formatted line, for tests that check messages.
#pragma once

#include <algorithm>
#include <mutex>
#include <string>
#include <string_view>
#include <vector>

#include "Tovik/Logger/LogHandlerProtocol.h"

namespace TestSupport {

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

}  // namespace TestSupport
