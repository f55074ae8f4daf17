// An error as the platform's frameworks hand it out: a domain, a code within
// it, a readable text and extra facts. A plain value.
#pragma once

#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace Foundation {

/// URL-loading failures; codes are the platform's NSURLError values.
inline constexpr std::string_view NSURLErrorDomain = "NSURLErrorDomain";
/// errno values.
inline constexpr std::string_view NSPOSIXErrorDomain = "NSPOSIXErrorDomain";

/// userInfo keys this stand-in fills.
inline constexpr std::string_view NSErrorFailingURLStringKey = "NSErrorFailingURLStringKey";
inline constexpr std::string_view NSLocalizedFailureReasonErrorKey = "NSLocalizedFailureReason";

struct NSError {
    std::string domain;
    long code = 0;
    std::string localizedDescription;
    /// Key and text pairs, in the order added.
    std::vector<std::pair<std::string, std::string>> userInfo;

    /// Error Domain=<domain> Code=<code> "<localizedDescription>", followed by
    /// " UserInfo={key=value, ...}" when userInfo is not empty.
    std::string description() const;

    friend bool operator==(const NSError&, const NSError&) = default;
};

}  // namespace Foundation
