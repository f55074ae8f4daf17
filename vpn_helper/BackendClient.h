// The daemon's one backend client and the settings it is built from.
//
// Every process-wide value here is created on first use, once, whichever
// thread comes first, and never replaced. The shared client is built from:
// - the configuration: version 0, time-out 10000 ms, tries 0, account type 0,
//   the backend selector cache directory, then the developer overrides (read
//   on the developer configuration's queue, in the order listed at makeConfig),
//   and the application version;
// - the application details: appId, app type 8, the application and system
//   languages and the version string;
// - no IPC configuration.
#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <string_view>

#include <nlohmann/json.hpp>

#include "Dispatch/DispatchQueue.h"
#include "VLVpnClient/VLVBCAppDetails.h"
#include "VLVpnClient/VLVpnBackendClient.h"
#include "VLVpnClient/VLVpnBackendClientConfig.h"
#include "VLVpnClient/VLVpnBackendClientConfigAppVersion.h"
#include "VLVpnClient/VLVpnBackendClientIpcConfig.h"
#include "vpn_helper/DeveloperConfigUtils.h"

namespace VpnHelper {

class BackendClient {
public:
    static constexpr std::int64_t buildNumber = 1143;
    static constexpr std::int64_t appType = 8;
    static constexpr const char* fallbackAppVersion = "2.11.0";
    /// The built-in telemetry domains an overrides object starts with.
    static constexpr const char* builtInTmTxtDomain = "tm-backup.velmora.com";
    static constexpr const char* builtInTmFallbackDomain = "api.velmora.com/tm";

    /// A developer-configuration read: the raw value under the key, or nothing.
    using DevConfigReader = std::function<std::optional<nlohmann::json>(DevConfigKey)>;
    /// A lookup in the main bundle's Info.plist: the value when it is a string.
    using InfoDictionaryLookup = std::function<std::optional<std::string>(std::string_view key)>;

    BackendClient() = delete;

    /// The concurrent queue "backend.client.queue": the context in which the
    /// uninstall sequence reads shared()->appsApi(). It orders nothing.
    static const Dispatch::DispatchQueue& queue();

    /// The daemon's client, created on first use; null when the framework
    /// refuses the settings (the caller then has no apps interface).
    static std::shared_ptr<VLVpnClient::VLVpnBackendClient> shared();

    /// Replaces the main bundle's Info.plist lookup. The daemon runs without
    /// a bundle, so by default nothing is found. Takes effect only before the
    /// first use of appVersionString().
    static void setMainBundleInfoLookup(InfoDictionaryLookup lookup);
    /// The main bundle's "VLVersion" when it is a string, else "2.11.0". Once.
    static const std::string& appVersionString();

    /// Path of the folder "selector" inside TmpStorage, created on demand.
    /// Once. Absent without TmpStorage (logged: "Invalid backend selector
    /// cache directory") or when it cannot be created (logged by Locations).
    static const std::optional<std::string>& backendSelectorCacheDirectory();

    /// The developer-configuration reader the daemon uses: a synchronous read
    /// of DeveloperConfigUtils::shared() on DeveloperConfigUtils::queue().
    static DevConfigReader developerConfigReader();

    /// The daemon's configuration: makeConfig with developerConfigReader(),
    /// backendSelectorCacheDirectory() and appVersionString().
    static std::shared_ptr<VLVpnClient::VLVpnBackendClientConfig> defaultConfig();
    /// A configuration from fixed values and these inputs. Developer keys are
    /// read in this order, a value of another type counting as missing:
    /// "disable_outbound_interface_binding" (boolean; false when missing),
    /// "config_fetch_timeout_ms" (integer; the framework default when missing),
    /// then the overrides "config_fetch_urls" (array of strings),
    /// "auth_txt_domain", "api_txt_domain", "auth_fallback_domain",
    /// "api_fallback_domain", "tm_txt_domain", "tm_fallback_domain" (strings).
    /// The overrides object, which starts with the built-in telemetry domains,
    /// is attached only when at least one override was applied.
    static std::shared_ptr<VLVpnClient::VLVpnBackendClientConfig> makeConfig(
        const DevConfigReader& readKey, const std::optional<std::string>& cacheDirectory,
        std::string_view appVersionString);

    /// Parts 1 to 3 of versionString split at every ".", each a decimal
    /// integer with an optional sign; a missing, empty, malformed or
    /// overflowing part gives 0. build is 1143.
    static std::shared_ptr<VLVpnClient::VLVpnBackendClientConfigAppVersion> appVersion(
        std::string_view versionString);

    /// The daemon's application details: ProductInfo::appId(), app type 8,
    /// applicationLanguage(), systemLanguage(), appVersionString().
    static std::shared_ptr<VLVpnClient::VLVBCAppDetails> defaultAppDetails();
    /// The daemon's IPC configuration: none.
    static std::shared_ptr<VLVpnClient::VLVpnBackendClientIpcConfig> defaultIpcConfig() { return nullptr; }

    /// The main bundle's first preferred localization (the daemon has no
    /// bundle), else the current locale's language code, else its identifier.
    /// The current locale is the first of LC_ALL, LC_MESSAGES, LANG that is
    /// set; "C", "POSIX" or none mean "en_US_POSIX".
    static std::string applicationLanguage();
    /// The first "AppleLanguages" entry of the global defaults domain, else
    /// applicationLanguage().
    static std::string systemLanguage();
};

}  // namespace VpnHelper
