#include "vpn_helper/AppBundleObserver.h"

#include <sys/stat.h>

#include <utility>

#include "Tovik/Logger/Logger.h"

namespace VpnHelper {

namespace {

// The file manager's existence test: follows symbolic links, any kind of item.
bool fileExists(const std::string& path) {
    struct stat info {};
    return ::stat(path.c_str(), &info) == 0;
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
    if (directoryMonitor_) {
        directoryMonitor_->stopMonitoring();
        directoryMonitor_.reset();
    }
    callback_ = std::move(completion);

    const std::string bundlePath = appBundleUrl_->string();
    directoryMonitor_ = Tovik::DirectoryMonitor::create(bundlePath);
    directoryMonitor_->setDelegate(weak_from_this());
    const bool result = directoryMonitor_->startMonitoring();
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
    if (fileExists(bundlePath)) {
        TLOG_WARN("directoryMonitorDidObserveChange(_:)", "App path is exist");
        return;
    }
    directoryMonitor_->stopMonitoring();
    directoryMonitor_.reset();
    if (callback_) callback_(bundlePath);
}

}  // namespace VpnHelper
