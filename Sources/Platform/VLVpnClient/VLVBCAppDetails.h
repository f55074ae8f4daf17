// The application a backend client speaks for.
#pragma once

#include <cstdint>
#include <string>

namespace VLVpnClient {

class VLVBCAppDetails {
public:
    std::string appId;
    std::int64_t appType = 0;
    std::string language;
    std::string sysLanguage;
    std::string version;
};

}  // namespace VLVpnClient
