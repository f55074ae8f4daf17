// Hardware and operating-system facts: the primary interface's MAC address,
// the platform serial number, processor family, hardware model, OS version and
// the active system extensions.
//
// Everything is read-only; failures are logged at error and turned into a
// value (absent, "NOSERIALNUMBER", CPUType::unknown, an empty list). Any thread
// may call these. mac() and serialNumber() query the registry once per process
// (concurrent first uses wait for the one query); the other members work on
// every call. The members that take a registry, a sysctl or fact sources
// default to this machine's; tests hand in ones over fake trees.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "SystemFacts/FactSources.h"
#include "SystemFacts/IORegistry.h"
#include "SystemFacts/Sysctl.h"

namespace Tovik {

/// Processor family, from "hw.cputype".
enum class CPUType { unknown, arm64, x86_64 };

/// "unknown", "arm64", "x86_64".
std::string_view rawValue(CPUType type);
/// Exactly one of the three raw values (case-sensitive); anything else gives nothing.
std::optional<CPUType> cpuTypeFromRawValue(std::string_view rawValue);

/// One line of the system extensions tool's list.
struct SystemExtensionInfo {
    /// Without the version in parentheses.
    std::string bundleID;
    /// Empty when the tool's column is empty.
    std::string teamID;
    /// The tool's enabled marker column is non-empty.
    bool enabled = false;

    friend bool operator==(const SystemExtensionInfo&, const SystemExtensionInfo&) = default;
};

class SystemInfo {
public:
    SystemInfo() = delete;

    /// The primary interface's MAC address as 12 lower-case hex digits, or
    /// absent. Worked out once per process; a failure is kept too.
    static std::optional<std::string> mac();
    /// The platform serial number, or "NOSERIALNUMBER". Worked out once per process.
    static std::string serialNumber();

    /// From "hw.cputype"; unknown when the query fails or the type is neither family.
    static CPUType getCPUType(const SystemFacts::Sysctl& sysctl = SystemFacts::Sysctl::system());
    /// The "hw.model" string (invalid UTF-8 repaired); "" when the machine
    /// reports no model.
    static std::string getHardwareModel(const SystemFacts::Sysctl& sysctl = SystemFacts::Sysctl::system());
    /// Major, minor and patch joined with dots, always three parts ("6.1.0").
    static std::string getOSVersion(const SystemFacts::FactSources& sources = {});

    /// The active extensions listed by "/usr/bin/systemextensionsctl list",
    /// in the tool's order; empty on any failure (no tool, no output, output
    /// that is not UTF-8). Blocks until the tool has exited.
    static std::vector<SystemExtensionInfo> getActiveSystemExtensions();
    /// The parser behind getActiveSystemExtensions(): lines of six
    /// tab-separated columns, the first such line being the header.
    static std::vector<SystemExtensionInfo> parseSystemExtensions(std::string_view toolOutput);

    /// Fills iterator with the primary Ethernet interfaces. On failure logs
    /// "IOServiceGetMatchingServices returned <code>" and returns the code.
    static SystemFacts::KernReturn FindEthernetInterfaces(
        SystemFacts::ServiceIterator& iterator,
        const SystemFacts::IORegistry& registry = SystemFacts::IORegistry::system());
    /// The "IOMACAddress" bytes of the controller of the last service the
    /// iterator yields, or absent. An interface whose controller cannot be
    /// found is logged and skipped.
    static std::optional<std::vector<std::uint8_t>> GetMACAddress(
        SystemFacts::ServiceIterator& iterator,
        const SystemFacts::IORegistry& registry = SystemFacts::IORegistry::system());

    /// The uncached work behind mac() and serialNumber(), on any registry.
    static std::optional<std::string> readMac(const SystemFacts::IORegistry& registry);
    static std::string readSerialNumber(const SystemFacts::IORegistry& registry);
};

}  // namespace Tovik
