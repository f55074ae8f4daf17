#include "Tovik/SystemInfo.h"

#define PCRE2_CODE_UNIT_WIDTH 8
#include <pcre2.h>

#include <cerrno>
#include <cstdio>
#include <memory>
#include <variant>

#include "Foundation/UTF8.h"
#include "SystemFacts/OperatingSystemVersion.h"
#include "Tovik/Logger/Logger.h"
#include "Tovik/SystemUtils.h"

namespace Tovik {

namespace {

constexpr std::int32_t cpuTypeArm64 = 0x0100000C;
constexpr std::int32_t cpuTypeX86_64 = 0x01000007;
constexpr const char* noSerialNumber = "NOSERIALNUMBER";

struct CodeDeleter {
    void operator()(pcre2_code* code) const { pcre2_code_free(code); }
};
struct MatchDataDeleter {
    void operator()(pcre2_match_data* data) const { pcre2_match_data_free(data); }
};
using RegularExpression = std::unique_ptr<pcre2_code, CodeDeleter>;
using MatchData = std::unique_ptr<pcre2_match_data, MatchDataDeleter>;

RegularExpression compile(const char* pattern) {
    int errorCode = 0;
    PCRE2_SIZE errorOffset = 0;
    return RegularExpression(pcre2_compile(reinterpret_cast<PCRE2_SPTR>(pattern), PCRE2_ZERO_TERMINATED, 0,
                                           &errorCode, &errorOffset, nullptr));
}

/// The tool's line: six tab-separated columns, each possibly empty.
const RegularExpression& linePattern() {
    static const RegularExpression pattern =
        compile("^([^\\t]*)\\t([^\\t]*)\\t([^\\t]*)\\t([^\\t]*)\\t([^\\t]*)\\t([^\\t]*)$");
    return pattern;
}

/// A blank followed by a parenthesised version.
const RegularExpression& versionPattern() {
    static const RegularExpression pattern = compile(" \\([^)]*\\)");
    return pattern;
}

std::string removingMatches(const pcre2_code* pattern, const std::string& subject) {
    std::string result(subject.size() + 1, '\0');
    PCRE2_SIZE length = result.size();
    const int count = pcre2_substitute(pattern, reinterpret_cast<PCRE2_SPTR>(subject.data()), subject.size(), 0,
                                       PCRE2_SUBSTITUTE_GLOBAL, nullptr, nullptr,
                                       reinterpret_cast<PCRE2_SPTR>(""), 0,
                                       reinterpret_cast<PCRE2_UCHAR*>(result.data()), &length);
    if (count < 0) return subject;
    result.resize(length);
    return result;
}

}  // namespace

std::string_view rawValue(CPUType type) {
    switch (type) {
        case CPUType::arm64: return "arm64";
        case CPUType::x86_64: return "x86_64";
        case CPUType::unknown: break;
    }
    return "unknown";
}

std::optional<CPUType> cpuTypeFromRawValue(std::string_view rawValue) {
    if (rawValue == "unknown") return CPUType::unknown;
    if (rawValue == "arm64") return CPUType::arm64;
    if (rawValue == "x86_64") return CPUType::x86_64;
    return std::nullopt;
}

SystemFacts::KernReturn SystemInfo::FindEthernetInterfaces(SystemFacts::ServiceIterator& iterator,
                                                           const SystemFacts::IORegistry& registry) {
    const SystemFacts::KernReturn code = registry.getMatchingPrimaryEthernetInterfaces(iterator);
    if (code != SystemFacts::kernSuccess)
        TLOG_ERROR("FindEthernetInterfaces(_:)", "IOServiceGetMatchingServices returned " + std::to_string(code));
    return code;
}

std::optional<std::vector<std::uint8_t>> SystemInfo::GetMACAddress(SystemFacts::ServiceIterator& iterator,
                                                                   const SystemFacts::IORegistry& registry) {
    std::optional<std::vector<std::uint8_t>> address;
    while (auto service = iterator.next()) {
        SystemFacts::RegistryEntry controller;
        const SystemFacts::KernReturn code = registry.getParentEntry(*service, controller);
        if (code != SystemFacts::kernSuccess) {
            TLOG_ERROR("GetMACAddress(_:)", "IORegistryEntryGetParentEntry returned " + std::to_string(code));
            continue;
        }
        auto property = registry.createProperty(controller, "IOMACAddress");
        if (std::holds_alternative<std::monostate>(property)) {
            address.reset();
        } else if (auto* bytes = std::get_if<std::vector<std::uint8_t>>(&property)) {
            address = std::move(*bytes);
        }
    }
    return address;
}

std::optional<std::string> SystemInfo::readMac(const SystemFacts::IORegistry& registry) {
    SystemFacts::ServiceIterator iterator;
    const SystemFacts::KernReturn code = FindEthernetInterfaces(iterator, registry);
    if (code != SystemFacts::kernSuccess) {
        char text[64];
        std::snprintf(text, sizeof text, "FindEthernetInterfaces returned 0x%08x", static_cast<unsigned>(code));
        TLOG_ERROR("mac", std::string(text));
        return std::nullopt;
    }
    const auto bytes = GetMACAddress(iterator, registry);
    if (!bytes) return std::nullopt;
    std::string mac;
    for (const std::uint8_t byte : *bytes) {
        char piece[3];
        std::snprintf(piece, sizeof piece, "%02hhx", byte);
        mac += piece;
    }
    return mac;
}

std::string SystemInfo::readSerialNumber(const SystemFacts::IORegistry& registry) {
    const auto device = registry.getMatchingPlatformExpertDevice();
    if (!device) return noSerialNumber;
    auto property = registry.createProperty(*device, "IOPlatformSerialNumber");
    if (auto* serial = std::get_if<std::string>(&property)) return std::move(*serial);
    if (std::holds_alternative<std::monostate>(property)) {
        TLOG_ERROR("serialNumber", "IORegistryEntryCreateCFProperty return nil.");
    } else {
        TLOG_ERROR("serialNumber", "IORegistryEntryCreateCFProperty return not string.");
    }
    return noSerialNumber;
}

std::optional<std::string> SystemInfo::mac() {
    static const std::optional<std::string> value = readMac(SystemFacts::IORegistry::system());
    return value;
}

std::string SystemInfo::serialNumber() {
    static const std::string value = readSerialNumber(SystemFacts::IORegistry::system());
    return value;
}

CPUType SystemInfo::getCPUType(const SystemFacts::Sysctl& sysctl) {
    std::int32_t type = 0;
    std::size_t size = sizeof type;
    sysctl.sysctlbyname("hw.cputype", &type, &size);
    switch (type) {
        case cpuTypeArm64: return CPUType::arm64;
        case cpuTypeX86_64: return CPUType::x86_64;
        default: return CPUType::unknown;
    }
}

std::string SystemInfo::getHardwareModel(const SystemFacts::Sysctl& sysctl) {
    std::size_t size = 0;
    if (sysctl.sysctlbyname("hw.model", nullptr, &size) != 0 || size == 0) return {};
    std::vector<char> buffer(size, '\0');
    if (sysctl.sysctlbyname("hw.model", buffer.data(), &size) != 0 && errno != ENOMEM) return {};
    const std::string_view bytes(buffer.data(), buffer.size());
    return Foundation::repairingUTF8(bytes.substr(0, bytes.find('\0')));
}

std::string SystemInfo::getOSVersion(const SystemFacts::FactSources& sources) {
    const auto version = SystemFacts::OperatingSystemVersion::current(sources);
    return std::to_string(version.majorVersion) + "." + std::to_string(version.minorVersion) + "." +
           std::to_string(version.patchVersion);
}

std::vector<SystemExtensionInfo> SystemInfo::getActiveSystemExtensions() {
    if (!linePattern() || !versionPattern()) return {};
    const auto [status, output] =
        SystemUtil::cliUtilText("/usr/bin/systemextensionsctl", {"list"}, std::nullopt, true);
    (void)status;
    if (!output) return {};
    return parseSystemExtensions(*output);
}

std::vector<SystemExtensionInfo> SystemInfo::parseSystemExtensions(std::string_view toolOutput) {
    const pcre2_code* line = linePattern().get();
    const pcre2_code* version = versionPattern().get();
    if (line == nullptr || version == nullptr) return {};
    const MatchData match(pcre2_match_data_create_from_pattern(line, nullptr));
    if (!match) return {};

    std::vector<SystemExtensionInfo> extensions;
    bool headerSeen = false;
    size_t start = 0;
    while (start < toolOutput.size()) {
        size_t end = toolOutput.find('\n', start);
        if (end == std::string_view::npos) end = toolOutput.size();
        const std::string_view text = toolOutput.substr(start, end - start);
        start = end + 1;
        if (text.empty()) continue;
        if (pcre2_match(line, reinterpret_cast<PCRE2_SPTR>(text.data()), text.size(), 0, 0, match.get(),
                        nullptr) < 0)
            continue;
        if (!headerSeen) {
            headerSeen = true;
            continue;
        }
        const PCRE2_SIZE* ovector = pcre2_get_ovector_pointer(match.get());
        const auto column = [&](int number) -> std::optional<std::string> {
            const PCRE2_SIZE from = ovector[2 * number], to = ovector[2 * number + 1];
            if (from == PCRE2_UNSET) return std::nullopt;
            return std::string(text.substr(from, to - from));
        };
        const auto enabled = column(1), active = column(2), team = column(3), bundle = column(4);
        if (!active || active->empty()) continue;
        SystemExtensionInfo info;
        info.enabled = enabled && !enabled->empty();
        info.teamID = team.value_or("");
        info.bundleID = bundle ? removingMatches(version, *bundle) : std::string();
        extensions.push_back(std::move(info));
    }
    return extensions;
}

}  // namespace Tovik
