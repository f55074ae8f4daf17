// The folders the daemon reads and writes, each created on demand.
//
// Every folder is an absolute path that may be absent; absence means the
// folder could not be resolved or created and the failure, where worth
// reporting, has already been logged. Two folders live in the machine-wide
// Library ("/Library"), four in the application group container of the
// effective user ("Library/Group Containers/QX4HL2ZC8M.com.velmora.mac" in the
// home folder the user database gives for the effective user).
//
// All members may be called from any thread.
#pragma once

#include <cstdint>
#include <filesystem>
#include <map>
#include <optional>
#include <string_view>

namespace VpnHelper {

enum class FileAttributeKey { posixPermissions };
/// File attributes to apply to a created folder (POSIX permissions as a mode).
using FileAttributes = std::map<FileAttributeKey, uint32_t>;

class Locations {
public:
    using URL = std::filesystem::path;

    static constexpr std::string_view appGroupIdentifier = "QX4HL2ZC8M.com.velmora.mac";

    Locations() = delete;

    /// "/Library/Application Support/Velmora Software/com.velmora.mac.vpn",
    /// created if missing. Resolved and created on every call.
    static std::optional<URL> sharedFolder();
    /// "/Library/Logs/com.velmora.mac.vpn", created if missing and given mode
    /// 0755 whatever the umask. Resolved and created on every call.
    static std::optional<URL> sharedLogsFolder();

    /// The group container, created if missing. Computed on first use, once,
    /// even when absent; logs "Failed to get app group directory" when the
    /// effective user has no home folder.
    static const std::optional<URL>& appGroupFolder();
    /// appGroupFolder + "Library/Logs/com.velmora.mac.vpn". Once; without a
    /// group container logs "Failed to get group logs directory".
    static const std::optional<URL>& groupLogsFolder();
    /// appGroupFolder + "Library/Application Support/com.velmora.mac.vpn". Once.
    static const std::optional<URL>& groupDataFolder();
    /// groupDataFolder + "TmpStorage". Once.
    static const std::optional<URL>& tmpStorageFolder();

    /// Creates url with its missing parents (mode 0777 less the umask), then
    /// applies attr. Returns url when both worked, or when either failed but
    /// url existed beforehand; otherwise logs "Cannot create <title> directory
    /// (<path>) with error: <error>" and returns nothing.
    static std::optional<URL> create(const URL& url, std::string_view title,
                                     const std::optional<FileAttributes>& attr);
};

}  // namespace VpnHelper
