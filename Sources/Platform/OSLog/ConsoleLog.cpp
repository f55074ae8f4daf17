#include "OSLog/ConsoleLog.h"

#include <errno.h>
#include <sys/time.h>
#include <time.h>
#include <unistd.h>

#include <cstdio>

#include "Kernel/FileDescriptor.h"

namespace OSLog {

const char* programName() noexcept { return program_invocation_short_name; }

std::string consoleLine(std::string_view text) {
    timespec now{};
    clock_gettime(CLOCK_REALTIME, &now);
    tm local{};
    localtime_r(&now.tv_sec, &local);

    char prefix[160];
    int length = std::snprintf(prefix, sizeof prefix, "%04d-%02d-%02d %02d:%02d:%02d.%03ld %s[%ld:%ld] ",
                               local.tm_year + 1900, local.tm_mon + 1, local.tm_mday, local.tm_hour, local.tm_min,
                               local.tm_sec, static_cast<long>(now.tv_nsec / 1000000), programName(),
                               static_cast<long>(getpid()), static_cast<long>(gettid()));
    if (length < 0) length = 0;
    if (static_cast<size_t>(length) >= sizeof prefix) length = sizeof prefix - 1;

    std::string line;
    line.reserve(static_cast<size_t>(length) + text.size() + 1);
    line.append(prefix, static_cast<size_t>(length));
    line.append(text);
    return line;
}

void consoleLog(std::string_view text) noexcept {
    try {
        std::string line = consoleLine(text);
        line += '\n';
        Kernel::writeAll(STDERR_FILENO, line);
    } catch (...) {
        // Out of memory: the console line is lost, the caller carries on.
    }
}

}  // namespace OSLog
