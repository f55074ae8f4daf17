// Log set-up in a private mount namespace with a stand-in /Library and a user
// database whose root lives in a temporary home (or has no entry at all).
#include "vpn_helper/LogConfig.h"

#include <gtest/gtest.h>
#include <pwd.h>

#include "Foundation/UserDefaults.h"
#include "Support/LogCapture.h"
#include "Support/MountNamespace.h"
#include "Support/TestSupport.h"
#include "Tovik/Logger/Handlers/FileLogHandler.h"
#include "Tovik/Logger/Handlers/OSLogHandler.h"
#include "vpn_helper/LastErrorLogHandler.h"

namespace fs = std::filesystem;
using TestSupport::insideMountNamespace;
using TestSupport::TemporaryDirectory;
using VpnHelper::LogConfig;

namespace {

const std::string helper = "com.velmora.mac.vpn.vpn_helper";
const std::string sharedLog = "/Library/Logs/com.velmora.mac.vpn/Velmora VPN-shared.log";

class LogConfigTests : public ::testing::Test {
protected:
    // Root's home is home_ when withHome, else root has no entry.
    std::vector<TestSupport::MountReplacement> sandbox(bool withHome = true) {
        std::string passwd = "daemon:x:1:1:daemon:/usr/sbin:/usr/sbin/nologin\n";
        if (withHome) passwd = "root:x:0:0:root:" + home_.path().string() + ":/bin/bash\n" + passwd;
        TestSupport::writeFile(users_ / "passwd", passwd);
        TestSupport::writeFile(users_ / "nsswitch.conf", "passwd: files\ngroup: files\n");
        return {{"/Library", library_.path()},
                {"/etc/passwd", users_ / "passwd"},
                {"/etc/nsswitch.conf", users_ / "nsswitch.conf"}};
    }

    static fs::path groupLog() {
        return fs::path(getpwuid(0)->pw_dir) /
               "Library/Group Containers/QX4HL2ZC8M.com.velmora.mac/Library/Logs/com.velmora.mac.vpn/"
               "Velmora VPN-group.log";
    }

    // The installed file handler's path, after checking the list's shape.
    static std::string installedFilePath(const std::string& subsystem) {
        auto handlers = Tovik::Logger::shared().handlers();
        EXPECT_EQ(handlers.size(), 2u);
        auto* file = handlers.empty() ? nullptr : dynamic_cast<Tovik::FileLogHandler*>(handlers[0].get());
        auto* oslog = handlers.size() < 2 ? nullptr : dynamic_cast<Tovik::OSLogHandler*>(handlers[1].get());
        if (!file || !oslog) {
            ADD_FAILURE() << "expected a FileLogHandler then an OSLogHandler";
            return {};
        }
        EXPECT_EQ(file->subsystem(), subsystem);
        EXPECT_TRUE(file->addPrefix());
        EXPECT_EQ(oslog->oslogger().subsystem(), subsystem);
        return file->filepath();
    }

    TemporaryDirectory library_{"library"};
    TemporaryDirectory home_{"home"};
    TemporaryDirectory users_{"userdb"};
};

}  // namespace

TEST_F(LogConfigTests, TheHelperLogsToTheSharedFileAndSetUpReplacesTheHandlers) {
    if (!insideMountNamespace(sandbox())) {
        std::string text = TestSupport::readFile(library_ / "Logs/com.velmora.mac.vpn/Velmora VPN-shared.log");
        EXPECT_NE(text.find("[com.velmora.mac.vpn.vpn_helper] I: (LogConfigTests) hello"), std::string::npos) << text;
        return;
    }
    TestSupport::ScopedLogCapture capture;
    LogConfig::setup(helper);
    LogConfig::setup(helper);

    EXPECT_EQ(installedFilePath(helper), sharedLog);
    EXPECT_EQ(LogConfig::sharedLogFilePath(), sharedLog);
    EXPECT_EQ(LogConfig::groupLogFilePath(), groupLog().string());
    TLOG_INFO("test", "hello");
    EXPECT_TRUE(capture.recorder().lines().empty());
}

TEST_F(LogConfigTests, AnyOtherSubsystemLogsToTheGroupFile) {
    if (!insideMountNamespace(sandbox())) return;
    TestSupport::ScopedLogCapture capture;

    LogConfig::setup("com.velmora.mac.vpn.VPN_helper");
    EXPECT_EQ(installedFilePath("com.velmora.mac.vpn.VPN_helper"), groupLog().string());
    LogConfig::setup("com.velmora.mac.vpn");
    EXPECT_EQ(installedFilePath("com.velmora.mac.vpn"), groupLog().string());
}

TEST_F(LogConfigTests, WithoutAGroupContainerTheFailuresReachOnlyTheEarlierHandlers) {
    if (!insideMountNamespace(sandbox(false))) {
        std::string text = TestSupport::readFile(library_ / "Logs/com.velmora.mac.vpn/Velmora VPN-shared.log");
        EXPECT_NE(text.find("after set-up"), std::string::npos);
        EXPECT_EQ(text.find("Failed to get"), std::string::npos) << text;
        return;
    }
    TestSupport::ScopedLogCapture capture;
    LogConfig::setup(helper);

    EXPECT_EQ(capture.recorder().lines(),
              (std::vector<std::string>{"E: (Locations: Locations) Failed to get app group directory",
                                        "E: (Locations: Locations) Failed to get group logs directory"}));
    EXPECT_EQ(installedFilePath(helper), sharedLog);
    EXPECT_EQ(LogConfig::groupLogFilePath(), "");
    TLOG_INFO("test", "after set-up");
}

TEST_F(LogConfigTests, LastErrorKeepsTheMostRecentErrorInTheUserDefaults) {
    if (!insideMountNamespace(sandbox())) return;
    VpnHelper::LastErrorLogHandler handler;
    auto& defaults = Foundation::UserDefaults::standard();
    auto date = std::chrono::system_clock::now();

    handler.log(Tovik::LogLevel::warning, date, "W: (A) not kept");
    EXPECT_FALSE(defaults.object("LastError"));
    handler.log(Tovik::LogLevel::error, date, "E: (A: f()) first");
    handler.log(Tovik::LogLevel::warning, date, "W: (A) still not kept");
    EXPECT_EQ(defaults.string("LastError"), "E: (A: f()) first");
    handler.log(Tovik::LogLevel::error, date, "E: (A: f()) second");

    // Written through to the program's preferences file in root's home.
    EXPECT_EQ(Foundation::UserDefaults().string("LastError"), "E: (A: f()) second");
    EXPECT_TRUE(fs::exists(fs::path(getpwuid(0)->pw_dir) / "Library/Preferences/LogConfigTests.plist"));
}
