#include "Tovik/Logger/Handlers/StdoutLogHandler.h"

#include <errno.h>
#include <unistd.h>

#include <string>

#include "Kernel/FileDescriptor.h"

namespace Tovik {

void StdoutLogHandler::log(LogLevel, Date, std::string_view text) noexcept {
    try {
        std::string line;
        line.reserve(text.size() + 1);
        line.append(text);
        line += '\n';
        Kernel::writeAll(STDOUT_FILENO, line);
    } catch (...) {
        // Out of memory: the line is lost.
    }
}

}  // namespace Tovik
