#include "vpn_helper/AppBundleObserver.h"

#include <sys/stat.h>

#include <utility>

#include "Tovik/Logger/Logger.h"

namespace VpnHelper {

namespace {

// How often one change check re-arms on a bundle folder that keeps being
// replaced before it leaves the rest to the next report.
constexpr int kMaxRearms = 8;

// The node at path, if any item is there (the file manager's existence test:
// follows symbolic links, any kind of item).
std::optional<Tovik::DirectoryMonitor::Node> nodeAt(const std::string& path) {
    struct stat info {};
    if (::stat(path.c_str(), &info) != 0) return std::nullopt;
    return Tovik::DirectoryMonitor::Node{info.st_dev, info.st_ino};
}

void logMonitorGone() {
    TLOG_INFO("directoryMonitorDidObserveChange(_:)", "Directory monitor is nil. Monitoring was stopped.");
}

}  // namespace

std::shared_ptr<AppBundleObserver> AppBundleObserver::create(std::string appBundleId,
                                                             const Workspace::Workspace& workspace) {
    return std::make_shared<AppBundleObserver>(Token{}, std::move(appBundleId), workspace);
}

AppBundleObserver::AppBundleObserver(Token, std::string appBundleId, const Workspace::Workspace& workspace)
    : queue_("vpn.helper.observer"),
      appBundleId_(std::move(appBundleId)),
      appBundleUrl_(workspace.urlForApplication(appBundleId_)) {}

AppBundleObserver::~AppBundleObserver() {
    // A running monitor would otherwise keep itself alive with nobody to hear it.
    if (directoryMonitor_) directoryMonitor_->stopMonitoring();
}

void AppBundleObserver::startMonitoring(Completion completion) {
    queue_.async([weakSelf = weak_from_this(), completion = std::move(completion)]() mutable {
        if (auto self = weakSelf.lock()) self->start(std::move(completion));
    });
}

void AppBundleObserver::directoryMonitorDidObserveChange(const std::shared_ptr<Tovik::DirectoryMonitor>& monitor) {
    queue_.async([weakSelf = weak_from_this(), reporter = std::weak_ptr<Tovik::DirectoryMonitor>(monitor)] {
        auto self = weakSelf.lock();
        if (!self) {
            logMonitorGone();
            return;
        }
        self->handleChange(reporter);
    });
}

void AppBundleObserver::start(Completion completion) {
    if (!appBundleUrl_) {
        TLOG_WARN("startMonitoring(completion:)", "Failed to obtain app url for bundle: " + appBundleId_);
        return;
    }
    disarm();
    callback_ = std::move(completion);

    const std::string bundlePath = appBundleUrl_->string();
    const bool result = arm(bundlePath);
    TLOG_INFO("startMonitoring(completion:)", "Start removal observer for path: " + bundlePath + " and bundle: " +
                                                  appBundleId_ + " with result: " + (result ? "true" : "false"));
}

void AppBundleObserver::handleChange(const std::weak_ptr<Tovik::DirectoryMonitor>& reporter) {
    // A monitor that was replaced or stopped meanwhile is either freed or not ours.
    if (!directoryMonitor_ || reporter.lock() != directoryMonitor_) {
        logMonitorGone();
        return;
    }
    if (!appBundleUrl_) {
        TLOG_WARN("directoryMonitorDidObserveChange(_:)", "Invalid app url");
        return;
    }
    const std::string bundlePath = appBundleUrl_->string();
    auto node = nodeAt(bundlePath);
    if (node) {
        TLOG_WARN("directoryMonitorDidObserveChange(_:)", "App path is exist");
        // An update may have put a new folder at the bundle path (moved or
        // exchanged into place): the monitor still follows the old one, which
        // would never report the bundle's deletion. Watch what stands there
        // now, and look again, since it may have been replaced or deleted
        // before the new monitor was armed.
        for (int rearms = 0; node && directoryMonitor_->watchedNode() != node; ++rearms) {
            // Still being replaced after several tries: stop here. If the
            // last monitor was armed before the latest replacement, that
            // replacement brings another check.
            if (rearms == kMaxRearms) return;
            disarm();
            arm(bundlePath);
            node = nodeAt(bundlePath);
        }
        if (node) return;
    }
    disarm();
    if (callback_) callback_(bundlePath);
}

bool AppBundleObserver::arm(const std::string& bundlePath) {
    directoryMonitor_ = Tovik::DirectoryMonitor::create(bundlePath);
    directoryMonitor_->setDelegate(weak_from_this());
    return directoryMonitor_->startMonitoring();
}

void AppBundleObserver::disarm() {
    if (!directoryMonitor_) return;
    directoryMonitor_->stopMonitoring();
    directoryMonitor_.reset();
}

}  // namespace VpnHelper
