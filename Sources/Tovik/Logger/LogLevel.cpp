#include "Tovik/Logger/LogLevel.h"

#include <array>

namespace Tovik {

namespace {
constexpr std::array<std::string_view, 5> descriptions{"verbose", "debug", "info", "warning", "error"};
constexpr std::array<char, 5> letters{'V', 'D', 'I', 'W', 'E'};
}  // namespace

std::optional<LogLevel> logLevelFromRawValue(int64_t rawValue) {
    if (rawValue < 0 || rawValue > 4) return std::nullopt;
    return static_cast<LogLevel>(rawValue);
}

LogLevel logLevelFromDescription(std::string_view text) {
    for (size_t i = 0; i < descriptions.size(); ++i) {
        if (descriptions[i] == text) return static_cast<LogLevel>(i);
    }
    return LogLevel::info;
}

std::string_view description(LogLevel level) { return descriptions[static_cast<size_t>(level)]; }

char letter(LogLevel level) { return letters[static_cast<size_t>(level)]; }

}  // namespace Tovik
