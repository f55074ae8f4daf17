// An error reported by the backend client.
#pragma once

#include <cstdint>
#include <string>

namespace VLVpnClient {

struct VLVBCError {
    static constexpr const char* domainName = "VLVBCErrorDomain";
    /// Codes below 1000 are HTTP statuses the backend answered with; 1000 +
    /// the transfer library's code is a request that got no answer.
    static constexpr std::int64_t transportErrorBase = 1000;

    std::string domain = domainName;
    std::int64_t code = 0;
    /// What went wrong, naming the request's address and the status or transport failure.
    std::string localizedDescription;

    /// "Error Domain=<domain> Code=<code> \"<localizedDescription>\"".
    std::string description() const {
        return "Error Domain=" + domain + " Code=" + std::to_string(code) + " \"" + localizedDescription + "\"";
    }
};

}  // namespace VLVpnClient
