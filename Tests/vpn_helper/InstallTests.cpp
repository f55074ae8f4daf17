// `cmake --install` of the build tree: the daemon's files under DESTDIR, and
// Tovik's development files used by a program built against them.
#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdlib>
#include <filesystem>
#include <string>

#include "Foundation/PropertyList.h"
#include "Support/TestSupport.h"

namespace fs = std::filesystem;
using TestSupport::readFile;

namespace {

// Runs a shell command with its output in `log`; true when it exits with 0.
bool run(const std::string& command, const fs::path& log) {
    int status = std::system((command + " > '" + log.string() + "' 2>&1").c_str());
    return WIFEXITED(status) && WEXITSTATUS(status) == 0;
}

std::string quoted(const fs::path& path) { return "'" + path.string() + "'"; }

TEST(InstallTest, PutsDaemonAtPrefixAndServiceFilesAtTheirAbsolutePaths) {
    TestSupport::TemporaryDirectory destdir("install");
    const fs::path log = destdir / "install.log";
    ASSERT_TRUE(run("DESTDIR=" + quoted(destdir.path()) + " cmake --install '" TOVIK_BINARY_DIR "' --prefix /opt/velmora", log))
        << readFile(log);
    const fs::path root = destdir / "opt/velmora";
    const std::string binary = "/opt/velmora/sbin/vpn_helper";
    EXPECT_EQ(access((destdir / binary.substr(1)).c_str(), X_OK), 0);
    EXPECT_EQ(access((root / "libexec/vpn_helper/launchctl").c_str(), X_OK), 0);
    EXPECT_FALSE(fs::exists(root / "bin/launchctl")) << "only the package links launchctl";

    // The plist is where the daemon deletes it, whatever the prefix.
    using Foundation::PropertyList;
    const auto plist =
        PropertyList::fromData(readFile(destdir / "Library/LaunchDaemons/com.velmora.mac.vpn.vpn_helper.plist"));
    ASSERT_TRUE(plist && plist->is<PropertyList::Dictionary>());
    const auto& keys = *plist->get<PropertyList::Dictionary>();
    EXPECT_EQ(keys.at("Label"), PropertyList("com.velmora.mac.vpn.vpn_helper"));
    EXPECT_EQ(keys.at("ProgramArguments"), PropertyList(PropertyList::Array{binary}));

    // The unit must be one systemd takes without a complaint: checked with the
    // binary's path inside DESTDIR, as the check wants the program to exist.
    std::string unit = readFile(destdir / "lib/systemd/system/com.velmora.mac.vpn.vpn_helper.service");
    ASSERT_NE(unit.find("ExecStart=" + binary + "\n"), std::string::npos) << unit;
    // Restarted after a delay, also after exit status 1, within a start limit.
    for (const char* line : {"Restart=always\n", "RestartSec=60\n", "StartLimitIntervalSec=1h\n",
                             "StartLimitBurst=30\n"}) {
        EXPECT_NE(unit.find(line), std::string::npos) << line << unit;
    }
    EXPECT_EQ(unit.find("RestartPreventExitStatus"), std::string::npos) << unit;
    const fs::path checked = destdir / "com.velmora.mac.vpn.vpn_helper.service";
    std::string inDestdir = unit;
    inDestdir.insert(inDestdir.find("ExecStart=") + 10, destdir.path().string());
    TestSupport::writeFile(checked, inDestdir);
    EXPECT_TRUE(run("systemd-analyze verify " + quoted(checked), destdir / "verify.log"));
    EXPECT_EQ(readFile(destdir / "verify.log"), "");
}

// A program built against the installed Tovik, once through its CMake package
// and once through pkg-config, logs a line through a file handler and reads it
// back. It is built with this build's compiler and flags (the sanitizers).
TEST(InstallTest, ProgramsBuildAgainstInstalledTovikBothWays) {
    TestSupport::TemporaryDirectory dir("consumer");
    const fs::path prefix = dir / "prefix";
    const fs::path log = dir / "step.log";
    ASSERT_TRUE(run("cmake --install '" TOVIK_BINARY_DIR "' --component development --prefix " + quoted(prefix), log))
        << readFile(log);
    EXPECT_FALSE(fs::exists(prefix / "sbin")) << "the development component holds no daemon";

    const std::string source = TOVIK_SOURCE_DIR "/Tests/Consumer";
    const std::string expected = "[com.velmora.consumer] I: (main) Hello from a program built on Tovik\n";

    const fs::path build = dir / "build";
    ASSERT_TRUE(run("cmake -S '" + source + "' -B " + quoted(build) +
                        " -G Ninja -DCMAKE_CXX_COMPILER='" TOVIK_CXX_COMPILER "' -DCMAKE_CXX_FLAGS='" TOVIK_CXX_FLAGS
                        "' -DCMAKE_EXE_LINKER_FLAGS='" TOVIK_LINKER_FLAGS "' -DCMAKE_PREFIX_PATH=" +
                        quoted(prefix) + " && cmake --build " + quoted(build),
                    log))
        << readFile(log);
    ASSERT_TRUE(run(quoted(build / "tovik-consumer") + " " + quoted(dir / "cmake.log"), log)) << readFile(log);
    EXPECT_NE(readFile(log).find(expected), std::string::npos) << readFile(log);

    // tovik.pc finds its prefix from its own place: the tree is moved first.
    const fs::path moved = dir / "moved";
    fs::rename(prefix, moved);
    const fs::path program = dir / "pkg-config-consumer";
    ASSERT_TRUE(run("export PKG_CONFIG_PATH=" + quoted(moved / TOVIK_INSTALL_LIBDIR / "pkgconfig") + "; '" TOVIK_CXX_COMPILER
                    "' -std=c++20 " TOVIK_CXX_FLAGS " " TOVIK_LINKER_FLAGS " '" + source + "/main.cpp' -o " +
                        quoted(program) + " $(pkg-config --cflags --libs tovik)",
                    log))
        << readFile(log);
    ASSERT_TRUE(run(quoted(program) + " " + quoted(dir / "pc.log"), log)) << readFile(log);
    EXPECT_NE(readFile(log).find(expected), std::string::npos) << readFile(log);
}

}  // namespace
