// Fuzzes what machine identification reads from tools and the kernel. The
// input is split at each line "====" into parts:
//   0  the output of "systemextensionsctl list"
//   1  a hardware address text, also the primary interface's address file
//   2  the kernel release
//   3  <proc>/net/route
//   4  <sys>/class/dmi/id/product_serial
//   5  <sys>/class/dmi/id/product_name
//   6  uname's machine
//   7  the interface's flags file
// Missing parts are empty. Parts 1, 3, 4, 5 and 7 are written into a fake
// FactSources tree (made once per process) that the registry and sysctl
// stand-ins then read, as they read /proc and /sys.
#include <cctype>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <string>
#include <string_view>
#include <vector>

#include "Fuzz/FuzzSupport.h"
#include "SystemFacts/IORegistry.h"
#include "SystemFacts/OperatingSystemVersion.h"
#include "SystemFacts/Sysctl.h"
#include "Tovik/SystemInfo.h"

namespace {

std::vector<std::string_view> parts(std::string_view input, size_t count) {
    constexpr std::string_view separator = "\n====\n";
    std::vector<std::string_view> result;
    while (result.size() + 1 < count) {
        const size_t at = input.find(separator);
        if (at == std::string_view::npos) break;
        result.push_back(input.substr(0, at));
        input.remove_prefix(at + separator.size());
    }
    result.push_back(input);
    result.resize(count);
    return result;
}

// The leading dot-separated decimal numbers, as documented: a part that is
// missing or does not start with a digit, and every part after it, is 0.
// A number too large for int64_t ends the parts the same way.
SystemFacts::OperatingSystemVersion referenceVersion(std::string_view release) {
    SystemFacts::OperatingSystemVersion version;
    std::int64_t* fields[] = {&version.majorVersion, &version.minorVersion, &version.patchVersion};
    size_t position = 0;
    for (size_t index = 0; index < 3; ++index) {
        if (index > 0) {
            if (position >= release.size() || release[position] != '.') break;
            ++position;
        }
        if (position >= release.size() || !std::isdigit(static_cast<unsigned char>(release[position]))) break;
        std::int64_t value = 0;
        bool overflow = false;
        while (position < release.size() && std::isdigit(static_cast<unsigned char>(release[position]))) {
            const int digit = release[position++] - '0';
            if (value > (INT64_MAX - digit) / 10) overflow = true;
            if (!overflow) value = value * 10 + digit;
        }
        if (overflow) break;
        *fields[index] = value;
    }
    return version;
}

bool isHardwareAddressText(std::string_view text) {
    if (text.size() != 17) return false;
    for (size_t i = 0; i < text.size(); ++i) {
        const bool separator = i % 3 == 2;
        if (separator ? text[i] != ':' : !std::isxdigit(static_cast<unsigned char>(text[i]))) return false;
    }
    return true;
}

struct FakeMachine {
    SystemFacts::FactSources sources;
    std::filesystem::path interface;
    std::filesystem::path dmi;

    FakeMachine() {
        const auto root = FuzzSupport::scratchFolder();
        sources.proc = root / "proc";
        sources.sys = root / "sys";
        interface = sources.sys / "class/net/eth0";
        dmi = sources.sys / "class/dmi/id";
        std::filesystem::create_directories(sources.proc / "net");
        std::filesystem::create_directories(interface);
        std::filesystem::create_directories(sources.sys / "class/net/lo");
        std::filesystem::create_directories(dmi);
        FuzzSupport::writeFile(interface / "ifindex", "2\n");
        FuzzSupport::writeFile(sources.sys / "class/net/lo/address", "00:00:00:00:00:00\n");
        FuzzSupport::writeFile(sources.sys / "class/net/lo/flags", "0x9\n");
        FuzzSupport::writeFile(sources.sys / "class/net/lo/ifindex", "1\n");
    }
};

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    FuzzSupport::quietLogs();
    static FakeMachine machine;
    const auto input = parts(FuzzSupport::bytesOf(data, size), 8);

    for (const auto& extension : Tovik::SystemInfo::parseSystemExtensions(input[0])) {
        FUZZ_CHECK(extension.bundleID.find('\t') == std::string::npos);
        FUZZ_CHECK(extension.teamID.find('\n') == std::string::npos);
    }

    const auto address = SystemFacts::IORegistry::parseHardwareAddress(input[1]);
    FUZZ_CHECK(address.has_value() == isHardwareAddressText(input[1]));
    if (address) FUZZ_CHECK(address->size() == 6);

    const auto version = SystemFacts::OperatingSystemVersion::fromKernelRelease(input[2]);
    FUZZ_CHECK(version == referenceVersion(input[2]));

    FuzzSupport::writeFile(machine.interface / "address", input[1]);
    FuzzSupport::writeFile(machine.interface / "flags", input[7]);
    FuzzSupport::writeFile(machine.sources.proc / "net/route", input[3]);
    FuzzSupport::writeFile(machine.dmi / "product_serial", input[4]);
    FuzzSupport::writeFile(machine.dmi / "product_name", input[5]);
    SystemFacts::FactSources sources = machine.sources;
    sources.kernelRelease = std::string(input[2]);
    sources.machine = std::string(input[6]);

    const SystemFacts::IORegistry registry(sources);
    if (const auto mac = Tovik::SystemInfo::readMac(registry)) {
        FUZZ_CHECK(mac->size() == 12);
        for (char c : *mac) FUZZ_CHECK(std::isxdigit(static_cast<unsigned char>(c)) && !std::isupper(c));
    }
    FUZZ_CHECK(!Tovik::SystemInfo::readSerialNumber(registry).empty());

    const SystemFacts::Sysctl sysctl(sources);
    (void)Tovik::SystemInfo::getCPUType(sysctl);
    const std::string model = Tovik::SystemInfo::getHardwareModel(sysctl);
    FUZZ_CHECK(model.find('\0') == std::string::npos);
    const std::string os = Tovik::SystemInfo::getOSVersion(sources);
    FUZZ_CHECK(os == std::to_string(version.majorVersion) + "." + std::to_string(version.minorVersion) + "." +
                         std::to_string(version.patchVersion));
    return 0;
}
