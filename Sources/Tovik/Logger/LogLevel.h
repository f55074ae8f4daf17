// Severity of a log call.
#pragma once

#include <cstdint>
#include <optional>
#include <string_view>

namespace Tovik {

/// Ordered levels; a larger raw value is more severe.
enum class LogLevel : int64_t { verbose = 0, debug = 1, info = 2, warning = 3, error = 4 };

/// 0...4 give their level; any other number gives nothing.
std::optional<LogLevel> logLevelFromRawValue(int64_t rawValue);
/// Exact, case-sensitive match of a description ("verbose" ... "error");
/// any other text, the empty one included, gives `info`.
LogLevel logLevelFromDescription(std::string_view description);
/// "verbose", "debug", "info", "warning", "error".
std::string_view description(LogLevel level);
/// 'V', 'D', 'I', 'W', 'E'.
char letter(LogLevel level);

}  // namespace Tovik
