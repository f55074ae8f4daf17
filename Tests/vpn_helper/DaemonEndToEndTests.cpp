// The real daemon binary, run as root in a private mount namespace whose
// /Library, /Applications, /root and /bin/launchctl are folders of a
// temporary sandbox (scripts/sandbox.sh). The backend is a loopback server.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <stdio.h>
#include <signal.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <filesystem>
#include <optional>
#include <string>
#include <vector>

#include "Support/LoopbackHttpServer.h"
#include "Support/TestSupport.h"

namespace fs = std::filesystem;
using TestSupport::readFile;
using TestSupport::waitUntil;
using TestSupport::writeFile;

namespace {

const std::string kBundleInfoPlist = R"(<?xml version="1.0" encoding="UTF-8"?>
<!DOCTYPE plist PUBLIC "-//Apple//DTD PLIST 1.0//EN" "http://www.apple.com/DTDs/PropertyList-1.0.dtd">
<plist version="1.0">
<dict>
	<key>CFBundleIdentifier</key>
	<string>com.velmora.mac.vpn</string>
	<key>CFBundleName</key>
	<string>Velmora VPN</string>
</dict>
</plist>
)";

class DaemonEndToEndTest : public ::testing::Test {
protected:
    void SetUp() override {
        if (geteuid() != 0) GTEST_SKIP() << "the sandbox needs root (or a user namespace)";
        fs::create_directories(bundle() / "Contents" / "MacOS");
        writeFile(bundle() / "Contents" / "Info.plist", kBundleInfoPlist);
        writeFile(bundle() / "Contents" / "MacOS" / "Velmora VPN", "binary");
        fs::create_directories(sandbox() / "bin");
        fs::copy_file(fs::path(TOVIK_SOURCE_DIR) / "scripts" / "launchctl-standin.sh", sandbox() / "bin" / "launchctl");
        fs::create_directories(plist().parent_path());
        writeFile(plist(), "<plist version=\"1.0\"><dict/></plist>\n");
        fs::create_directories(sharedFolder());
        writeFile(sharedFolder() / "state.bin", "app data");
    }

    void TearDown() override {
        if (pid_ > 0) {
            kill(pid_, SIGKILL);
            waitpid(pid_, nullptr, 0);
        }
    }

    fs::path sandbox() const { return dir_.path(); }
    fs::path bundle() const { return sandbox() / "Applications" / "Velmora VPN.app"; }
    fs::path plist() const { return sandbox() / "Library" / "LaunchDaemons" / "com.velmora.mac.vpn.vpn_helper.plist"; }
    fs::path sharedFolder() const {
        return sandbox() / "Library" / "Application Support" / "Velmora Software" / "com.velmora.mac.vpn";
    }
    fs::path logFile() const {
        return sandbox() / "Library" / "Logs" / "com.velmora.mac.vpn" / "Velmora VPN-shared.log";
    }
    fs::path launchctlRecord() const { return sandbox() / "launchctl-calls.txt"; }

    // Writes a root-owned devConfig.json that aims the backend at the server.
    void writeDevConfig(const std::string& baseUrl, mode_t mode = 0644) {
        fs::path config = sharedFolder() / "devConfig.json";
        writeFile(config, "{\"api_fallback_domain\": \"" + baseUrl + "\"}\n");
        ASSERT_EQ(chown(config.c_str(), 0, 0), 0);
        ASSERT_EQ(chmod(config.c_str(), mode), 0);
    }

    // isolatedNetwork: no interface at all, so a report aimed at the built-in
    // vendor host cannot leave the machine.
    void startDaemon(bool isolatedNetwork = false) {
        std::string script = (fs::path(TOVIK_SOURCE_DIR) / "scripts" / "sandbox.sh").string();
        std::string record = "LAUNCHCTL_RECORD=" + launchctlRecord().string();
        std::string network = std::string("SANDBOX_NETWORK=") + (isolatedNetwork ? "none" : "shared");
        pid_ = fork();
        ASSERT_GE(pid_, 0);
        if (pid_ == 0) {
            putenv(record.data());
            putenv(network.data());
            execl("/bin/bash", "bash", script.c_str(), sandbox().c_str(), VPN_HELPER_BINARY, (char*)nullptr);
            _exit(127);
        }
    }

    bool logContains(const std::string& text) { return readFile(logFile()).find(text) != std::string::npos; }

    bool waitForLog(const std::string& text) {
        return waitUntil([&] { return logContains(text); }, std::chrono::seconds(20));
    }

    // Waits for the daemon to end; returns its wait status.
    std::optional<int> waitForExit(std::chrono::seconds deadline = std::chrono::seconds(20)) {
        int status = 0;
        bool ended = waitUntil([&] { return waitpid(pid_, &status, WNOHANG) == pid_; }, deadline);
        if (!ended) return std::nullopt;
        pid_ = -1;
        return status;
    }

    // The records' texts, in order, without their headers.
    std::vector<std::string> logTexts() {
        std::vector<std::string> texts;
        std::string log = readFile(logFile());
        size_t pos = 0;
        while ((pos = log.find('\x1e', pos)) != std::string::npos) {
            size_t end = log.find('\n', pos);
            std::string record = log.substr(pos, end == std::string::npos ? std::string::npos : end - pos);
            size_t bracket = record.find("] ");
            texts.push_back(bracket == std::string::npos ? record : record.substr(bracket + 2));
            pos = end == std::string::npos ? log.size() : end;
        }
        return texts;
    }

    // Index of the first record text containing needle, or -1.
    int indexOf(const std::vector<std::string>& texts, const std::string& needle) {
        for (size_t i = 0; i < texts.size(); ++i)
            if (texts[i].find(needle) != std::string::npos) return static_cast<int>(i);
        return -1;
    }

    void armAndDeleteBundle() {
        ASSERT_TRUE(waitForLog("VPN helper 1143 has been initialized")) << readFile(logFile());
        ASSERT_TRUE(waitForLog("with result: true")) << readFile(logFile());
        fs::remove_all(bundle());
    }

    TestSupport::TemporaryDirectory dir_{"daemon-e2e"};
    pid_t pid_ = -1;
};

TEST_F(DaemonEndToEndTest, UninstallReportsBootsOutAndDeletes) {
    TestSupport::LoopbackHttpServer server(TestSupport::LoopbackHttpServer::Options{.status = 200});
    writeDevConfig(server.url());
    startDaemon();
    armAndDeleteBundle();

    auto status = waitForExit();
    ASSERT_TRUE(status.has_value()) << readFile(logFile());
    EXPECT_TRUE(WIFSIGNALED(*status) && WTERMSIG(*status) == SIGTERM);
    ASSERT_TRUE(waitForLog("App tools were deleted")) << readFile(logFile());

    auto texts = logTexts();
    std::string bundlePath = "/Applications/Velmora VPN.app";
    std::vector<std::string> expected = {
        "I: (main) VPN helper 1143 has been initialized",
        "I: (AppBundleObserver) Start removal observer for path: " + bundlePath +
            " and bundle: com.velmora.mac.vpn with result: true",
        "I: (main) App bundle path " + bundlePath + " has been deleted (observer)",
        "I: (main) App uninstall request was successfully sent",
        "I: (Process) Running /bin/launchctl bootout system/com.velmora.mac.vpn.vpn_helper ",
        "I: (main) Vpn helper service system/com.velmora.mac.vpn.vpn_helper has been stopped",
        "I: (main) Vpn helper service plist /Library/LaunchDaemons/com.velmora.mac.vpn.vpn_helper.plist has been deleted",
        "I: (main) App tools were deleted",
    };
    int previous = -1;
    for (const auto& line : expected) {
        int at = indexOf(texts, line);
        EXPECT_GT(at, previous) << "missing or out of order: " << line << "\n" << readFile(logFile());
        previous = std::max(previous, at);
    }

    auto requests = server.requests();
    ASSERT_EQ(requests.size(), 1u);
    EXPECT_NE(requests[0].body.find("\"build\":1143"), std::string::npos) << requests[0].body;
    EXPECT_EQ(readFile(launchctlRecord()), "/bin/launchctl bootout system/com.velmora.mac.vpn.vpn_helper\n");
    EXPECT_FALSE(fs::exists(plist()));
    EXPECT_FALSE(fs::exists(sharedFolder()));
}

TEST_F(DaemonEndToEndTest, BackendErrorIsLoggedAndCleanupStillHappens) {
    TestSupport::LoopbackHttpServer server(TestSupport::LoopbackHttpServer::Options{.status = 500});
    writeDevConfig(server.url());
    fs::remove(plist());  // already gone: its message is logged all the same
    startDaemon();
    armAndDeleteBundle();

    ASSERT_TRUE(waitForExit().has_value()) << readFile(logFile());
    ASSERT_TRUE(waitForLog("App tools were deleted")) << readFile(logFile());
    EXPECT_TRUE(logContains("App uninstall request was sent with error: ")) << readFile(logFile());
    EXPECT_TRUE(logContains("500"));
    EXPECT_TRUE(logContains("Vpn helper service plist /Library/LaunchDaemons/com.velmora.mac.vpn.vpn_helper.plist has been deleted"));
    EXPECT_EQ(readFile(launchctlRecord()), "/bin/launchctl bootout system/com.velmora.mac.vpn.vpn_helper\n");
    EXPECT_FALSE(fs::exists(sharedFolder()));
}

TEST_F(DaemonEndToEndTest, WithoutBundleTheDaemonIdles) {
    fs::remove_all(bundle());
    startDaemon();
    ASSERT_TRUE(waitForLog("VPN helper 1143 has been initialized")) << readFile(logFile());
    ASSERT_TRUE(waitForLog("Failed to obtain app url for bundle: com.velmora.mac.vpn"));
    auto texts = logTexts();
    EXPECT_LT(indexOf(texts, "W: (AppBundleObserver) Failed to obtain app url for bundle: com.velmora.mac.vpn"),
              indexOf(texts, "VPN helper 1143 has been initialized") + 2);
    EXPECT_FALSE(waitForExit(std::chrono::seconds(1)).has_value()) << "the daemon must idle";
    EXPECT_FALSE(fs::exists(launchctlRecord()));
    EXPECT_TRUE(fs::exists(sharedFolder()));
}

TEST_F(DaemonEndToEndTest, ExitsWithStatusOneWithoutSharedFolder) {
    // A file where the vendor folder must be makes the shared folder impossible to create.
    fs::remove_all(sharedFolder().parent_path());
    writeFile(sharedFolder().parent_path(), "not a folder");
    startDaemon();
    auto status = waitForExit();
    ASSERT_TRUE(status.has_value());
    ASSERT_TRUE(WIFEXITED(*status));
    EXPECT_EQ(WEXITSTATUS(*status), 1);
    EXPECT_TRUE(logContains("W: (main) Failed to create application shared folder")) << readFile(logFile());
}

TEST_F(DaemonEndToEndTest, DevConfigWithWrongPermissionsIsIgnored) {
    TestSupport::LoopbackHttpServer server(TestSupport::LoopbackHttpServer::Options{.status = 200});
    writeDevConfig(server.url(), 0666);
    startDaemon(/*isolatedNetwork=*/true);
    armAndDeleteBundle();
    ASSERT_TRUE(waitForExit().has_value());
    ASSERT_TRUE(waitForLog("App tools were deleted")) << readFile(logFile());
    EXPECT_TRUE(logContains("Dev config file must have permissions readonly for other."));
    // Without the override the report goes to the built-in host, which the
    // isolated network cannot reach: the loopback server hears nothing.
    EXPECT_TRUE(server.requests().empty());
    EXPECT_FALSE(fs::exists(sharedFolder()));
}

TEST_F(DaemonEndToEndTest, BundleUpdatedOrReplacedInPlaceIsNoUninstall) {
    startDaemon();
    ASSERT_TRUE(waitForLog("with result: true")) << readFile(logFile());
    // An update writing inside the bundle.
    writeFile(bundle() / "update.txt", "new");
    ASSERT_TRUE(waitForLog("App path is exist")) << readFile(logFile());
    // A new copy swapped in atomically: the path never stops existing.
    fs::path fresh = sandbox() / "Applications" / "Velmora VPN new.app";
    fs::create_directories(fresh / "Contents");
    writeFile(fresh / "Contents" / "Info.plist", kBundleInfoPlist);
    auto reports = [&] {
        auto texts = logTexts();
        return std::count_if(texts.begin(), texts.end(),
                             [](const std::string& t) { return t.find("App path is exist") != std::string::npos; });
    };
    size_t before = reports();
    ASSERT_EQ(renameat2(AT_FDCWD, fresh.c_str(), AT_FDCWD, bundle().c_str(), RENAME_EXCHANGE), 0);
    EXPECT_TRUE(waitUntil([&] { return static_cast<size_t>(reports()) > before; })) << readFile(logFile());
    EXPECT_FALSE(waitForExit(std::chrono::seconds(1)).has_value());
    EXPECT_FALSE(logContains("has been deleted (observer)"));
    EXPECT_FALSE(fs::exists(launchctlRecord()));
    EXPECT_TRUE(fs::exists(sharedFolder()));
    EXPECT_TRUE(fs::exists(plist()));
}

}  // namespace
