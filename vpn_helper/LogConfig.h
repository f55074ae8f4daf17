// The daemon's logging set-up: which log file a subsystem writes to and the
// handlers installed on Logger::shared().
#pragma once

#include <string>
#include <string_view>

namespace VpnHelper {

class LogConfig {
public:
    /// The daemon's own subsystem, which logs to the machine-wide file.
    static constexpr std::string_view helperSubsystem = "com.velmora.mac.vpn.vpn_helper";

    LogConfig() = delete;

    /// Replaces the shared logger's handlers with exactly two: a file handler
    /// (with prefix) for subsystem, on sharedLogFilePath() for helperSubsystem
    /// (exact, case-sensitive match) and groupLogFilePath() for any other
    /// subsystem, then a unified-log handler for subsystem. Resolves the group
    /// path first in every case, so the group folders' failures go to the
    /// handlers installed before. Called once, on the main thread, at start-up.
    static void setup(const std::string& subsystem);

    /// Locations::sharedLogsFolder() + "Velmora VPN-shared.log"; "" without
    /// that folder. Computed on first use, once; any thread.
    static const std::string& sharedLogFilePath();
    /// Locations::groupLogsFolder() + "Velmora VPN-group.log"; "" without that
    /// folder. Computed on first use, once; any thread.
    static const std::string& groupLogFilePath();
};

}  // namespace VpnHelper
