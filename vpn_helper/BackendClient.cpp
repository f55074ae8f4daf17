#include "vpn_helper/BackendClient.h"

#include <charconv>
#include <cstdint>
#include <cstdlib>
#include <mutex>
#include <utility>
#include <vector>

#include "Foundation/UserDefaults.h"
#include "Tovik/Logger/Logger.h"
#include "Tovik/UnfairLock.h"
#include "vpn_helper/Locations.h"
#include "vpn_helper/ProductInfo.h"

namespace VpnHelper {

namespace {

using VLVpnClient::VLVpnBackendClientConfig;
using VLVpnClient::VLVpnBackendClientConfigAppVersion;
using VLVpnClient::VLVpnBackendClientProtocolEv1Overrides;

constexpr std::int64_t requestTimeoutMs = 10000;

Tovik::UnfairLock infoLookupLock;
BackendClient::InfoDictionaryLookup& mainBundleInfoLookup() {  // guarded by infoLookupLock
    static BackendClient::InfoDictionaryLookup lookup = [](std::string_view) { return std::nullopt; };
    return lookup;
}

std::optional<std::string> stringValue(const std::optional<nlohmann::json>& value) {
    if (!value || !value->is_string()) return std::nullopt;
    return value->get<std::string>();
}

std::optional<bool> booleanValue(const std::optional<nlohmann::json>& value) {
    if (!value || !value->is_boolean()) return std::nullopt;
    return value->get<bool>();
}

std::optional<std::int64_t> integerValue(const std::optional<nlohmann::json>& value) {
    if (!value || !value->is_number_integer()) return std::nullopt;
    if (value->is_number_unsigned() && value->get<std::uint64_t>() > static_cast<std::uint64_t>(INT64_MAX))
        return std::nullopt;
    return value->get<std::int64_t>();
}

std::optional<std::vector<std::string>> stringArrayValue(const std::optional<nlohmann::json>& value) {
    if (!value || !value->is_array()) return std::nullopt;
    std::vector<std::string> strings;
    for (const auto& element : *value) {
        if (!element.is_string()) return std::nullopt;
        strings.push_back(element.get<std::string>());
    }
    return strings;
}

/// A decimal integer with an optional leading sign; 0 for anything else.
std::int64_t versionPart(std::string_view text) {
    if (text.starts_with('+')) {
        text.remove_prefix(1);
        if (text.empty() || text[0] < '0' || text[0] > '9') return 0;
    }
    std::int64_t value = 0;
    const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), value, 10);
    if (error != std::errc() || end != text.data() + text.size()) return 0;
    return value;
}

/// "de_DE.UTF-8@euro" -> "de_DE"; "C", "POSIX" or nothing -> "en_US_POSIX".
std::string currentLocaleIdentifier() {
    for (const char* name : {"LC_ALL", "LC_MESSAGES", "LANG"}) {
        const char* value = std::getenv(name);
        if (value == nullptr || *value == '\0') continue;
        std::string identifier(value);
        identifier = identifier.substr(0, identifier.find_first_of(".@"));
        if (identifier.empty() || identifier == "C" || identifier == "POSIX") break;
        return identifier;
    }
    return "en_US_POSIX";
}

}  // namespace

const Dispatch::DispatchQueue& BackendClient::queue() {
    static const Dispatch::DispatchQueue queue("backend.client.queue", Dispatch::DispatchQoS::unspecified,
                                               Dispatch::DispatchQueue::Attributes::concurrent,
                                               Dispatch::DispatchQueue::AutoreleaseFrequency::inherit);
    return queue;
}

std::shared_ptr<VLVpnClient::VLVpnBackendClient> BackendClient::shared() {
    static const std::shared_ptr<VLVpnClient::VLVpnBackendClient> client = [] {
        // In the written order: arguments of one call may be evaluated in any
        // order, and each of these logs its own findings.
        auto config = defaultConfig();
        auto appDetails = defaultAppDetails();
        auto ipcConfig = defaultIpcConfig();
        return VLVpnClient::VLVpnBackendClient::create(config, appDetails, ipcConfig);
    }();
    return client;
}

void BackendClient::setMainBundleInfoLookup(InfoDictionaryLookup lookup) {
    std::lock_guard guard(infoLookupLock);
    mainBundleInfoLookup() = std::move(lookup);
}

const std::string& BackendClient::appVersionString() {
    static const std::string version = [] {
        InfoDictionaryLookup lookup;
        {
            std::lock_guard guard(infoLookupLock);
            lookup = mainBundleInfoLookup();
        }
        return (lookup ? lookup("VLVersion") : std::nullopt).value_or(fallbackAppVersion);
    }();
    return version;
}

const std::optional<std::string>& BackendClient::backendSelectorCacheDirectory() {
    static const std::optional<std::string> directory = []() -> std::optional<std::string> {
        const auto& tmpStorage = Locations::tmpStorageFolder();
        if (!tmpStorage) {
            TLOG_ERROR("backendSelectorCacheDirectory", std::string("Invalid backend selector cache directory"));
            return std::nullopt;
        }
        const auto folder = Locations::create(*tmpStorage / "selector", "Backend selector", std::nullopt);
        if (!folder) return std::nullopt;
        return folder->string();
    }();
    return directory;
}

BackendClient::DevConfigReader BackendClient::developerConfigReader() {
    return [](DevConfigKey key) {
        return DeveloperConfigUtils::queue().sync([key] { return DeveloperConfigUtils::shared()[key]; });
    };
}

std::shared_ptr<VLVpnBackendClientConfig> BackendClient::defaultConfig() {
    return makeConfig(developerConfigReader(), backendSelectorCacheDirectory(), appVersionString());
}

std::shared_ptr<VLVpnBackendClientConfig> BackendClient::makeConfig(const DevConfigReader& readKey,
                                                                    const std::optional<std::string>& cacheDirectory,
                                                                    std::string_view appVersionString) {
    auto config = std::make_shared<VLVpnBackendClientConfig>();
    config->version = 0;
    config->timeoutMs = requestTimeoutMs;
    config->tries = 0;
    config->accountType = 0;
    config->backendSelectorCacheDirectory = cacheDirectory;
    config->disableOutboundInterfaceBinding =
        booleanValue(readKey(DevConfigKey::disableOutboundInterfaceBinding)).value_or(false);
    if (auto timeout = integerValue(readKey(DevConfigKey::configFetchTimeoutMs)))
        config->backendSelectorConfigFetchTimeoutMs = *timeout;

    auto overrides = std::make_shared<VLVpnBackendClientProtocolEv1Overrides>();
    overrides->tmTxtDomain = builtInTmTxtDomain;
    overrides->tmFallbackDomain = builtInTmFallbackDomain;
    const auto apply = [&](auto value, auto& property) {
        if (!value) return;
        property = std::move(*value);
        config->protocolConfigOverrides = overrides;
    };
    apply(stringArrayValue(readKey(DevConfigKey::configFetchUrls)), overrides->backendSelectorConfigFetchUrls);
    apply(stringValue(readKey(DevConfigKey::authTxtDomain)), overrides->authTxtDomain);
    apply(stringValue(readKey(DevConfigKey::apiTxtDomain)), overrides->apiTxtDomain);
    apply(stringValue(readKey(DevConfigKey::authFallbackDomain)), overrides->authFallbackDomain);
    apply(stringValue(readKey(DevConfigKey::apiFallbackDomain)), overrides->apiFallbackDomain);
    apply(stringValue(readKey(DevConfigKey::tmTxtDomain)), overrides->tmTxtDomain);
    apply(stringValue(readKey(DevConfigKey::tmFallbackDomain)), overrides->tmFallbackDomain);

    config->appVersion = appVersion(appVersionString);
    return config;
}

std::shared_ptr<VLVpnBackendClientConfigAppVersion> BackendClient::appVersion(std::string_view versionString) {
    std::vector<std::string_view> parts;
    for (size_t start = 0;;) {
        const size_t dot = versionString.find('.', start);
        parts.push_back(versionString.substr(start, dot == std::string_view::npos ? dot : dot - start));
        if (dot == std::string_view::npos) break;
        start = dot + 1;
    }
    const auto part = [&](size_t index) { return index < parts.size() ? versionPart(parts[index]) : 0; };
    auto version = std::make_shared<VLVpnBackendClientConfigAppVersion>();
    version->major = part(0);
    version->minor = part(1);
    version->patch = part(2);
    version->build = buildNumber;
    return version;
}

std::shared_ptr<VLVpnClient::VLVBCAppDetails> BackendClient::defaultAppDetails() {
    auto details = std::make_shared<VLVpnClient::VLVBCAppDetails>();
    details->appId = ProductInfo::appId();
    details->appType = appType;
    details->language = applicationLanguage();
    details->sysLanguage = systemLanguage();
    details->version = appVersionString();
    return details;
}

std::string BackendClient::applicationLanguage() {
    const std::string identifier = currentLocaleIdentifier();
    const std::string languageCode = identifier.substr(0, identifier.find_first_of("_-"));
    return languageCode.empty() ? identifier : languageCode;
}

std::string BackendClient::systemLanguage() {
    const auto global = Foundation::UserDefaults::standard().persistentDomain("NSGlobalDomain");
    if (global) {
        const auto entry = global->find("AppleLanguages");
        if (entry != global->end()) {
            const auto* languages = entry->second.get<Foundation::PropertyList::Array>();
            if (languages && !languages->empty())
                if (const auto* first = languages->front().get<std::string>()) return *first;
        }
    }
    return applicationLanguage();
}

}  // namespace VpnHelper
