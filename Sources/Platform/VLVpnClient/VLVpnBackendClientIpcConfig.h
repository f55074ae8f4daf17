// Configuration of the backend client's channel to a peer process. The daemon
// passes none.
#pragma once

namespace VLVpnClient {

class VLVpnBackendClientIpcConfig {};

}  // namespace VLVpnClient
