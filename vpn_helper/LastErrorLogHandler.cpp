#include "vpn_helper/LastErrorLogHandler.h"

#include <string>

#include "Foundation/UserDefaults.h"

namespace VpnHelper {

void LastErrorLogHandler::log(Tovik::LogLevel level, Tovik::Date, std::string_view text) noexcept {
    if (level != Tovik::LogLevel::error) return;
    try {
        (void)Foundation::UserDefaults::standard().set(Foundation::PropertyList(text), lastErrorKey);
    } catch (...) {
        // Out of memory: the last error stays as it was.
    }
}

}  // namespace VpnHelper
