#include "Tovik/Logger/LogManagerProtocol.h"

#include "Tovik/Logger/Logger.h"

namespace Tovik {

void LogManagerProtocol::resetLog() { TLOG_INFO("resetLog()", "Do nothing"); }

}  // namespace Tovik
