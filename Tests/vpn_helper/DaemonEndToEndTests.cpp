// The real daemon binary, run as root in scripts/sandbox.sh: its /Library,
// /Applications and /root are folders of a temporary sandbox, its
// /bin/launchctl is the built one, and the systemctl that runs is a recording
// stand-in (scripts/systemctl-standin.sh) that stops the daemon once the test
// opens its gate.
// The backend is a loopback server; where a test needs the unified log, its
// journal socket is a capture of the test's.
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <filesystem>
#include <optional>
#include <string>
#include <vector>

#include "Platform/OSLog/JournalCapture.h"
#include "Support/LoopbackHttpServer.h"
#include "Support/TestSupport.h"

namespace fs = std::filesystem;
using TestSupport::LoopbackHttpServer;
using TestSupport::readFile;
using TestSupport::waitUntil;
using TestSupport::writeFile;

namespace {

const std::string kInfoPlist = "<plist version=\"1.0\"><dict><key>CFBundleIdentifier</key>"
                               "<string>com.velmora.mac.vpn</string></dict></plist>";
const std::string kUnit = "com.velmora.mac.vpn.vpn_helper.service";
// What `launchctl bootout system/com.velmora.mac.vpn.vpn_helper` runs.
const std::string kBootoutCalls = "systemctl show --property=LoadState --value " + kUnit + "\n" +
                                  "systemctl disable --now " + kUnit + "\n";

class DaemonEndToEndTest : public ::testing::Test {
protected:
    void SetUp() override {
        if (geteuid() != 0) GTEST_SKIP() << "the sandbox needs root";
        fs::create_directories(bundle / "Contents");
        writeFile(bundle / "Contents" / "Info.plist", kInfoPlist);
        fs::create_directories(sandbox / "bin");
        fs::copy_file(LAUNCHCTL_BINARY, sandbox / "bin" / "launchctl");
        fs::create_directories(sandbox / "tools");
        fs::copy_file(fs::path(TOVIK_SOURCE_DIR) / "scripts" / "systemctl-standin.sh", sandbox / "tools" / "systemctl");
        fs::create_directories(plist.parent_path());
        writeFile(plist, "<plist version=\"1.0\"><dict/></plist>\n");
        fs::create_directories(shared);
        writeFile(shared / "state.bin", "app data");
    }

    void TearDown() override {
        if (pid_ > 0) {
            kill(pid_, SIGKILL);
            waitpid(pid_, nullptr, 0);
        }
    }

    // Writes a devConfig.json (root-owned: the tests run as root) that aims the backend at url.
    void writeDevConfig(const std::string& url) {
        writeFile(shared / "devConfig.json", "{\"api_fallback_domain\": \"" + url + "\"}\n");
        ASSERT_EQ(chmod((shared / "devConfig.json").c_str(), 0644), 0);
    }

    // Starts the daemon with bind mounts inside the sandbox ("<target>=<host path>", as
    // SANDBOX_BINDS takes them) and NAME=value settings for the daemon's process alone.
    void startDaemon(const std::vector<std::string>& binds = {}, const std::vector<std::string>& settings = {}) {
        std::string bindSetting = "SANDBOX_BINDS=";
        for (const auto& bind : binds) bindSetting += bind + "\n";
        // The stand-in comes first on PATH: the machine's systemctl never runs.
        std::vector<std::string> words = {
            "/usr/bin/env", bindSetting, "bash", TOVIK_SOURCE_DIR "/scripts/sandbox.sh", sandbox, "/usr/bin/env",
            "PATH=" + (sandbox / "tools").string() + ":/usr/sbin:/usr/bin:/sbin:/bin",
            "SYSTEMCTL_RECORD=" + systemctlRecord.string(), "SYSTEMCTL_UNITS=" + kUnit,
            "SYSTEMCTL_STOP_GATE=" + stopGate.string()};
        words.insert(words.end(), settings.begin(), settings.end());
        words.push_back(VPN_HELPER_BINARY);
        std::vector<char*> arguments;
        for (auto& word : words) arguments.push_back(word.data());
        arguments.push_back(nullptr);
        pid_ = fork();
        ASSERT_GE(pid_, 0);
        if (pid_ == 0) {
            execv("/usr/bin/env", arguments.data());
            _exit(127);
        }
    }

    std::string log() const { return readFile(logFile); }
    bool logged(const std::string& text) const { return log().find(text) != std::string::npos; }
    bool waitForLog(const std::string& text) {
        return waitUntil([&] { return logged(text); }, std::chrono::seconds(20));
    }

    // Waits for the daemon to end; returns its wait status.
    std::optional<int> waitForExit(std::chrono::seconds deadline = std::chrono::seconds(20)) {
        int status = 0;
        if (!waitUntil([&] { return waitpid(pid_, &status, WNOHANG) == pid_; }, deadline)) return std::nullopt;
        pid_ = -1;
        return status;
    }

    // Lets the stand-in systemctl go on with the stop job that the bootout
    // started; until then the daemon runs.
    void openStopGate() { writeFile(stopGate, ""); }

    // Waits for the daemon to end and checks that the stop job ended it.
    void waitForStop(const std::string& context) {
        auto status = waitForExit();
        ASSERT_TRUE(status.has_value()) << context;
        EXPECT_TRUE(WIFSIGNALED(*status) && WTERMSIG(*status) == SIGTERM) << "stopped by the bootout, wait status "
                                                                           << *status;
    }

    // Starts the daemon, waits until it watches the bundle, deletes the bundle,
    // waits for its clean-up to finish, then for the bootout to stop it.
    void uninstall(const std::vector<std::string>& binds = {}) {
        startDaemon(binds);
        ASSERT_TRUE(waitForLog("with result: true")) << log();
        fs::remove_all(bundle);
        ASSERT_TRUE(waitForLog("App tools were deleted")) << log();
        openStopGate();
        waitForStop(log());
        EXPECT_FALSE(fs::exists(shared));
        EXPECT_EQ(readFile(systemctlRecord), kBootoutCalls);
    }

    TestSupport::TemporaryDirectory dir_{"daemon-e2e"};
    fs::path sandbox = dir_.path();
    fs::path bundle = sandbox / "Applications" / "Velmora VPN.app";
    fs::path plist = sandbox / "Library/LaunchDaemons/com.velmora.mac.vpn.vpn_helper.plist";
    fs::path shared = sandbox / "Library/Application Support/Velmora Software/com.velmora.mac.vpn";
    fs::path logFile = sandbox / "Library/Logs/com.velmora.mac.vpn/Velmora VPN-shared.log";
    fs::path systemctlRecord = sandbox / "systemctl-calls.txt";
    fs::path stopGate = sandbox / "stop-gate";
    pid_t pid_ = -1;
};

TEST_F(DaemonEndToEndTest, UninstallReportsBootsOutAndDeletes) {
    LoopbackHttpServer server(200);
    writeDevConfig(server.url());
    // No network interface to be seen: the product identity falls back to the serial number.
    fs::create_directories(sandbox / "no-interfaces");
    uninstall({"/sys/class/net=" + (sandbox / "no-interfaces").string()});

    const std::string bundlePath = "/Applications/Velmora VPN.app";
    const std::string text = log();
    // The observer arms its monitor on its own queue, so its start line and
    // the initialized line may come in either order; the rest is one road.
    EXPECT_NE(text.find("] I: (main) VPN helper 1143 has been initialized"), std::string::npos) << text;
    size_t at = 0;
    for (const std::string& line : std::vector<std::string>{
             "] I: (AppBundleObserver) Start removal observer for path: " + bundlePath +
                 " and bundle: com.velmora.mac.vpn with result: true",
             "] I: (main) App bundle path " + bundlePath + " has been deleted (observer)",
             // The backend client is built from its configuration, then the app details.
             "] D: (DeveloperConfigUtils: subscript(_:)) Reloading devConfig.json",
             "] W: (ProductInfo) Failed to get mac address - using serial number",
             "] I: (main) App uninstall request was successfully sent",
             "] I: (Process) Running /bin/launchctl bootout system/com.velmora.mac.vpn.vpn_helper \n",
             "] I: (main) Vpn helper service system/com.velmora.mac.vpn.vpn_helper has been stopped",
             "] I: (main) Vpn helper service plist /Library/LaunchDaemons/com.velmora.mac.vpn.vpn_helper.plist has "
             "been deleted",
             "] I: (main) App tools were deleted",
         }) {
        at = text.find(line, at);
        ASSERT_NE(at, std::string::npos) << "missing or out of order: " << line << "\n" << text;
    }
    auto requests = server.requests();
    ASSERT_EQ(requests.size(), 1u);
    EXPECT_NE(requests[0].body.find("\"build\":1143"), std::string::npos) << requests[0].body;
    EXPECT_FALSE(fs::exists(plist));
}

TEST_F(DaemonEndToEndTest, BackendErrorAndMissingPlistAreLoggedAndCleanupStillHappens) {
    LoopbackHttpServer server(500);
    writeDevConfig(server.url());
    fs::remove(plist);  // already gone: its message is logged all the same
    uninstall();
    EXPECT_TRUE(logged("App uninstall request was sent with error: ") && logged("500")) << log();
    EXPECT_TRUE(logged("Vpn helper service plist /Library/LaunchDaemons/com.velmora.mac.vpn.vpn_helper.plist has been "
                       "deleted"));
}

TEST_F(DaemonEndToEndTest, WithoutBundleTheDaemonIdles) {
    fs::remove_all(bundle);
    startDaemon();
    ASSERT_TRUE(waitForLog("W: (AppBundleObserver) Failed to obtain app url for bundle: com.velmora.mac.vpn"))
        << log();
    EXPECT_TRUE(waitForLog("VPN helper 1143 has been initialized")) << log();
    EXPECT_FALSE(waitForExit(std::chrono::seconds(1)).has_value()) << "the daemon must idle";
    EXPECT_FALSE(fs::exists(systemctlRecord));
    EXPECT_TRUE(fs::exists(shared));
}

TEST_F(DaemonEndToEndTest, ExitsWithStatusOneWithoutSharedFolder) {
    // A file where the vendor folder must be makes the shared folder impossible to create.
    fs::remove_all(shared.parent_path());
    writeFile(shared.parent_path(), "not a folder");
    startDaemon();
    auto status = waitForExit();
    ASSERT_TRUE(status.has_value());
    EXPECT_TRUE(WIFEXITED(*status) && WEXITSTATUS(*status) == 1) << *status;
    EXPECT_TRUE(logged("W: (main) Failed to create application shared folder")) << log();
}

// The whole uninstall on a failing disk: every file write fails (the log file
// takes nothing), or every removal does. The daemon must not crash or hang,
// every step that can run runs, and its reports still reach the unified log.
class DaemonOnFailingDiskTest : public DaemonEndToEndTest, public ::testing::WithParamInterface<std::string> {};

TEST_P(DaemonOnFailingDiskTest, UninstallRunsEveryStepAndReportsToTheSystemLog) {
    LoopbackHttpServer server(200);
    writeDevConfig(server.url());
    // The daemon's unified log goes to a capture bound where the journal's socket is.
    TestSupport::JournalCapture journal;
    fs::create_directories(sandbox / "run/systemd/journal");
    writeFile(sandbox / "run/systemd/journal/socket", "");
    // With the fault library preloaded, the sanitizer runtime no longer comes
    // first among the libraries; it works all the same when told not to check.
    const char* asanOptions = getenv("ASAN_OPTIONS");
    startDaemon({"/run=" + (sandbox / "run").string(),
                 "/run/systemd/journal/socket=" + (journal.folder() / "journal.socket").string()},
                {"LD_PRELOAD=" FAULT_INJECTION_LIBRARY, GetParam(),
                 "ASAN_OPTIONS=" + std::string(asanOptions ? asanOptions : "") + ":verify_asan_link_order=0"});
    // The journal's queue is short: reading it is what lets the daemon go on.
    std::string messages;
    auto journalShows = [&](const std::string& text) {
        while (messages.find(text) == std::string::npos) {
            auto entry = journal.nextRaw(std::chrono::seconds(20));
            if (!entry) return false;
            messages += TestSupport::parseJournalEntry(*entry)["MESSAGE"] + "\n";
        }
        return true;
    };
    ASSERT_TRUE(journalShows("with result: true")) << messages;
    fs::remove_all(bundle);
    for (const char* line : {"App uninstall request was successfully sent",
                             "Vpn helper service system/com.velmora.mac.vpn.vpn_helper has been stopped",
                             "Vpn helper service plist /Library/LaunchDaemons/com.velmora.mac.vpn.vpn_helper.plist "
                             "has been deleted",
                             "App tools were deleted"}) {
        ASSERT_TRUE(journalShows(line)) << messages;
    }
    const bool removalsFail = GetParam().starts_with("FAULT_UNLINK");
    if (removalsFail) {
        EXPECT_TRUE(journalShows("Failed to delete /Library/LaunchDaemons/com.velmora.mac.vpn.vpn_helper.plist: "
                                 "Input/output error")) << messages;
        EXPECT_TRUE(journalShows("Failed to delete /Library/Application Support/Velmora Software/"
                                 "com.velmora.mac.vpn: Input/output error")) << messages;
    } else {
        EXPECT_TRUE(journalShows("Failed to write /Library/Logs/")) << messages;
    }
    openStopGate();
    waitForStop(messages);
    EXPECT_EQ(server.requests().size(), 1u);
    // The programs the bootout runs write on a sound disk: the preload library
    // leaves their environment.
    EXPECT_EQ(readFile(systemctlRecord), kBootoutCalls);
    EXPECT_EQ(fs::exists(plist), removalsFail);
    EXPECT_EQ(fs::exists(shared), removalsFail);
    if (!removalsFail) {
        EXPECT_EQ(log(), "") << "the writes did not fail";
    }
}

INSTANTIATE_TEST_SUITE_P(Faults, DaemonOnFailingDiskTest,
                         ::testing::Values("FAULT_WRITE_ERRNO=ENOSPC", "FAULT_WRITE_ERRNO=EIO",
                                           "FAULT_UNLINK_ERRNO=EIO"),
                         [](const auto& info) {
                             std::string name = info.param.substr(info.param.find('=') + 1);
                             return (info.param.starts_with("FAULT_WRITE") ? "Write" : "Unlink") + name;
                         });

}  // namespace
