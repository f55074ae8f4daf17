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
        // A part starts with a digit: from_chars alone would take "-0".
        if (position == end || *position < '0' || *position > '9') break;
        std::int64_t value = 0;
        const auto [next, error] = std::from_chars(position, end, value);
        if (error != std::errc()) break;
        *parts[index] = value;
        position = next;
    }
    return version;
}

}  // namespace SystemFacts
