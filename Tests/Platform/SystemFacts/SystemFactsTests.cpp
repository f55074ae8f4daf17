#include <gtest/gtest.h>

#include <cerrno>
#include <filesystem>
#include <string>
#include <variant>
#include <vector>

#include "Support/TestSupport.h"
#include "SystemFacts/FactSources.h"
#include "SystemFacts/IORegistry.h"
#include "SystemFacts/OperatingSystemVersion.h"
#include "SystemFacts/Sysctl.h"

namespace {

namespace fs = std::filesystem;
using namespace SystemFacts;
using TestSupport::TemporaryDirectory;
using TestSupport::writeFile;

constexpr const char* routeHeader =
    "Iface\tDestination\tGateway \tFlags\tRefCnt\tUse\tMetric\tMask\t\tMTU\tWindow\tIRTT\n";

/// Fake /proc and /sys trees.
class FakeMachine {
public:
    FakeMachine() {
        fs::create_directories(sources.proc / "net");
        fs::create_directories(sources.sys / "class/net");
    }

    void addInterface(const std::string& name, int index, const std::string& address,
                      const std::string& flags = "0x1003") {
        const fs::path folder = sources.sys / "class/net" / name;
        fs::create_directories(folder);
        writeFile(folder / "address", address + "\n");
        writeFile(folder / "ifindex", std::to_string(index) + "\n");
        writeFile(folder / "flags", flags + "\n");
    }
    void setRoutes(const std::string& rows) { writeFile(sources.proc / "net/route", routeHeader + rows); }

    TemporaryDirectory root{"system-facts"};
    FactSources sources{root / "proc", root / "sys", std::nullopt, std::nullopt};
};

std::vector<std::string> primaryServices(const IORegistry& registry) {
    ServiceIterator iterator;
    EXPECT_EQ(registry.getMatchingPrimaryEthernetInterfaces(iterator), kernSuccess);
    std::vector<std::string> names;
    while (auto service = iterator.next()) names.push_back(service->name);
    return names;
}

TEST(IORegistryTest, PrimaryInterfaceIsTheDefaultRouteOneWithTheLowestMetric) {
    FakeMachine machine;
    machine.addInterface("lo", 1, "00:00:00:00:00:00", "0x9");
    machine.addInterface("eth0", 2, "52:54:00:12:34:56");
    machine.addInterface("wlan0", 3, "0a:1b:2c:3d:4e:5f");
    machine.setRoutes("eth0\t0000A8C0\t00000000\t0001\t0\t0\t100\t00FFFFFF\t0\t0\t0\n"
                      "eth0\t00000000\t0100A8C0\t0003\t0\t0\t600\t00000000\t0\t0\t0\n"
                      "wlan0\t00000000\t0101A8C0\t0003\t0\t0\t50\t00000000\t0\t0\t0\n");
    EXPECT_EQ(primaryServices(IORegistry(machine.sources)), std::vector<std::string>{"wlan0"});
}

TEST(IORegistryTest, FallsBackToTheFirstNonLoopbackInterfaceWithAHardwareAddress) {
    FakeMachine machine;
    machine.addInterface("lo", 1, "00:00:00:00:00:00", "0x9");
    machine.addInterface("tun0", 2, "");  // the default route goes through a tunnel
    machine.addInterface("zz1", 3, "02:00:00:00:00:01");
    machine.addInterface("aa9", 4, "02:00:00:00:00:02");
    machine.addInterface("dummy", 5, "00:00:00:00:00:00");
    machine.setRoutes("tun0\t00000000\t00000000\t0001\t0\t0\t0\t00000000\t0\t0\t0\n");
    EXPECT_EQ(primaryServices(IORegistry(machine.sources)), std::vector<std::string>{"zz1"});

    fs::remove(machine.sources.proc / "net/route");
    EXPECT_EQ(primaryServices(IORegistry(machine.sources)), std::vector<std::string>{"zz1"});

    // A loopback interface is recognised by its flags, whatever its name.
    machine.addInterface("zz1", 3, "02:00:00:00:00:01", "0x49");
    EXPECT_EQ(primaryServices(IORegistry(machine.sources)), std::vector<std::string>{"aa9"});
}

TEST(IORegistryTest, ParentOfAVanishedInterfaceAndMalformedAddresses) {
    FakeMachine machine;
    machine.addInterface("eth0", 2, "52:54:00:12:34:56");
    const IORegistry registry(machine.sources);
    ServiceIterator iterator;
    ASSERT_EQ(registry.getMatchingPrimaryEthernetInterfaces(iterator), kernSuccess);
    const auto service = iterator.next();
    ASSERT_TRUE(service);

    RegistryEntry controller;
    ASSERT_EQ(registry.getParentEntry(*service, controller), kernSuccess);
    writeFile(machine.sources.sys / "class/net/eth0/address", "52:54:00:12:34\n");
    EXPECT_EQ(std::get<std::string>(registry.createProperty(controller, "IOMACAddress")), "52:54:00:12:34");
    fs::remove(machine.sources.sys / "class/net/eth0/address");
    EXPECT_TRUE(std::holds_alternative<std::monostate>(registry.createProperty(controller, "IOMACAddress")));

    fs::remove_all(machine.sources.sys / "class/net/eth0");
    EXPECT_EQ(registry.getParentEntry(*service, controller), ioReturnNotFound);

    for (const char* text : {"", "52:54:00:12:34:5", "52:54:00:12:34:56:78", "52-54-00-12-34-56", "0x:54:00:12:34:56"})
        EXPECT_FALSE(IORegistry::parseHardwareAddress(text)) << text;
}

TEST(SysctlTest, CpuTypeFromTheMachineName) {
    EXPECT_EQ(Sysctl::cpuTypeForMachine("x86_64"), 0x01000007);
    EXPECT_EQ(Sysctl::cpuTypeForMachine("riscv64"), -1);

    FakeMachine machine;
    machine.sources.machine = "aarch64";
    int32_t type = 0;
    size_t size = sizeof type;
    ASSERT_EQ(Sysctl(machine.sources).sysctlbyname("hw.cputype", &type, &size), 0);
    EXPECT_EQ(type, 0x0100000C);
    EXPECT_EQ(size, sizeof type);
    EXPECT_EQ(Sysctl(machine.sources).sysctlbyname("hw.nosuchname", &type, &size), -1);
    EXPECT_EQ(errno, ENOENT);
}

TEST(SysctlTest, HardwareModelFromDmiElseTheDeviceTree) {
    FakeMachine machine;
    const Sysctl sysctl(machine.sources);
    size_t size = 0;
    EXPECT_EQ(sysctl.sysctlbyname("hw.model", nullptr, &size), -1);
    EXPECT_EQ(errno, ENOENT);

    fs::create_directories(machine.sources.proc / "device-tree");
    writeFile(machine.sources.proc / "device-tree/model", std::string("Raspberry Pi 4 Model B Rev 1.4\0", 31));
    ASSERT_EQ(sysctl.sysctlbyname("hw.model", nullptr, &size), 0);
    std::vector<char> buffer(size);
    ASSERT_EQ(sysctl.sysctlbyname("hw.model", buffer.data(), &size), 0);
    EXPECT_STREQ(buffer.data(), "Raspberry Pi 4 Model B Rev 1.4");

    fs::create_directories(machine.sources.sys / "class/dmi/id");
    writeFile(machine.sources.sys / "class/dmi/id/product_name", "ThinkPad X1\n");
    char small[4] = {};
    size = sizeof small;
    EXPECT_EQ(sysctl.sysctlbyname("hw.model", small, &size), -1);
    EXPECT_EQ(errno, ENOMEM);
    EXPECT_EQ(std::string(small, 4), "Thin");
}

TEST(OperatingSystemVersionTest, AlwaysThreePartsFromTheKernelRelease) {
    const auto version = [](const char* release) {
        const auto v = OperatingSystemVersion::fromKernelRelease(release);
        return std::to_string(v.majorVersion) + "." + std::to_string(v.minorVersion) + "." +
               std::to_string(v.patchVersion);
    };
    EXPECT_EQ(version("6.1.0-18-amd64"), "6.1.0");
    EXPECT_EQ(version("6.8-rc1"), "6.8.0");
    EXPECT_EQ(version("4"), "4.0.0");
    EXPECT_EQ(version(""), "0.0.0");

    FactSources sources;
    sources.kernelRelease = "6.12.9+bpo-amd64";
    EXPECT_EQ(OperatingSystemVersion::current(sources), (OperatingSystemVersion{6, 12, 9}));
}

}  // namespace
