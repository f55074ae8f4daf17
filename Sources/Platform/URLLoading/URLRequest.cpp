#include "URLLoading/URLRequest.h"

#include <algorithm>

namespace Foundation {

namespace {

char lowered(char c) { return c >= 'A' && c <= 'Z' ? static_cast<char>(c - 'A' + 'a') : c; }

}  // namespace

bool headerFieldNamesEqual(std::string_view a, std::string_view b) {
    return std::equal(a.begin(), a.end(), b.begin(), b.end(),
                      [](char x, char y) { return lowered(x) == lowered(y); });
}

void URLRequest::setValue(std::optional<std::string> value, std::string_view field) {
    auto named = [&](const auto& entry) { return headerFieldNamesEqual(entry.first, field); };
    auto found = std::find_if(allHTTPHeaderFields.begin(), allHTTPHeaderFields.end(), named);
    if (!value) {
        if (found != allHTTPHeaderFields.end()) allHTTPHeaderFields.erase(found);
        return;
    }
    if (found != allHTTPHeaderFields.end())
        found->second = std::move(*value);
    else
        allHTTPHeaderFields.emplace_back(std::string(field), std::move(*value));
}

std::optional<std::string> URLRequest::value(std::string_view field) const {
    for (const auto& [name, value] : allHTTPHeaderFields)
        if (headerFieldNamesEqual(name, field)) return value;
    return std::nullopt;
}

}  // namespace Foundation
