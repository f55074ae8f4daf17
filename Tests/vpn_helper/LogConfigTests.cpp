// Log set-up in scripts/sandbox.sh: /Library and root's home are sandbox
// folders, and root may have no entry in the user database.
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
using TestSupport::insideSandbox;
using TestSupport::TemporaryDirectory;
using VpnHelper::LogConfig;

namespace {

const std::string helper = "com.velmora.mac.vpn.vpn_helper";
const std::string sharedLog = "/Library/Logs/com.velmora.mac.vpn/Velmora VPN-shared.log";

// The installed file handler's path, or what is wrong with the handler list.
std::string installedFilePath(const std::string& subsystem) {
    auto handlers = Tovik::Logger::shared().handlers();
    auto* file = handlers.size() == 2 ? dynamic_cast<Tovik::FileLogHandler*>(handlers[0].get()) : nullptr;
    auto* oslog = handlers.size() == 2 ? dynamic_cast<Tovik::OSLogHandler*>(handlers[1].get()) : nullptr;
    if (!file || !oslog) return "not a FileLogHandler and an OSLogHandler";
    EXPECT_EQ(file->subsystem(), subsystem);
    EXPECT_TRUE(file->addPrefix());
    EXPECT_EQ(oslog->oslogger().subsystem(), subsystem);
    return file->filepath();
}

}  // namespace

TEST(LogConfigTests, TheHelperLogsToTheSharedFileAnyOtherSubsystemToTheGroupFile) {
    TemporaryDirectory sandbox("sandbox");
    if (!insideSandbox(sandbox.path())) {
        std::string text = TestSupport::readFile(sandbox / "Library/Logs/com.velmora.mac.vpn/Velmora VPN-shared.log");
        EXPECT_NE(text.find("[com.velmora.mac.vpn.vpn_helper] I: (LogConfigTests) hello"), std::string::npos) << text;
        EXPECT_TRUE(fs::exists(sandbox / "home/Library/Preferences/LogConfigTests.plist"));
        return;
    }
    const std::string groupLog = fs::path(getpwuid(0)->pw_dir) /
                                 "Library/Group Containers/QX4HL2ZC8M.com.velmora.mac/Library/Logs/"
                                 "com.velmora.mac.vpn/Velmora VPN-group.log";
    TestSupport::ScopedLogCapture capture;
    LogConfig::setup(helper);
    LogConfig::setup(helper);
    EXPECT_EQ(installedFilePath(helper), sharedLog);
    EXPECT_EQ(LogConfig::sharedLogFilePath(), sharedLog);
    EXPECT_EQ(LogConfig::groupLogFilePath(), groupLog);
    TLOG_INFO("test", "hello");
    EXPECT_TRUE(capture.recorder().lines().empty());

    LogConfig::setup("com.velmora.mac.vpn.VPN_helper");
    EXPECT_EQ(installedFilePath("com.velmora.mac.vpn.VPN_helper"), groupLog);

    // LastErrorLogHandler keeps the most recent error, written through to the
    // program's preferences file in root's home.
    VpnHelper::LastErrorLogHandler handler;
    auto& defaults = Foundation::UserDefaults::standard();
    auto date = std::chrono::system_clock::now();
    handler.log(Tovik::LogLevel::error, date, "E: (A: f()) first");
    handler.log(Tovik::LogLevel::warning, date, "W: (A) still not kept");
    EXPECT_EQ(defaults.string("LastError"), "E: (A: f()) first");
    handler.log(Tovik::LogLevel::error, date, "E: (A: f()) second");
    EXPECT_EQ(Foundation::UserDefaults().string("LastError"), "E: (A: f()) second");
}

TEST(LogConfigTests, WithoutAGroupContainerTheFailuresReachOnlyTheEarlierHandlers) {
    TemporaryDirectory sandbox("sandbox");
    if (!insideSandbox(sandbox.path(), {TestSupport::userDatabaseBinds(sandbox.path(), "")})) {
        std::string text = TestSupport::readFile(sandbox / "Library/Logs/com.velmora.mac.vpn/Velmora VPN-shared.log");
        EXPECT_NE(text.find("after set-up"), std::string::npos);
        EXPECT_EQ(text.find("Failed to get"), std::string::npos) << text;
        return;
    }
    TestSupport::ScopedLogCapture capture;
    LogConfig::setup(helper);

    EXPECT_EQ(capture.recorder().lines().size(), 2u) << "the two failures of Locations";
    EXPECT_EQ(installedFilePath(helper), sharedLog);
    EXPECT_EQ(LogConfig::groupLogFilePath(), "");
    TLOG_INFO("test", "after set-up");
}
