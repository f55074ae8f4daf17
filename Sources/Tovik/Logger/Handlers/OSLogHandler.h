// Hands log texts to the unified system log under a subsystem and category.
#pragma once

#include <optional>
#include <string>

#include "OSLog/OSLog.h"
#include "Tovik/Logger/LogHandlerProtocol.h"

namespace Tovik {

class OSLogHandler : public LogHandlerProtocol {
public:
    /// Logs under subsystem and category, or the category "main" when none is given.
    explicit OSLogHandler(std::string subsystem, std::optional<std::string> category = std::nullopt);
    OSLogHandler() = delete;

    /// One entry per call, with the text verbatim ("%d" and "%@" included; an
    /// empty text gives an empty entry). verbose, debug and info become
    /// default entries, warning an error entry, error a fault entry. The date
    /// is ignored.
    void log(LogLevel level, Date date, std::string_view text) noexcept override;

    /// The unified-log type a level is written with.
    static OSLog::OSLogType logType(LogLevel level) noexcept;

    const OSLog::OSLog& oslogger() const { return oslogger_; }

private:
    const OSLog::OSLog oslogger_;
};

}  // namespace Tovik
