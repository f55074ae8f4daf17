// A destination of log records.
#pragma once

#include <chrono>
#include <string_view>

#include "Tovik/Logger/LogLevel.h"

namespace Tovik {

/// The wall-clock timestamp of a log call.
using Date = std::chrono::system_clock::time_point;

class LogHandlerProtocol {
public:
    virtual ~LogHandlerProtocol() = default;

    /// Receives every accepted log call, on the caller's thread, possibly on
    /// several threads at once: an implementation guards its own state.
    /// text is the formatted line (letter, location, message) without a line
    /// feed. Must not throw; failures are the handler's own to swallow.
    virtual void log(LogLevel level, Date date, std::string_view text) noexcept = 0;
};

}  // namespace Tovik
