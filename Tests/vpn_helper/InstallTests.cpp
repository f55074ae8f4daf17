// `cmake --install` of the build tree into a temporary prefix.
#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdlib>
#include <filesystem>
#include <string>

#include "Foundation/PropertyList.h"
#include "Support/TestSupport.h"

using TestSupport::readFile;

namespace {

TEST(InstallTest, PutsDaemonServicePlistAndSystemdUnitInPlace) {
    TestSupport::TemporaryDirectory prefix("install");
    std::string command = "cmake --install '" + std::string(TOVIK_BINARY_DIR) + "' --prefix '" +
                          prefix.path().string() + "' > '" + (prefix / "install.log").string() + "' 2>&1";
    int status = std::system(command.c_str());
    ASSERT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0) << readFile(prefix / "install.log");
    const std::string binary = (prefix / "sbin" / "vpn_helper").string();
    EXPECT_EQ(access(binary.c_str(), X_OK), 0);

    using Foundation::PropertyList;
    const auto plist =
        PropertyList::fromData(readFile(prefix / "Library" / "LaunchDaemons" / "com.velmora.mac.vpn.vpn_helper.plist"));
    ASSERT_TRUE(plist && plist->is<PropertyList::Dictionary>());
    const auto& keys = *plist->get<PropertyList::Dictionary>();
    EXPECT_EQ(keys.at("Label"), PropertyList("com.velmora.mac.vpn.vpn_helper"));
    EXPECT_EQ(keys.at("ProgramArguments"), PropertyList(PropertyList::Array{binary}));

    std::string unit = readFile(prefix / "lib" / "systemd" / "system" / "com.velmora.mac.vpn.vpn_helper.service");
    EXPECT_NE(unit.find("ExecStart=" + binary + "\n"), std::string::npos) << unit;
}

}  // namespace
