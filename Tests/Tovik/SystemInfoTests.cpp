#include "Tovik/SystemInfo.h"

#include <gtest/gtest.h>

#include <filesystem>
#include <regex>
#include <string>
#include <thread>
#include <vector>

#include "Support/RecordingLogHandler.h"
#include "Support/TestSupport.h"
#include "Tovik/Logger/Logger.h"

namespace {

namespace fs = std::filesystem;
using Tovik::CPUType;
using Tovik::SystemExtensionInfo;
using Tovik::SystemInfo;
using TestSupport::TemporaryDirectory;
using TestSupport::writeFile;

class SystemInfoTest : public testing::Test {
protected:
    void SetUp() override {
        fs::create_directories(sources_.sys / "class/net");
        fs::create_directories(sources_.proc / "net");
        Tovik::Logger::shared().setLogLevel(Tovik::LogLevel::verbose);
        Tovik::Logger::shared().setHandlers({recorder_});
    }
    void TearDown() override { Tovik::Logger::shared().setHandlers({}); }

    void addInterface(const std::string& name, const std::string& address) {
        fs::create_directories(sources_.sys / "class/net" / name);
        writeFile(sources_.sys / "class/net" / name / "address", address + "\n");
    }
    SystemFacts::IORegistry registry() const { return SystemFacts::IORegistry(sources_); }

    std::shared_ptr<TestSupport::RecordingLogHandler> recorder_ = std::make_shared<TestSupport::RecordingLogHandler>();
    TemporaryDirectory root_{"system-info"};
    SystemFacts::FactSources sources_{root_ / "proc", root_ / "sys", std::nullopt, std::nullopt};
};

TEST_F(SystemInfoTest, MacIsTwelveLowerCaseHexDigitsOrAbsentLoggingOnlyARegistryFailure) {
    addInterface("lo", "00:00:00:00:00:00");
    EXPECT_EQ(SystemInfo::readMac(registry()), std::nullopt);
    addInterface("eth0", "0A:0b:00:1C:2d:03");
    EXPECT_EQ(SystemInfo::readMac(registry()), "0a0b001c2d03");
    EXPECT_TRUE(recorder_->lines().empty());

    fs::remove_all(sources_.sys / "class/net");
    EXPECT_EQ(SystemInfo::readMac(registry()), std::nullopt);
    EXPECT_EQ(recorder_->lines(),
              (std::vector<std::string>{
                  "E: (SystemInfo: FindEthernetInterfaces(_:)) IOServiceGetMatchingServices returned -536870212",
                  "E: (SystemInfo: mac) FindEthernetInterfaces returned 0xe00002bc"}));
}

TEST_F(SystemInfoTest, SerialNumberFallsBackToNoSerialNumberWithTheRegistryMessage) {
    EXPECT_EQ(SystemInfo::readSerialNumber(registry()), "NOSERIALNUMBER");  // no DMI tree: nothing logged
    fs::create_directories(sources_.sys / "class/dmi/id");
    EXPECT_EQ(SystemInfo::readSerialNumber(registry()), "NOSERIALNUMBER");
    writeFile(sources_.sys / "class/dmi/id/product_serial", "\xc3\x28\n");
    EXPECT_EQ(SystemInfo::readSerialNumber(registry()), "NOSERIALNUMBER");
    writeFile(sources_.sys / "class/dmi/id/product_serial", "PF3ABCDE\n");
    EXPECT_EQ(SystemInfo::readSerialNumber(registry()), "PF3ABCDE");
    EXPECT_EQ(recorder_->lines(),
              (std::vector<std::string>{"E: (SystemInfo: serialNumber) IORegistryEntryCreateCFProperty return nil.",
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
    EXPECT_TRUE(std::regex_match(macs[0].value_or("0123456789ab"), std::regex("[0-9a-f]{12}")));
    EXPECT_FALSE(serials[0].empty());
}

TEST_F(SystemInfoTest, CpuTypeRawValuesAndQuery) {
    for (CPUType type : {CPUType::unknown, CPUType::arm64, CPUType::x86_64})
        EXPECT_EQ(Tovik::cpuTypeFromRawValue(Tovik::rawValue(type)), type);
    EXPECT_EQ(Tovik::cpuTypeFromRawValue("ARM64"), std::nullopt);

    const auto typeFor = [&](std::optional<std::string> machine) {
        sources_.machine = std::move(machine);
        return SystemInfo::getCPUType(SystemFacts::Sysctl(sources_));
    };
    EXPECT_EQ(typeFor("aarch64"), CPUType::arm64);
    EXPECT_EQ(typeFor("i686"), CPUType::unknown);
    EXPECT_EQ(typeFor(""), CPUType::unknown);  // the query fails
}

TEST_F(SystemInfoTest, HardwareModelIsRepairedAndEmptyWhenUnknown) {
    EXPECT_EQ(SystemInfo::getHardwareModel(SystemFacts::Sysctl(sources_)), "");
    fs::create_directories(sources_.sys / "class/dmi/id");
    writeFile(sources_.sys / "class/dmi/id/product_name", "Box \xff" "1\n");
    EXPECT_EQ(SystemInfo::getHardwareModel(SystemFacts::Sysctl(sources_)), "Box \xEF\xBF\xBD" "1");
}

TEST_F(SystemInfoTest, OsVersionHasThreeParts) {
    sources_.kernelRelease = "6.8-rc1";
    EXPECT_EQ(SystemInfo::getOSVersion(sources_), "6.8.0");
    EXPECT_TRUE(std::regex_match(SystemInfo::getOSVersion(), std::regex("[0-9]+\\.[0-9]+\\.[0-9]+")));
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
}

TEST_F(SystemInfoTest, NoSystemExtensionsToolGivesAnEmptyList) {
    if (fs::exists("/usr/bin/systemextensionsctl")) GTEST_SKIP() << "the tool exists here";
    EXPECT_TRUE(SystemInfo::getActiveSystemExtensions().empty());
}

}  // namespace
