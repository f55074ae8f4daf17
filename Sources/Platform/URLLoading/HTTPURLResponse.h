// The head of an HTTP answer: final URL (after redirects), status code and
// header fields as received. A plain value.
#pragma once

#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "URLLoading/URLRequest.h"

namespace Foundation {

struct HTTPURLResponse {
    std::string url;
    long statusCode = 0;
    /// In arrival order, names as sent.
    std::vector<std::pair<std::string, std::string>> allHeaderFields;

    /// The first field of that name (any case), or absent.
    std::optional<std::string> value(std::string_view field) const {
        for (const auto& [name, value] : allHeaderFields)
            if (headerFieldNamesEqual(name, field)) return value;
        return std::nullopt;
    }

    friend bool operator==(const HTTPURLResponse&, const HTTPURLResponse&) = default;
};

}  // namespace Foundation
