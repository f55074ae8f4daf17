// What one HTTP request asks for: URL, method, header fields, body, time-out
// and cache policy. A plain value; copies are independent.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace Foundation {

struct URLRequest {
    using Data = std::vector<std::uint8_t>;

    enum class CachePolicy {
        /// Whatever the protocol defines (for HTTP: no cache is kept by this stand-in).
        useProtocolCachePolicy,
        reloadIgnoringLocalCacheData,
    };

    /// Seconds; the platform's default.
    static constexpr double defaultTimeoutInterval = 60.0;

    explicit URLRequest(std::string url, CachePolicy cachePolicy = CachePolicy::useProtocolCachePolicy,
                        double timeoutInterval = defaultTimeoutInterval)
        : url(std::move(url)), cachePolicy(cachePolicy), timeoutInterval(timeoutInterval) {}

    std::string url;
    CachePolicy cachePolicy;
    /// The whole transfer's deadline in seconds; 0 or less: none.
    double timeoutInterval;
    std::string httpMethod = "GET";
    /// In the order set; names keep their spelling, lookups ignore case.
    std::vector<std::pair<std::string, std::string>> allHTTPHeaderFields;
    std::optional<Data> httpBody;

    /// Replaces the field of that name (any case), or adds it; an absent
    /// value removes it.
    void setValue(std::optional<std::string> value, std::string_view field);
    /// The field of that name (any case), or absent.
    std::optional<std::string> value(std::string_view field) const;

    friend bool operator==(const URLRequest&, const URLRequest&) = default;
};

/// True when the two header field names are equal ignoring ASCII case.
bool headerFieldNamesEqual(std::string_view a, std::string_view b);

}  // namespace Foundation
