#include "Tovik/Logger/Handlers/StdoutLogHandler.h"

#include <errno.h>
#include <unistd.h>

#include <string>

namespace Tovik {

void StdoutLogHandler::log(LogLevel, Date, std::string_view text) noexcept {
    try {
        std::string line;
        line.reserve(text.size() + 1);
        line.append(text);
        line += '\n';
        const char* data = line.data();
        size_t left = line.size();
        while (left > 0) {
            ssize_t written = ::write(STDOUT_FILENO, data, left);
            if (written < 0) {
                if (errno == EINTR) continue;
                return;
            }
            data += written;
            left -= static_cast<size_t>(written);
        }
    } catch (...) {
        // Out of memory: the line is lost.
    }
}

}  // namespace Tovik
