#include "SystemFacts/IORegistry.h"

#include <algorithm>
#include <charconv>
#include <limits>
#include <sstream>
#include <system_error>
#include <utility>

#include "Foundation/UTF8.h"

namespace SystemFacts {

namespace {

constexpr std::string_view ethernetInterfaceClass = "IOEthernetInterface";
constexpr std::string_view ethernetControllerClass = "IOEthernetController";
constexpr std::string_view platformExpertClass = "IOPlatformExpertDevice";
constexpr unsigned long loopbackFlag = 0x8;  // IFF_LOOPBACK

std::optional<unsigned long> parseUnsigned(std::string_view text, int base) {
    if (base == 16 && (text.starts_with("0x") || text.starts_with("0X"))) text.remove_prefix(2);
    unsigned long value = 0;
    const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), value, base);
    if (error != std::errc() || end != text.data() + text.size() || text.empty()) return std::nullopt;
    return value;
}

}  // namespace

std::optional<RegistryEntry> ServiceIterator::next() {
    if (position_ >= services_.size()) return std::nullopt;
    return services_[position_++];
}

IORegistry::IORegistry(FactSources sources) : sources_(std::move(sources)) {}

const IORegistry& IORegistry::system() {
    static const IORegistry registry;
    return registry;
}

std::optional<std::vector<std::uint8_t>> IORegistry::parseHardwareAddress(std::string_view text) {
    std::vector<std::uint8_t> bytes;
    size_t position = 0;
    while (position < text.size()) {
        if (!bytes.empty()) {
            if (text[position] != ':') return std::nullopt;
            ++position;
        }
        const auto byte = parseUnsigned(text.substr(position, 2), 16);
        if (!byte || position + 2 > text.size() || bytes.size() == 6) return std::nullopt;
        bytes.push_back(static_cast<std::uint8_t>(*byte));
        position += 2;
    }
    if (bytes.size() != 6) return std::nullopt;
    return bytes;
}

std::optional<std::vector<std::uint8_t>> IORegistry::hardwareAddress(const std::string& interface) const {
    const auto text = FactSources::readFile(sources_.sys / "class/net" / interface / "address");
    if (!text) return std::nullopt;
    auto bytes = parseHardwareAddress(FactSources::trimmed(*text));
    if (!bytes || std::all_of(bytes->begin(), bytes->end(), [](std::uint8_t b) { return b == 0; }))
        return std::nullopt;
    return bytes;
}

std::vector<std::string> IORegistry::defaultRouteInterfaces() const {
    // Iface Destination Gateway Flags RefCnt Use Metric Mask ...; hex fields.
    const auto table = FactSources::readFile(sources_.proc / "net/route", 1 << 20);
    if (!table) return {};
    std::vector<std::pair<unsigned long, std::string>> routes;
    std::istringstream lines(*table);
    std::string line;
    std::getline(lines, line);  // column header
    while (std::getline(lines, line)) {
        std::istringstream fields(line);
        std::string interface, destination, gateway, flags, refCount, use, metric, mask;
        if (!(fields >> interface >> destination >> gateway >> flags >> refCount >> use >> metric >> mask)) continue;
        const auto flagBits = parseUnsigned(flags, 16);
        const bool up = flagBits && (*flagBits & 0x1);
        if (!up || parseUnsigned(destination, 16) != 0UL || parseUnsigned(mask, 16) != 0UL) continue;
        routes.emplace_back(parseUnsigned(metric, 10).value_or(std::numeric_limits<unsigned long>::max()),
                            interface);
    }
    std::stable_sort(routes.begin(), routes.end(),
                     [](const auto& a, const auto& b) { return a.first < b.first; });
    std::vector<std::string> interfaces;
    for (auto& route : routes) interfaces.push_back(std::move(route.second));
    return interfaces;
}

std::optional<std::string> IORegistry::primaryInterfaceName() const {
    for (const auto& interface : defaultRouteInterfaces())
        if (hardwareAddress(interface)) return interface;

    std::error_code error;
    std::vector<std::pair<unsigned long, std::string>> candidates;
    for (const auto& item : std::filesystem::directory_iterator(sources_.sys / "class/net", error)) {
        const std::string name = item.path().filename().string();
        const auto flags = FactSources::readFile(item.path() / "flags");
        const auto flagBits = flags ? parseUnsigned(FactSources::trimmed(*flags), 16) : std::nullopt;
        const bool loopback = flagBits ? (*flagBits & loopbackFlag) != 0 : name == "lo";
        if (loopback || !hardwareAddress(name)) continue;
        const auto index = FactSources::readFile(item.path() / "ifindex");
        candidates.emplace_back(
            (index ? parseUnsigned(FactSources::trimmed(*index), 10) : std::nullopt)
                .value_or(std::numeric_limits<unsigned long>::max()),
            name);
    }
    if (candidates.empty()) return std::nullopt;
    return std::min_element(candidates.begin(), candidates.end())->second;
}

KernReturn IORegistry::getMatchingPrimaryEthernetInterfaces(ServiceIterator& iterator) const {
    std::error_code error;
    if (!std::filesystem::is_directory(sources_.sys / "class/net", error)) {
        iterator = ServiceIterator();
        return ioReturnError;
    }
    std::vector<RegistryEntry> services;
    if (auto name = primaryInterfaceName())
        services.push_back({std::string(ethernetInterfaceClass), *name, sources_.sys / "class/net" / *name});
    iterator = ServiceIterator(std::move(services));
    return kernSuccess;
}

std::optional<RegistryEntry> IORegistry::getMatchingPlatformExpertDevice() const {
    std::error_code error;
    const auto path = sources_.sys / "class/dmi/id";
    if (!std::filesystem::is_directory(path, error)) return std::nullopt;
    return RegistryEntry{std::string(platformExpertClass), "dmi", path};
}

KernReturn IORegistry::getParentEntry(const RegistryEntry& entry, RegistryEntry& parent) const {
    std::error_code error;
    if (entry.className != ethernetInterfaceClass) return ioReturnNotFound;
    if (!std::filesystem::is_directory(entry.path, error)) return ioReturnNotFound;
    parent = RegistryEntry{std::string(ethernetControllerClass), entry.name, entry.path};
    return kernSuccess;
}

RegistryProperty IORegistry::createProperty(const RegistryEntry& entry, std::string_view key) const {
    if (entry.className == ethernetControllerClass && key == "IOMACAddress") {
        const auto text = FactSources::readFile(entry.path / "address");
        if (!text) return {};
        const std::string address = FactSources::trimmed(*text);
        if (auto bytes = parseHardwareAddress(address)) return *bytes;
        return address;
    }
    if (entry.className == platformExpertClass && key == "IOPlatformSerialNumber") {
        const auto text = FactSources::readFile(entry.path / "product_serial");
        if (!text) return {};
        std::string serial = FactSources::trimmed(*text);
        if (serial.empty()) return {};
        if (!Foundation::isValidUTF8(serial)) return std::vector<std::uint8_t>(serial.begin(), serial.end());
        return serial;
    }
    return {};
}

}  // namespace SystemFacts
