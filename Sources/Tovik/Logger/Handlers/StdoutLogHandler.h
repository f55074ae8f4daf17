// Prints log texts to standard output, each followed by a line feed.
#pragma once

#include "Tovik/Logger/LogHandlerProtocol.h"

namespace Tovik {

class StdoutLogHandler : public LogHandlerProtocol {
public:
    StdoutLogHandler() = default;

    /// Writes text + "\n" in one write(2); ignores level and date. The text is
    /// printed verbatim; an empty text gives an empty line. Failures are
    /// swallowed.
    void log(LogLevel level, Date date, std::string_view text) noexcept override;
};

}  // namespace Tovik
