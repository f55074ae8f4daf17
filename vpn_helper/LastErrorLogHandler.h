// A log handler that remembers the most recent error in the user defaults.
#pragma once

#include "Tovik/Logger/LogHandlerProtocol.h"

namespace VpnHelper {

class LastErrorLogHandler : public Tovik::LogHandlerProtocol {
public:
    /// The standard user defaults key holding the last error text.
    static constexpr const char* lastErrorKey = "LastError";

    /// At `error`, stores text under "LastError" in the standard user
    /// defaults, replacing the previous value; other levels and the date are
    /// ignored, and so is the outcome of the write. Any thread.
    void log(Tovik::LogLevel level, Tovik::Date date, std::string_view text) noexcept override;
};

}  // namespace VpnHelper
