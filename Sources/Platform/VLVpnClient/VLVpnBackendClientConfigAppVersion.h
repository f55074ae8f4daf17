// The application version the backend client reports.
#pragma once

#include <cstdint>

namespace VLVpnClient {

class VLVpnBackendClientConfigAppVersion {
public:
    std::int64_t major = 0;
    std::int64_t minor = 0;
    std::int64_t patch = 0;
    std::int64_t build = 0;
};

}  // namespace VLVpnClient
