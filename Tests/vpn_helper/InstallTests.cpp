// `cmake --install` of the build tree into a temporary prefix.
#include <gtest/gtest.h>
#include <plist/plist.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdlib>
#include <filesystem>
#include <string>

#include "Support/TestSupport.h"

namespace fs = std::filesystem;
using TestSupport::readFile;

namespace {

std::string stringValue(plist_t node) {
    char* text = nullptr;
    if (node && plist_get_node_type(node) == PLIST_STRING) plist_get_string_val(node, &text);
    std::string result = text ? text : "";
    free(text);
    return result;
}

TEST(InstallTest, PutsDaemonServicePlistAndSystemdUnitInPlace) {
    TestSupport::TemporaryDirectory prefix("install");
    std::string command = "cmake --install '" + std::string(TOVIK_BINARY_DIR) + "' --prefix '" +
                          prefix.path().string() + "' > '" + (prefix / "install.log").string() + "' 2>&1";
    int status = std::system(command.c_str());
    ASSERT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0) << readFile(prefix / "install.log");
    const std::string binary = (prefix / "sbin" / "vpn_helper").string();
    EXPECT_EQ(access(binary.c_str(), X_OK), 0);

    std::string xml = readFile(prefix / "Library" / "LaunchDaemons" / "com.velmora.mac.vpn.vpn_helper.plist");
    plist_t root = nullptr;
    plist_from_memory(xml.data(), static_cast<uint32_t>(xml.size()), &root);
    ASSERT_NE(root, nullptr) << xml;
    EXPECT_EQ(stringValue(plist_dict_get_item(root, "Label")), "com.velmora.mac.vpn.vpn_helper");
    plist_t arguments = plist_dict_get_item(root, "ProgramArguments");
    EXPECT_EQ(arguments ? plist_array_get_size(arguments) : 0, 1u);
    EXPECT_EQ(stringValue(arguments ? plist_array_get_item(arguments, 0) : nullptr), binary);
    plist_free(root);

    std::string unit = readFile(prefix / "lib" / "systemd" / "system" / "com.velmora.mac.vpn.vpn_helper.service");
    EXPECT_NE(unit.find("ExecStart=" + binary + "\n"), std::string::npos) << unit;
}

}  // namespace
