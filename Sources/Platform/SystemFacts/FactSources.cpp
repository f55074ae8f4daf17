#include "SystemFacts/FactSources.h"

#include <cerrno>
#include <fcntl.h>
#include <sys/utsname.h>
#include <unistd.h>

namespace SystemFacts {

std::string FactSources::unameMachine() const {
    if (machine) return *machine;
    struct utsname name {};
    if (::uname(&name) != 0) return {};
    return name.machine;
}

std::string FactSources::unameRelease() const {
    if (kernelRelease) return *kernelRelease;
    struct utsname name {};
    if (::uname(&name) != 0) return {};
    return name.release;
}

std::optional<std::string> FactSources::readFile(const std::filesystem::path& path, std::size_t limit) {
    const int fd = ::open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NOCTTY);
    if (fd < 0) return std::nullopt;
    std::string text;
    char buffer[4096];
    bool failed = false;
    while (text.size() < limit) {
        const ssize_t count = ::read(fd, buffer, sizeof buffer);
        if (count > 0) {
            text.append(buffer, static_cast<std::size_t>(count));
        } else if (count == 0) {
            break;
        } else if (errno != EINTR) {
            failed = true;
            break;
        }
    }
    ::close(fd);
    if (failed) return std::nullopt;
    if (text.size() > limit) text.resize(limit);
    return text;
}

std::string FactSources::trimmed(std::string text) {
    while (!text.empty() && (text.back() == '\n' || text.back() == '\r' || text.back() == ' ' ||
                             text.back() == '\t' || text.back() == '\0'))
        text.pop_back();
    return text;
}

}  // namespace SystemFacts
