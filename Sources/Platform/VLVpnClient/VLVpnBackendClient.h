// The vendor backend client: reports application events to the backend API.
//
// Requests go to the API domain: the overrides' apiFallbackDomain when the
// configuration carries one ("http://host:port" is used as given, a bare host
// means HTTPS), else defaultApiDomain. Each request is one attempt, limited by
// the configuration's timeoutMs; environment proxies are honoured except for
// loopback addresses.
//
// The uninstall report is POST <domain>/v1/apps/uninstall with
// "Content-Type: application/json" and the body
//
//     {"appDetails": {"appId": "<id>", "appType": 8, "language": "en",
//                     "sysLanguage": "en", "version": "2.11.0"},
//      "appVersion": {"major": 2, "minor": 11, "patch": 0, "build": 1143}}
//
// A client is immutable after creation and may be used from any thread.
#pragma once

#include <memory>
#include <string>

#include "VLVpnClient/VLVBCAppDetails.h"
#include "VLVpnClient/VLVBCAppsApi.h"
#include "VLVpnClient/VLVpnBackendClientConfig.h"
#include "VLVpnClient/VLVpnBackendClientIpcConfig.h"

namespace VLVpnClient {

class VLVpnBackendClient {
public:
    static constexpr const char* defaultApiDomain = "https://api.velmora.com";
    static constexpr const char* appUninstallPath = "/v1/apps/uninstall";

    /// initWithConfig:appDetails:ipcConfig:. Takes a copy of the settings as
    /// they are now. Null when config, its appVersion or appDetails is missing.
    static std::shared_ptr<VLVpnBackendClient> create(
        const std::shared_ptr<VLVpnBackendClientConfig>& config, const std::shared_ptr<VLVBCAppDetails>& appDetails,
        const std::shared_ptr<VLVpnBackendClientIpcConfig>& ipcConfig);

    /// The application events interface; the same object on every call.
    std::shared_ptr<VLVBCAppsApi> appsApi() const { return appsApi_; }

    /// The API base address the requests go to, without a trailing slash.
    const std::string& apiBaseUrl() const { return apiBaseUrl_; }

private:
    VLVpnBackendClient(const VLVpnBackendClientConfig& config, const VLVBCAppDetails& appDetails);

    std::string apiBaseUrl_;
    std::shared_ptr<VLVBCAppsApi> appsApi_;
};

}  // namespace VLVpnClient
