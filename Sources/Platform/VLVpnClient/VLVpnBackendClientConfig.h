// Settings of a backend client.
#pragma once

#include <cstdint>
#include <memory>
#include <optional>
#include <string>

#include "VLVpnClient/VLVpnBackendClientConfigAppVersion.h"
#include "VLVpnClient/VLVpnBackendClientProtocolEv1Overrides.h"

namespace VLVpnClient {

class VLVpnBackendClientConfig {
public:
    /// The framework's fetch time-out of the backend selector configuration.
    static constexpr std::int64_t defaultBackendSelectorConfigFetchTimeoutMs = 5000;

    std::int64_t version = 0;
    /// Time-out of one request, connection included; 0 waits without limit.
    std::int64_t timeoutMs = 0;
    /// Attempts per request; this client makes exactly one whatever the value.
    std::int64_t tries = 0;
    std::int64_t accountType = 0;
    std::optional<std::string> backendSelectorCacheDirectory;
    bool disableOutboundInterfaceBinding = false;
    std::int64_t backendSelectorConfigFetchTimeoutMs = defaultBackendSelectorConfigFetchTimeoutMs;
    /// Absent: the built-in domains.
    std::shared_ptr<VLVpnBackendClientProtocolEv1Overrides> protocolConfigOverrides;
    std::shared_ptr<VLVpnBackendClientConfigAppVersion> appVersion;
};

}  // namespace VLVpnClient
