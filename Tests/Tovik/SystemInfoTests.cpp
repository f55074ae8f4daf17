#include "Tovik/SystemInfo.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <filesystem>
#include <string>
#include <thread>
#include <vector>

#include "Support/LogCapture.h"
#include "Support/TestSupport.h"

namespace {

namespace fs = std::filesystem;
using Tovik::CPUType;
using Tovik::SystemExtensionInfo;
using Tovik::SystemInfo;
using TestSupport::writeFile;

class SystemInfoTest : public testing::Test {
protected:
    std::vector<std::string> logLines() const { return log_.recorder().lines(); }
    SystemFacts::IORegistry registry() const { return SystemFacts::IORegistry(sources_); }

    TestSupport::ScopedLogCapture log_;
    TestSupport::TemporaryDirectory root_{"system-info"};
    SystemFacts::FactSources sources_{root_ / "proc", root_ / "sys", std::nullopt, std::nullopt};
};

// Only failures of the registry itself are logged: a machine without a usable
// interface or without a DMI tree has no mac or serial number, silently.
TEST_F(SystemInfoTest, MacAndSerialNumberFromTheRegistryLoggingOnlyItsFailures) {
    fs::create_directories(sources_.sys / "class/net/lo");
    writeFile(sources_.sys / "class/net/lo/address", "00:00:00:00:00:00\n");
    EXPECT_EQ(SystemInfo::readMac(registry()), std::nullopt);
    fs::create_directories(sources_.sys / "class/net/eth0");
    writeFile(sources_.sys / "class/net/eth0/address", "0A:0b:00:1C:2d:03\n");
    EXPECT_EQ(SystemInfo::readMac(registry()), "0a0b001c2d03");
    EXPECT_EQ(SystemInfo::readSerialNumber(registry()), "NOSERIALNUMBER");
    fs::remove_all(sources_.sys / "class/net");
    EXPECT_EQ(SystemInfo::readMac(registry()), std::nullopt);

    fs::create_directories(sources_.sys / "class/dmi/id");
    EXPECT_EQ(SystemInfo::readSerialNumber(registry()), "NOSERIALNUMBER");
    writeFile(sources_.sys / "class/dmi/id/product_serial", "\xc3\x28\n");
    EXPECT_EQ(SystemInfo::readSerialNumber(registry()), "NOSERIALNUMBER");
    writeFile(sources_.sys / "class/dmi/id/product_serial", "PF3ABCDE\n");
    EXPECT_EQ(SystemInfo::readSerialNumber(registry()), "PF3ABCDE");
    EXPECT_EQ(logLines(),
              (std::vector<std::string>{
                  "E: (SystemInfo: FindEthernetInterfaces(_:)) IOServiceGetMatchingServices returned -536870212",
                  "E: (SystemInfo: mac) FindEthernetInterfaces returned 0xe00002bc",
                  "E: (SystemInfo: serialNumber) IORegistryEntryCreateCFProperty return nil.",
                  "E: (SystemInfo: serialNumber) IORegistryEntryCreateCFProperty return not string."}));
}

TEST_F(SystemInfoTest, CachedValuesOfThisMachineAreTheSameForEveryCaller) {
    std::optional<std::string> macs[2];
    std::string serials[2];
    std::thread other([&] { macs[1] = SystemInfo::mac(), serials[1] = SystemInfo::serialNumber(); });
    macs[0] = SystemInfo::mac(), serials[0] = SystemInfo::serialNumber();
    other.join();
    EXPECT_EQ(macs[0], macs[1]);
    EXPECT_EQ(serials[0], serials[1]);
    EXPECT_THAT(macs[0].value_or("0123456789ab"), ::testing::MatchesRegex("[0-9a-f]{12}"));
}

TEST_F(SystemInfoTest, CpuTypeRepairedHardwareModelAndOsVersion) {
    sources_.machine = "aarch64";
    fs::create_directories(sources_.sys / "class/dmi/id");
    writeFile(sources_.sys / "class/dmi/id/product_name", "Box \xff" "1\n");
    EXPECT_EQ(SystemInfo::getCPUType(SystemFacts::Sysctl(sources_)), CPUType::arm64);
    EXPECT_EQ(SystemInfo::getHardwareModel(SystemFacts::Sysctl(sources_)), "Box \xEF\xBF\xBD" "1");
    // Without a DMI tree the model comes from the device tree.
    sources_.machine = "x86_64";
    fs::remove_all(sources_.sys / "class/dmi");
    fs::create_directories(sources_.proc / "device-tree");
    writeFile(sources_.proc / "device-tree/model", std::string("Raspberry Pi 4 Model B Rev 1.4\0", 31));
    EXPECT_EQ(SystemInfo::getCPUType(SystemFacts::Sysctl(sources_)), CPUType::x86_64);
    EXPECT_EQ(SystemInfo::getHardwareModel(SystemFacts::Sysctl(sources_)), "Raspberry Pi 4 Model B Rev 1.4");
    EXPECT_EQ(Tovik::cpuTypeFromRawValue("ARM64"), std::nullopt);
    EXPECT_THAT(SystemInfo::getOSVersion(), ::testing::MatchesRegex("[0-9]+\\.[0-9]+\\.[0-9]+"));
}

TEST_F(SystemInfoTest, SystemExtensionsListHasOnlyActiveEntriesWithoutVersions) {
    const std::string output =
        "2 extension(s)\n"
        "--- com.apple.system_extension.network_extension\n"
        "enabled\tactive\tteamID\tbundleID (version)\tname\t[state]\n"
        "*\t*\tQX4HL2ZC8M\tcom.velmora.mac.vpn.tunnel (2.11.0/1143)\tVelmora Tunnel\t[activated enabled]\n"
        "\n"
        "*\t\tQX4HL2ZC8M\tcom.velmora.mac.vpn.old (2.10.0/1100)\tOld\t[terminated waiting to uninstall]\n"
        "*\t*\tAB12\tcom.example.five.columns (1.0)\tFive\n"
        "\t*\t\tcom.example.nameless\tNameless\t[activated disabled]\n";
    EXPECT_EQ(SystemInfo::parseSystemExtensions(output),
              (std::vector<SystemExtensionInfo>{{"com.velmora.mac.vpn.tunnel", "QX4HL2ZC8M", true},
                                                {"com.example.nameless", "", false}}));
    EXPECT_TRUE(SystemInfo::parseSystemExtensions("*\t*\tT\tcom.a (1)\tA\t[x]\n").empty());  // only a header
    if (!fs::exists("/usr/bin/systemextensionsctl")) {
        EXPECT_TRUE(SystemInfo::getActiveSystemExtensions().empty()) << "no tool, no extensions";
    }
}

}  // namespace
