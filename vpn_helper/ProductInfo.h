// The device-bound identity the daemon reports to the backend.
#pragma once

#include <functional>
#include <optional>
#include <string>

namespace VpnHelper {

class ProductInfo {
public:
    ProductInfo() = delete;

    /// The application id: the primary interface's MAC address (12 lower-case
    /// hex digits), else the platform serial number, used as is. Worked out
    /// once per process, on first use, from any thread.
    static const std::string& appId();

    /// The rule behind appId(): mac when present; otherwise logs at warning
    /// "Failed to get mac address - using serial number" and asks serialNumber.
    static std::string appId(const std::optional<std::string>& mac, const std::function<std::string()>& serialNumber);
};

}  // namespace VpnHelper
