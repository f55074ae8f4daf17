#include "Tovik/Logger/Handlers/NSLogHandler.h"

#include "OSLog/ConsoleLog.h"

namespace Tovik {

void NSLogHandler::log(LogLevel, Date, std::string_view text) noexcept { OSLog::consoleLog(text); }

}  // namespace Tovik
