#include "Tovik/Logger/Handlers/OSLogHandler.h"

#include <utility>

namespace Tovik {

OSLogHandler::OSLogHandler(std::string subsystem, std::optional<std::string> category)
    : oslogger_(std::move(subsystem), category ? std::move(*category) : std::string("main")) {}

OSLog::OSLogType OSLogHandler::logType(LogLevel level) noexcept {
    switch (level) {
        case LogLevel::verbose:
        case LogLevel::debug:
        case LogLevel::info: return OSLog::OSLogType::default_;
        case LogLevel::warning: return OSLog::OSLogType::error;
        case LogLevel::error: return OSLog::OSLogType::fault;
    }
    return OSLog::OSLogType::default_;
}

void OSLogHandler::log(LogLevel level, Date, std::string_view text) noexcept { oslogger_.log(logType(level), text); }

}  // namespace Tovik
