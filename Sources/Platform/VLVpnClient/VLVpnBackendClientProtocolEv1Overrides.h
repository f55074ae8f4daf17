// Replacements for the backend client's built-in domains and selector URLs.
// An absent property keeps the built-in value.
#pragma once

#include <optional>
#include <string>
#include <vector>

namespace VLVpnClient {

class VLVpnBackendClientProtocolEv1Overrides {
public:
    std::optional<std::vector<std::string>> backendSelectorConfigFetchUrls;
    std::optional<std::string> authTxtDomain;
    std::optional<std::string> apiTxtDomain;
    std::optional<std::string> authFallbackDomain;
    /// The API host: "host", "host:port" (HTTPS) or a full "http://host:port" address.
    std::optional<std::string> apiFallbackDomain;
    std::optional<std::string> tmTxtDomain;
    std::optional<std::string> tmFallbackDomain;
};

}  // namespace VLVpnClient
