// Developer overrides of backend settings.
//
// A developer or tester drops "devConfig.json" into the shared data folder.
// Because the daemon runs as root, the file is honoured only when it is a
// regular file owned by root that group and others can neither write nor
// execute. It is read lazily, at most once successfully per instance, the
// first time a key is asked for.
//
// The check is made on the file that is then read: the path is opened once
// without following a final symbolic link, the owner and mode are taken from
// that descriptor, and the JSON is parsed from the same descriptor, so
// swapping the path between the check and the read has no effect.
//
// The file comes from outside the daemon, so what is read is bounded: at most
// maxFileSize bytes (larger files are refused unread), no NUL byte anywhere
// (the JSON parser would take it for the end of the text and ignore what
// follows), and at most maxNestingDepth arrays and objects nested inside one
// another, checked before any value is built. A file that breaks a limit is
// handled like invalid JSON: "Can't convert dev config json with error: "
// and the reason, then no value for any key.
#pragma once

#include <array>
#include <filesystem>
#include <cstddef>
#include <optional>
#include <string>
#include <string_view>
#include <utility>

#include <nlohmann/json.hpp>

#include "Dispatch/DispatchQueue.h"
#include "Kernel/FileDescriptor.h"
#include "Tovik/UnfairLock.h"

namespace VpnHelper {

/// The recognised keys, in case order.
enum class DevConfigKey {
    authTxtDomain,
    apiTxtDomain,
    authFallbackDomain,
    apiFallbackDomain,
    disableOutboundInterfaceBinding,
    tdsBaseLink,
    promoTimeTillTheFirstShow,
    promoTimeDuration,
    configFetchUrls,
    configFetchTimeoutMs,
    tmTxtDomain,
    tmFallbackDomain,
    appForceUsingTraceLogs,
    showTrafficLimitReachedOnStart,
    showFreeTrafficLeftOnStart,
    showTooManyDeviceConnectedOnStart,
    forceAppUpdate,
    handlerProfilingEnabled,
    abTests,
    forceRegionalBlocksPromo,
};

/// Every key, in case order.
inline constexpr std::array<DevConfigKey, 20> allDevConfigKeys = {
    DevConfigKey::authTxtDomain,
    DevConfigKey::apiTxtDomain,
    DevConfigKey::authFallbackDomain,
    DevConfigKey::apiFallbackDomain,
    DevConfigKey::disableOutboundInterfaceBinding,
    DevConfigKey::tdsBaseLink,
    DevConfigKey::promoTimeTillTheFirstShow,
    DevConfigKey::promoTimeDuration,
    DevConfigKey::configFetchUrls,
    DevConfigKey::configFetchTimeoutMs,
    DevConfigKey::tmTxtDomain,
    DevConfigKey::tmFallbackDomain,
    DevConfigKey::appForceUsingTraceLogs,
    DevConfigKey::showTrafficLimitReachedOnStart,
    DevConfigKey::showFreeTrafficLeftOnStart,
    DevConfigKey::showTooManyDeviceConnectedOnStart,
    DevConfigKey::forceAppUpdate,
    DevConfigKey::handlerProfilingEnabled,
    DevConfigKey::abTests,
    DevConfigKey::forceRegionalBlocksPromo,
};

/// The key's name in the file ("auth_txt_domain", ...).
std::string_view rawValue(DevConfigKey key);

class DeveloperConfigUtils {
public:
    /// The parsed top-level object: key string to any JSON value.
    using Configuration = nlohmann::json::object_t;

    /// The largest file that is read, in bytes.
    static constexpr size_t maxFileSize = 1024 * 1024;
    /// The deepest nesting of arrays and objects that is accepted; the
    /// top-level object is level 1.
    static constexpr size_t maxNestingDepth = 64;

    /// Parses text as the file's contents within the limits above: the
    /// top-level JSON value (of any type), or nothing with error set to the
    /// reason. Never throws, and recurses no deeper than maxNestingDepth.
    /// Thread-safe; touches no file.
    static std::optional<nlohmann::json> parseText(std::string_view text, std::string& error);

    /// The concurrent queue "backend.client.queue" that keyed reads run on,
    /// as synchronous blocks. Created on first use.
    static const Dispatch::DispatchQueue& queue();

    /// "devConfig.json" in the shared data folder; computed once, on first
    /// use, from any thread. Absent when the shared folder is.
    static const std::optional<std::filesystem::path>& devConfigURL();

    /// The daemon's instance, over devConfigURL(); created on first use.
    static DeveloperConfigUtils& shared();

    /// An instance over the file at devConfigURL (nothing: no file can be had).
    explicit DeveloperConfigUtils(std::optional<std::filesystem::path> devConfigURL);
    DeveloperConfigUtils(const DeveloperConfigUtils&) = delete;
    DeveloperConfigUtils& operator=(const DeveloperConfigUtils&) = delete;

    /// The raw JSON value stored under the key's string, or nothing. While no
    /// file has passed checkFile(), every call checks the file again; once one
    /// has, its parsed contents (possibly nothing) answer every later call and
    /// the file is never read again. The caller converts the value; a value of
    /// another type than expected counts as missing. Run it on queue().
    std::optional<nlohmann::json> operator[](DevConfigKey key);

    /// True when the file may be used: a regular file, owned by root, with no
    /// write or execute bit for group or others and some permission bit set.
    /// Each failure is logged at debug. The checked file stays open for the
    /// next parse().
    bool checkFile();

    /// The top-level object of the file that the last checkFile() passed, or
    /// nothing (logged at error): unreadable, invalid JSON, over a limit, or
    /// not an object. Without such a file, runs checkFile() first. Never throws.
    std::optional<Configuration> parse();

private:
    bool checkFileLocked();
    std::optional<Configuration> parseLocked();

    const std::optional<std::filesystem::path> devConfigURL_;
    Tovik::UnfairLock lock_;
    std::optional<Configuration> configuration_;  // guarded by lock_
    bool needsReload_ = true;                     // guarded by lock_
    Kernel::FileDescriptor checkedFile_;  // guarded by lock_; what checkFile() passed
};

}  // namespace VpnHelper
