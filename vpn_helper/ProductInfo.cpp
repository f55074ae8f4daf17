#include "vpn_helper/ProductInfo.h"

#include "Tovik/Logger/Logger.h"
#include "Tovik/SystemInfo.h"

namespace VpnHelper {

const std::string& ProductInfo::appId() {
    static const std::string value = appId(Tovik::SystemInfo::mac(), [] { return Tovik::SystemInfo::serialNumber(); });
    return value;
}

std::string ProductInfo::appId(const std::optional<std::string>& mac, const std::function<std::string()>& serialNumber) {
    if (mac) return *mac;
    TLOG_WARN("appId", std::string("Failed to get mac address - using serial number"));
    return serialNumber();
}

}  // namespace VpnHelper
