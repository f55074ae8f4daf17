// The Debian package of this build tree, installed with dpkg and removed again
// in scripts/sandbox.sh: /usr, /etc and /var are overlays of the machine's
// whose changes stay in the sandbox folder, /Library and /run are the
// sandbox's own, so nothing of the real machine changes.
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <sys/wait.h>

#include <cstdio>
#include <filesystem>
#include <set>
#include <sstream>
#include <string>
#include <vector>

#include "Support/TestSupport.h"

namespace fs = std::filesystem;
using TestSupport::readFile;
using TestSupport::writeFile;

namespace {

const std::string kUnit = "com.velmora.mac.vpn.vpn_helper.service";
const std::string kPlist = "Library/LaunchDaemons/com.velmora.mac.vpn.vpn_helper.plist";
const std::string kStandIn = "/usr/libexec/vpn_helper/launchctl";

struct Result {
    bool ok;
    std::string output;
};

// Runs a shell command; its exit status (0 or not) and output.
Result shell(const std::string& command) {
    std::string output;
    FILE* pipe = popen((command + " 2>&1").c_str(), "r");
    if (!pipe) return {false, "popen failed"};
    char buffer[4096];
    for (size_t n; (n = fread(buffer, 1, sizeof buffer, pipe)) > 0;) output.append(buffer, n);
    int status = pclose(pipe);
    return {WIFEXITED(status) && WEXITSTATUS(status) == 0, output};
}

class PackageTest : public ::testing::Test {
protected:
    // The package is built once for the suite, from the installed files of this tree.
    static void SetUpTestSuite() {
        if (geteuid() != 0) return;
        packageDir_ = new TestSupport::TemporaryDirectory("package");
        auto built = shell("cpack -G DEB --config '" TOVIK_BINARY_DIR "/CPackConfig.cmake' -B '" +
                           packageDir_->path().string() + "'");
        for (const auto& entry : fs::directory_iterator(packageDir_->path())) {
            if (entry.path().extension() == ".deb") package_ = entry.path();
        }
        if (package_.empty()) buildLog_ = built.output;
    }
    static void TearDownTestSuite() {
        delete packageDir_;
        packageDir_ = nullptr;
    }

    void SetUp() override {
        if (geteuid() != 0) GTEST_SKIP() << "dpkg and the sandbox need root";
        ASSERT_FALSE(package_.empty()) << buildLog_;
        fs::create_directories(sandbox / "run");
    }

    // Runs a command as root of the sandbox: dpkg's changes to /usr, /etc and
    // /var stay in sandbox/overlay. systemctl is the recording stand-in.
    Result inSandbox(const std::string& command) {
        return shell("SANDBOX_OVERLAY='usr etc var' SANDBOX_BINDS='/run=" + (sandbox / "run").string() +
                     "\n/usr/bin/systemctl=" TOVIK_SOURCE_DIR "/scripts/systemctl-standin.sh' SYSTEMCTL_RECORD='" +
                     record.string() + "' SYSTEMCTL_UNITS=" + kUnit + " bash '" TOVIK_SOURCE_DIR
                     "/scripts/sandbox.sh' '" + sandbox.string() + "' sh -c '" + command + "'");
    }

    // A path below the sandbox's /usr as seen from outside it.
    fs::path changed(const std::string& path) const { return sandbox / "overlay/usr/upper" / path.substr(5); }

    // Files (not folders) the sandbox's root has gained, dpkg's own records aside.
    std::vector<std::string> filesLeft() const {
        std::vector<std::string> left;
        for (const auto* top : {"usr", "etc", "var"}) {
            const fs::path upper = sandbox / "overlay" / top / "upper";
            for (auto it = fs::recursive_directory_iterator(upper); it != fs::recursive_directory_iterator(); ++it) {
                const std::string relative = fs::relative(it->path(), upper).string();
                if (std::string(top) == "var" && (relative.starts_with("lib/dpkg") || relative == "log/dpkg.log")) {
                    continue;
                }
                if (!it->is_directory() || it->is_symlink()) left.push_back("/" + std::string(top) + "/" + relative);
            }
        }
        for (auto it = fs::recursive_directory_iterator(sandbox / "Library"); it != fs::recursive_directory_iterator();
             ++it) {
            if (!it->is_directory()) left.push_back("/" + fs::relative(it->path(), sandbox).string());
        }
        return left;
    }

    TestSupport::TemporaryDirectory dir_{"package-root"};
    fs::path sandbox = dir_.path();
    fs::path record = dir_ / "systemctl-calls.txt";

    static inline TestSupport::TemporaryDirectory* packageDir_ = nullptr;
    static inline fs::path package_;
    static inline std::string buildLog_;
};

TEST_F(PackageTest, HoldsTheDaemonsFilesWithComputedDependencies) {
    std::set<std::string> files;
    std::istringstream listing(shell("dpkg-deb --fsys-tarfile '" + package_.string() + "' | tar -t").output);
    for (std::string line; std::getline(listing, line);) {
        if (!line.ends_with("/")) files.insert(line);
    }
    EXPECT_EQ(files, (std::set<std::string>{"./" + kPlist, "./lib/systemd/system/" + kUnit, "." + kStandIn,
                                            "./usr/sbin/vpn_helper", "./usr/bin/tovik-support"}));
    const std::string depends = shell("dpkg-deb -f '" + package_.string() + "' Depends").output;
    EXPECT_NE(depends.find("libc6 (>="), std::string::npos) << depends;
    EXPECT_NE(depends.find("libcurl4"), std::string::npos) << "opened at run time: " << depends;
}

// Without systemd (a chroot, a container): installed, linked, nothing started;
// removed without a trace but the daemon's shared data.
TEST_F(PackageTest, InstallsAndRemovesCleanlyWithoutSystemd) {
    auto installed = inSandbox("dpkg -i " + package_.string());
    ASSERT_TRUE(installed.ok) << installed.output;

    // What the daemon's plist and unit name: checked by the install test, at another prefix.
    EXPECT_EQ(access(changed("/usr/sbin/vpn_helper").c_str(), X_OK), 0);
    // /bin/launchctl, where the daemon runs it, is the stand-in.
    EXPECT_EQ(fs::read_symlink(changed("/usr/bin/launchctl")), kStandIn);
    auto usage = inSandbox("/bin/launchctl; echo status $?");
    EXPECT_NE(usage.output.find("Usage: launchctl"), std::string::npos) << usage.output;
    EXPECT_NE(usage.output.find("status 64"), std::string::npos) << usage.output;
    EXPECT_FALSE(fs::exists(record)) << readFile(record);

    const fs::path shared = sandbox / "Library/Application Support/Velmora Software/com.velmora.mac.vpn";
    fs::create_directories(shared);
    writeFile(shared / "state.bin", "app data");
    auto removed = inSandbox("dpkg -r velmora-vpn-helper");
    ASSERT_TRUE(removed.ok) << removed.output;
    EXPECT_EQ(filesLeft(), std::vector<std::string>{
                               "/Library/Application Support/Velmora Software/com.velmora.mac.vpn/state.bin"});
    EXPECT_FALSE(fs::exists(record)) << readFile(record);
}

// With systemd running: the unit is enabled and started on install and
// disabled and stopped on removal; a launchctl of the host's own is kept.
TEST_F(PackageTest, WithSystemdStartsAndStopsTheUnitAndKeepsTheHostsLaunchctl) {
    fs::create_directories(sandbox / "run/systemd/system");
    ASSERT_TRUE(inSandbox("printf \"#!/bin/sh\\n\" > /usr/bin/launchctl && chmod 755 /usr/bin/launchctl").ok);

    auto installed = inSandbox("dpkg -i " + package_.string());
    ASSERT_TRUE(installed.ok) << installed.output;
    EXPECT_EQ(readFile(record), "systemctl daemon-reload\nsystemctl enable " + kUnit + "\nsystemctl restart " +
                                    kUnit + "\n");
    EXPECT_EQ(readFile(changed("/usr/bin/launchctl")), "#!/bin/sh\n");

    fs::remove(record);
    auto removed = inSandbox("dpkg -r velmora-vpn-helper");
    ASSERT_TRUE(removed.ok) << removed.output;
    EXPECT_EQ(readFile(record), "systemctl disable --now " + kUnit + "\nsystemctl daemon-reload\n");
    EXPECT_EQ(filesLeft(), std::vector<std::string>{"/usr/bin/launchctl"});
}

}  // namespace
