#include <gtest/gtest.h>

#include <filesystem>
#include <string>
#include <vector>

#include "Support/TestSupport.h"
#include "SystemFacts/FactSources.h"
#include "SystemFacts/IORegistry.h"
#include "SystemFacts/OperatingSystemVersion.h"

namespace {

namespace fs = std::filesystem;
using namespace SystemFacts;
using TestSupport::writeFile;

/// Fake /proc and /sys trees.
class FakeMachineTest : public testing::Test {
protected:
    void addInterface(const std::string& name, int index, const std::string& address,
                      const std::string& flags = "0x1003") {
        const fs::path folder = sources.sys / "class/net" / name;
        fs::create_directories(folder);
        writeFile(folder / "address", address + "\n");
        writeFile(folder / "ifindex", std::to_string(index) + "\n");
        writeFile(folder / "flags", flags + "\n");
    }
    void setRoutes(const std::string& rows) {
        fs::create_directories(sources.proc / "net");
        writeFile(sources.proc / "net/route",
                  "Iface\tDestination\tGateway \tFlags\tRefCnt\tUse\tMetric\tMask\t\tMTU\tWindow\tIRTT\n" + rows);
    }
    std::vector<std::string> primaryServices() {
        ServiceIterator iterator;
        EXPECT_EQ(IORegistry(sources).getMatchingPrimaryEthernetInterfaces(iterator), kernSuccess);
        std::vector<std::string> names;
        while (auto service = iterator.next()) names.push_back(service->name);
        return names;
    }

    TestSupport::TemporaryDirectory root{"system-facts"};
    FactSources sources{root / "proc", root / "sys", std::nullopt, std::nullopt};
};

TEST_F(FakeMachineTest, PrimaryInterfaceIsTheDefaultRouteOneWithTheLowestMetricElseTheFirstWithAnAddress) {
    addInterface("lo", 1, "00:00:00:00:00:00", "0x9");
    addInterface("eth0", 2, "52:54:00:12:34:56");
    addInterface("wlan0", 3, "0a:1b:2c:3d:4e:5f");
    setRoutes("eth0\t0000A8C0\t00000000\t0001\t0\t0\t100\t00FFFFFF\t0\t0\t0\n"
              "eth0\t00000000\t0100A8C0\t0003\t0\t0\t600\t00000000\t0\t0\t0\n"
              "wlan0\t00000000\t0101A8C0\t0003\t0\t0\t50\t00000000\t0\t0\t0\n");
    EXPECT_EQ(primaryServices(), std::vector<std::string>{"wlan0"});

    // The default route goes through a tunnel without a hardware address.
    fs::remove_all(sources.sys / "class/net");
    addInterface("tun0", 2, "");
    addInterface("zz1", 3, "02:00:00:00:00:01");
    addInterface("aa9", 4, "02:00:00:00:00:02");
    addInterface("dummy", 5, "00:00:00:00:00:00");
    setRoutes("tun0\t00000000\t00000000\t0001\t0\t0\t0\t00000000\t0\t0\t0\n");
    EXPECT_EQ(primaryServices(), std::vector<std::string>{"zz1"});
    fs::remove(sources.proc / "net/route");
    EXPECT_EQ(primaryServices(), std::vector<std::string>{"zz1"});
    // A loopback interface is recognised by its flags, whatever its name.
    addInterface("zz1", 3, "02:00:00:00:00:01", "0x49");
    EXPECT_EQ(primaryServices(), std::vector<std::string>{"aa9"});

    for (const char* text : {"", "52:54:00:12:34:5", "52:54:00:12:34:56:78", "52-54-00-12-34-56", "0x:54:00:12:34:56"})
        EXPECT_FALSE(IORegistry::parseHardwareAddress(text)) << text;
}

TEST(OperatingSystemVersionTest, AlwaysThreePartsFromTheKernelRelease) {
    for (auto [release, expected] : {std::pair{"6.1.0-18-amd64", OperatingSystemVersion{6, 1, 0}},
                                     {"6.8-rc1", {6, 8, 0}}, {"4", {4, 0, 0}}, {"", {0, 0, 0}}})
        EXPECT_EQ(OperatingSystemVersion::fromKernelRelease(release), expected) << release;
    FactSources sources;
    sources.kernelRelease = "6.12.9+bpo-amd64";
    EXPECT_EQ(OperatingSystemVersion::current(sources), (OperatingSystemVersion{6, 12, 9}));
}

}  // namespace
