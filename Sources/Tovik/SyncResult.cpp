#include "Tovik/SyncResult.h"

#include <charconv>
#include <cmath>
#include <string>

#include "Tovik/Logger/Logger.h"

namespace Tovik::detail {

namespace {

// A double in its default decimal form: the shortest text that reads back as
// the same value, with ".0" on whole numbers ("5.0", "0.5", "0.25"), and
// exponent notation outside 1e-4 ... 2^53 ("1e-05", "1e+16").
std::string decimalText(double value) {
    if (std::isnan(value)) return "nan";
    if (std::isinf(value)) return value < 0 ? "-inf" : "inf";

    char buffer[64];
    const double magnitude = std::fabs(value);
    const bool exponential = magnitude != 0 && (magnitude < 1e-4 || magnitude > 9007199254740992.0);
    auto [end, ec] = std::to_chars(buffer, buffer + sizeof buffer, value,
                                   exponential ? std::chars_format::scientific : std::chars_format::fixed);
    if (ec != std::errc()) return "0.0";
    std::string text(buffer, end);
    if (!exponential) {
        if (text.find('.') == std::string::npos) text += ".0";
        return text;
    }
    // to_chars writes "1e-05" as "1e-05" already and "1e+16" as "1e+16".
    return text;
}

}  // namespace

void logSyncResultTimeout(std::string_view name, double timeout, std::string_view file, std::string_view function,
                          unsigned line) {
    Logger::shared().log(
        LogLevel::info,
        [&] { return std::string(name) + " timed out for " + decimalText(timeout) + " secs."; }, file, function,
        line);
}

}  // namespace Tovik::detail
