// The parts of the I/O Kit registry that machine identification asks for,
// answered from the kernel's network and DMI trees.
//
// Services:
// - "IOEthernetInterface" matching IOPrimaryInterface = true: at most one,
//   the primary network interface. That is the interface carrying the default
//   route in <proc>/net/route (lowest metric first) when it has a hardware
//   address, else the first non-loopback interface (by interface index) with a
//   hardware address in <sys>/class/net/<if>/address. A hardware address is six
//   bytes, not all zero.
// - its parent in the service plane, "IOEthernetController", carries
//   "IOMACAddress": the six address bytes.
// - "IOPlatformExpertDevice": present when <sys>/class/dmi/id exists; carries
//   "IOPlatformSerialNumber" from product_serial (readable by root only).
//
// Every member is const and reads the trees afresh; any thread may call them.
#pragma once

#include <cstddef>
#include <cstdint>
#include <filesystem>
#include <optional>
#include <string>
#include <string_view>
#include <variant>
#include <vector>

#include "SystemFacts/FactSources.h"

namespace SystemFacts {

/// kern_return_t / IOReturn: 0 is success.
using KernReturn = std::int32_t;
inline constexpr KernReturn kernSuccess = 0;
inline constexpr KernReturn kernFailure = 5;
inline constexpr KernReturn ioReturnError = static_cast<KernReturn>(0xE00002BC);
inline constexpr KernReturn ioReturnNotFound = static_cast<KernReturn>(0xE00002F0);

/// One registry entry (an io_object_t).
struct RegistryEntry {
    std::string className;
    std::string name;
    std::filesystem::path path;
};

/// A property value: missing, a byte buffer (CFData) or a string (CFString).
using RegistryProperty = std::variant<std::monostate, std::vector<std::uint8_t>, std::string>;

/// The services a matching call found (an io_iterator_t); releasing is
/// the object's destruction.
class ServiceIterator {
public:
    ServiceIterator() = default;
    explicit ServiceIterator(std::vector<RegistryEntry> services) : services_(std::move(services)) {}

    /// IOIteratorNext: the next service, or absent at the end.
    std::optional<RegistryEntry> next();

private:
    std::vector<RegistryEntry> services_;
    std::size_t position_ = 0;
};

class IORegistry {
public:
    explicit IORegistry(FactSources sources = {});

    /// The registry of this machine (default roots).
    static const IORegistry& system();

    /// IOServiceGetMatchingServices for the primary Ethernet interface. Fills
    /// iterator with zero or one service; ioReturnError when the network
    /// interface tree cannot be listed.
    KernReturn getMatchingPrimaryEthernetInterfaces(ServiceIterator& iterator) const;

    /// IOServiceGetMatchingService for "IOPlatformExpertDevice"; absent
    /// when the machine has no DMI tree.
    std::optional<RegistryEntry> getMatchingPlatformExpertDevice() const;

    /// IORegistryEntryGetParentEntry in the service plane: an interface's
    /// controller. ioReturnNotFound when the interface has gone meanwhile.
    KernReturn getParentEntry(const RegistryEntry& entry, RegistryEntry& parent) const;

    /// IORegistryEntryCreateCFProperty. Missing when the entry does not carry
    /// the key or the value cannot be read. "IOMACAddress" that is not six
    /// hex bytes comes back as its text; a serial number that is not UTF-8
    /// comes back as bytes.
    RegistryProperty createProperty(const RegistryEntry& entry, std::string_view key) const;

    /// The name of the primary interface (see the banner), or absent.
    std::optional<std::string> primaryInterfaceName() const;

    /// "aa:bb:cc:dd:ee:ff" as six bytes; absent for any other text.
    static std::optional<std::vector<std::uint8_t>> parseHardwareAddress(std::string_view text);

private:
    std::optional<std::vector<std::uint8_t>> hardwareAddress(const std::string& interface) const;
    std::vector<std::string> defaultRouteInterfaces() const;

    FactSources sources_;
};

}  // namespace SystemFacts
