// The running system's version triple, taken from the kernel release.
#pragma once

#include <cstdint>
#include <string_view>

#include "SystemFacts/FactSources.h"

namespace SystemFacts {

struct OperatingSystemVersion {
    std::int64_t majorVersion = 0;
    std::int64_t minorVersion = 0;
    std::int64_t patchVersion = 0;

    /// The version of the running kernel (sources' release); 0.0.0 when unknown.
    static OperatingSystemVersion current(const FactSources& sources = {});

    /// The leading dot-separated decimal numbers of a release: "6.1.0-18-amd64"
    /// gives 6, 1, 0; "6.8-rc1" gives 6, 8, 0. A part that is missing or does
    /// not start with a digit, and every part after it, is 0.
    static OperatingSystemVersion fromKernelRelease(std::string_view release);

    friend bool operator==(const OperatingSystemVersion&, const OperatingSystemVersion&) = default;
};

}  // namespace SystemFacts
