// The platform's console logging call.
//
// Writes one line to standard error the way the console call prints it:
//     "2024-05-01 12:34:56.789 vpn_helper[1234:1240] text\n"
// local date and time with milliseconds, the program name, the process id and
// the calling thread's id. The text is printed verbatim (never used as a
// format); an empty text gives a line with the prefix alone.
#pragma once

#include <string>
#include <string_view>

namespace OSLog {

/// One write(2) per line, so lines from several threads or processes do not
/// interleave. Callable from any thread; failures are swallowed.
void consoleLog(std::string_view text) noexcept;

/// The line consoleLog(text) writes, without the line feed.
std::string consoleLine(std::string_view text);

/// The program's short name (the last component of argv[0]).
const char* programName() noexcept;

}  // namespace OSLog
