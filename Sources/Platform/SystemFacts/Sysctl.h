// sysctlbyname(3) for the hardware names machine identification reads.
//
// - "hw.cputype": int32, the CPU_TYPE_* value of uname's machine
//   (x86_64 0x01000007, arm64 0x0100000C, 32-bit x86 7, 32-bit ARM 12,
//   anything else CPU_TYPE_ANY, -1).
// - "hw.model": NUL-terminated string, the DMI product name, else the device
//   tree's model.
//
// Members are const and read the trees afresh; any thread may call them.
#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

#include "SystemFacts/FactSources.h"

namespace SystemFacts {

class Sysctl {
public:
    explicit Sysctl(FactSources sources = {});

    /// Sysctl of this machine (default roots).
    static const Sysctl& system();

    /// With oldp null, stores the value's size in *oldlenp. Otherwise copies
    /// at most *oldlenp bytes to oldp and stores the size copied. Returns 0,
    /// or -1 with errno: ENOENT for a name not answered here or a value that
    /// is not available, ENOMEM when the buffer is too small (it then holds
    /// the leading bytes), EPERM when a new value is given.
    int sysctlbyname(const char* name, void* oldp, std::size_t* oldlenp, const void* newp = nullptr,
                     std::size_t newlen = 0) const;

    /// The CPU_TYPE_* value for a uname machine name.
    static std::int32_t cpuTypeForMachine(std::string_view machine);

private:
    std::optional<std::string> hardwareModel() const;

    FactSources sources_;
};

}  // namespace SystemFacts
