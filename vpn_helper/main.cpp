// vpn_helper: the privileged companion daemon of the Velmora VPN application.
//
// It watches the application bundle; when the user deletes it, it reports the
// uninstall to the backend, boots its own service out of launchd and deletes
// its LaunchDaemon plist and the shared data folder. It takes no arguments
// and runs until launchd stops it.
#include <cerrno>
#include <cstdlib>
#include <memory>
#include <string>
#include <system_error>

#include "Dispatch/DispatchQueue.h"
#include "Tovik/Logger/Logger.h"
#include "Tovik/Process.h"
#include "vpn_helper/AppBundleObserver.h"
#include "vpn_helper/BackendClient.h"
#include "vpn_helper/Locations.h"
#include "vpn_helper/LogConfig.h"
#include "vpn_helper/SecureRemove.h"

namespace {

constexpr const char* kServiceTarget = "system/com.velmora.mac.vpn.vpn_helper";
constexpr const char* kPlistPath = "/Library/LaunchDaemons/com.velmora.mac.vpn.vpn_helper.plist";
constexpr const char* kAppBundleId = "com.velmora.mac.vpn";
constexpr const char* kHelperSubsystem = "com.velmora.mac.vpn.vpn_helper";
constexpr const char* kLaunchctl = "/bin/launchctl";

// Held for the whole run: the observer must outlive every event it handles.
std::shared_ptr<VpnHelper::AppBundleObserver> observer;

void removeItem(const std::string& path) {
    if (VpnHelper::secureRemoveItem(path)) return;
    const int error = errno;
    TLOG_ERROR("runUninstallSequence(appPath:sharedFolder:)",
               "Failed to delete " + path + ": " + std::generic_category().message(error));
}

// Runs on the observer's queue once the bundle is gone. Every step runs even
// when an earlier one failed; the bootout ends the process, not this function.
void runUninstallSequence(const std::string& appPath, const std::string& sharedFolder) {
    TLOG_INFO("runUninstallSequence(appPath:sharedFolder:)",
              "App bundle path " + appPath + " has been deleted (observer)");

    auto appsApi = VpnHelper::BackendClient::queue().sync([] {
        auto client = VpnHelper::BackendClient::shared();
        return client ? client->appsApi() : nullptr;
    });
    if (appsApi) {
        if (auto error = appsApi->trackAppUninstall()) {
            TLOG_INFO("runUninstallSequence(appPath:sharedFolder:)",
                      "App uninstall request was sent with error: " + error->description());
        } else {
            TLOG_INFO("runUninstallSequence(appPath:sharedFolder:)", "App uninstall request was successfully sent");
        }
    } else {
        TLOG_INFO("runUninstallSequence(appPath:sharedFolder:)",
                  "App uninstall request was skipped: the backend client is not available");
    }

    // Fire and forget: launchd stops this process as part of the bootout.
    Tovik::Process::run(kLaunchctl, std::vector<std::string>{"bootout", kServiceTarget}, std::nullopt, std::nullopt,
                        std::nullopt, std::nullopt, false);
    TLOG_INFO("runUninstallSequence(appPath:sharedFolder:)",
              std::string("Vpn helper service ") + kServiceTarget + " has been stopped");

    // A failed deletion is reported; the sequence goes on and its own
    // messages are logged anyway.
    removeItem(kPlistPath);
    TLOG_INFO("runUninstallSequence(appPath:sharedFolder:)",
              std::string("Vpn helper service plist ") + kPlistPath + " has been deleted");

    removeItem(sharedFolder);
    TLOG_INFO("runUninstallSequence(appPath:sharedFolder:)", "App tools were deleted");
}

}  // namespace

int main() {
    VpnHelper::LogConfig::setup(kHelperSubsystem);
    Tovik::Logger::shared().setLogLevel(Tovik::LogLevel::debug);

    auto sharedFolder = VpnHelper::Locations::sharedFolder();
    if (!sharedFolder) {
        TLOG_WARN("main", "Failed to create application shared folder");
        std::exit(1);
    }

    observer = VpnHelper::AppBundleObserver::create(kAppBundleId);
    observer->startMonitoring([folder = sharedFolder->string()](const std::string& appPath) {
        runUninstallSequence(appPath, folder);
    });

    TLOG_INFO("main", "VPN helper 1143 has been initialized");
    Dispatch::dispatchMain();
}
