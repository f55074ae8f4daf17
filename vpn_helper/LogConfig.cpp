#include "vpn_helper/LogConfig.h"

#include <memory>

#include "Tovik/Logger/Handlers/FileLogHandler.h"
#include "Tovik/Logger/Handlers/OSLogHandler.h"
#include "Tovik/Logger/Logger.h"
#include "vpn_helper/Locations.h"

namespace VpnHelper {

const std::string& LogConfig::sharedLogFilePath() {
    static const std::string path = [] {
        auto folder = Locations::sharedLogsFolder();
        return folder ? (*folder / "Velmora VPN-shared.log").string() : std::string();
    }();
    return path;
}

const std::string& LogConfig::groupLogFilePath() {
    static const std::string path = [] {
        const auto& folder = Locations::groupLogsFolder();
        return folder ? (*folder / "Velmora VPN-group.log").string() : std::string();
    }();
    return path;
}

void LogConfig::setup(const std::string& subsystem) {
    const std::string& groupPath = groupLogFilePath();
    const std::string& path = subsystem == helperSubsystem ? sharedLogFilePath() : groupPath;
    Tovik::Logger::shared().setHandlers({
        std::make_shared<Tovik::FileLogHandler>(subsystem, path, true),
        std::make_shared<Tovik::OSLogHandler>(subsystem),
    });
}

}  // namespace VpnHelper
