// Watches the main application's bundle and calls a completion once the
// bundle has disappeared (deleted, or moved away, as to the Trash).
//
// The bundle is located once, at construction, by its bundle identifier. A
// DirectoryMonitor on the bundle folder reports changes; after each one the
// observer checks whether the bundle path still exists. A change that leaves
// the bundle in place is logged and otherwise ignored, except that when a
// different folder now stands at the path (an update moved or exchanged a new
// bundle into place), the observer moves its monitor to that folder. The
// first change after which the path is gone stops the monitor and fires the
// completion, once.
//
// All work runs in submission order on the serial queue "vpn.helper.observer":
// the start, every change check and the completion, which may block the
// queue. Each block holds the observer weakly, so releasing the observer
// turns pending work into no-ops. The observer owns its monitor; the monitor
// holds the observer as a weak delegate.
#pragma once

#include <filesystem>
#include <functional>
#include <memory>
#include <optional>
#include <string>

#include "Dispatch/DispatchQueue.h"
#include "Tovik/DirectoryMonitor.h"
#include "Tovik/DirectoryMonitorDelegate.h"
#include "Workspace/Workspace.h"

namespace VpnHelper {

class AppBundleObserver final : public Tovik::DirectoryMonitorDelegate,
                                public std::enable_shared_from_this<AppBundleObserver> {
    struct Token {};

public:
    /// Receives the bundle path once the bundle is gone.
    using Completion = std::function<void(const std::string& bundlePath)>;

    /// An observer for the application with appBundleId, located through
    /// workspace now (and never again).
    static std::shared_ptr<AppBundleObserver> create(
        std::string appBundleId, const Workspace::Workspace& workspace = Workspace::Workspace::shared());
    AppBundleObserver(Token, std::string appBundleId, const Workspace::Workspace& workspace);
    /// Stops the current monitor, if any.
    ~AppBundleObserver() override;
    AppBundleObserver(const AppBundleObserver&) = delete;
    AppBundleObserver& operator=(const AppBundleObserver&) = delete;

    /// Returns at once; on the queue, arms a new monitor on the bundle folder
    /// (replacing any previous monitor and completion). Without a bundle
    /// location it only logs a warning and keeps no completion.
    void startMonitoring(Completion completion);

    /// Called by the monitor from any thread; returns at once and checks the
    /// bundle on the queue. Reports of a monitor that is no longer the
    /// current one are logged and ignored. While the bundle path exists, the
    /// check leaves the current monitor armed on the folder now at that path
    /// (same device and inode), re-arming it when the folder was replaced (a
    /// few times at most while it keeps being replaced); once the path is
    /// gone, the monitor is stopped and the completion runs.
    void directoryMonitorDidObserveChange(const std::shared_ptr<Tovik::DirectoryMonitor>& monitor) override;

    /// The observer's serial queue, where the completion runs.
    const Dispatch::DispatchQueue& queue() const { return queue_; }
    /// Where the bundle was found at construction, if anywhere.
    const std::optional<std::filesystem::path>& appBundleUrl() const { return appBundleUrl_; }
    /// The monitor armed on the bundle folder; none before the start and once
    /// the bundle is gone. Read it on the queue only.
    const std::shared_ptr<Tovik::DirectoryMonitor>& directoryMonitor() const { return directoryMonitor_; }

private:
    void start(Completion completion);
    void handleChange(const std::weak_ptr<Tovik::DirectoryMonitor>& reporter);
    bool arm(const std::string& bundlePath);  // a new current monitor; whether it started
    void disarm();                            // stops and drops the current monitor

    std::shared_ptr<Tovik::DirectoryMonitor> directoryMonitor_;  // on queue_ only
    const Dispatch::DispatchQueue queue_;
    const std::string appBundleId_;
    const std::optional<std::filesystem::path> appBundleUrl_;
    Completion callback_;  // on queue_ only; stays set after firing
};

}  // namespace VpnHelper
