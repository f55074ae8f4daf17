// Hands log texts to the platform's console logging call: one line on
// standard error with the date, the program name and the process and thread
// ids in front. The logger's default handler before set-up.
#pragma once

#include "Tovik/Logger/LogHandlerProtocol.h"

namespace Tovik {

class NSLogHandler : public LogHandlerProtocol {
public:
    NSLogHandler() = default;

    /// Ignores level and date (the console call adds its own timestamp).
    /// The text is printed verbatim, "%d" and "%@" included; an empty text
    /// gives an entry all the same.
    void log(LogLevel level, Date date, std::string_view text) noexcept override;
};

}  // namespace Tovik
