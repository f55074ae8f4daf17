#include "SystemFacts/OperatingSystemVersion.h"

#include <charconv>

namespace SystemFacts {

OperatingSystemVersion OperatingSystemVersion::current(const FactSources& sources) {
    return fromKernelRelease(sources.unameRelease());
}

OperatingSystemVersion OperatingSystemVersion::fromKernelRelease(std::string_view release) {
    OperatingSystemVersion version;
    std::int64_t* parts[] = {&version.majorVersion, &version.minorVersion, &version.patchVersion};
    const char* position = release.data();
    const char* const end = release.data() + release.size();
    for (size_t index = 0; index < 3; ++index) {
        if (index > 0) {
            if (position == end || *position != '.') break;
            ++position;
        }
        std::int64_t value = 0;
        const auto [next, error] = std::from_chars(position, end, value);
        if (error != std::errc() || value < 0) break;
        *parts[index] = value;
        position = next;
    }
    return version;
}

}  // namespace SystemFacts
