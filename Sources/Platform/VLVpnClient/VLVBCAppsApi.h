// The application events of the backend API.
#pragma once

#include <optional>

#include "VLVpnClient/VLVBCError.h"

namespace VLVpnClient {

class VLVBCAppsApi {
public:
    virtual ~VLVBCAppsApi() = default;

    /// Reports that the application was uninstalled: one HTTP POST of
    /// "/v1/apps/uninstall" to the API domain, blocking the caller until the
    /// answer or the client's time-out. Nothing on a 2xx answer; otherwise an
    /// error naming the HTTP status or the transport failure. Any thread.
    [[nodiscard]] virtual std::optional<VLVBCError> trackAppUninstall() = 0;
};

}  // namespace VLVpnClient
