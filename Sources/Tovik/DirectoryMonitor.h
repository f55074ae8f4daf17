// Watches one existing file-system path and tells a delegate about every
// change the kernel reports on that path's node (a folder: entries created,
// removed or renamed inside it, its attributes, the folder itself deleted or
// moved). It does not say what changed: the delegate looks for itself.
//
// Threads: startMonitoring(), stopMonitoring(), restartMonitoring(),
// isMonitoring(), fd() and watchedNode() may be called from any thread; one
// lock serialises them with the source's cancel handler. Events and
// cancellations of every monitor are handled on one process-wide concurrent
// queue, "DirectoryMonitor".
//
// Lifetime: always owned by a std::shared_ptr (see create()). While its
// source runs, the monitor keeps itself alive, whoever else lets go; after
// stopMonitoring() it is freed once its owners and the pending cancel handler
// have let go. Events already queued when the monitor stops or restarts are
// dropped: each delivery is checked against the descriptor it was armed on.
#pragma once

#include <sys/types.h>

#include <atomic>
#include <memory>
#include <optional>
#include <string>

#include "Dispatch/DispatchSource.h"
#include "Tovik/DirectoryMonitorDelegate.h"
#include "Tovik/IDirectoryMonitor.h"
#include "Tovik/UnfairLock.h"

namespace Tovik {

class DirectoryMonitor final : public IDirectoryMonitor, public std::enable_shared_from_this<DirectoryMonitor> {
    struct Token {};

public:
    /// A stopped monitor for path; nothing is opened yet.
    static std::shared_ptr<DirectoryMonitor> create(std::string path);
    DirectoryMonitor(Token, std::string path);
    /// Runs stopMonitoring(), which finds nothing left to stop.
    ~DirectoryMonitor() override;
    DirectoryMonitor(const DirectoryMonitor&) = delete;
    DirectoryMonitor& operator=(const DirectoryMonitor&) = delete;

    /// Plain get and set, not under the lock; safe from any thread.
    std::shared_ptr<DirectoryMonitorDelegate> delegate() const override;
    void setDelegate(std::weak_ptr<DirectoryMonitorDelegate> delegate) override;

    const std::string& path() const override { return path_; }
    bool isMonitoring() const override;

    /// Opens path for event notification only and starts the source. False
    /// when a source is running already (left untouched; isMonitoring() then
    /// reports false) or when the open fails, which is logged at error as
    /// "Open <path> for file notifications: <error description>"; the monitor
    /// then stays stopped and a later call tries again.
    bool startMonitoring() override;
    /// Cancels the source; the descriptor is closed by the cancel handler,
    /// shortly after, on the shared queue. No delegate call starts after this
    /// returns, except one that was already running.
    void stopMonitoring() override;
    /// stopMonitoring() then startMonitoring(); the latter's result.
    bool restartMonitoring();

    /// The descriptor the running source is armed on; -1 when stopped.
    int fd() const;

    /// Which file-system node a path or descriptor refers to.
    struct Node {
        dev_t device = 0;
        ino_t inode = 0;
        friend bool operator==(const Node&, const Node&) = default;
    };
    /// The node the running source is armed on (which may since have been
    /// moved or deleted); nothing when stopped or when it cannot be examined.
    std::optional<Node> watchedNode() const;

private:
    void handleEvent(int capturedFd);

    std::atomic<std::weak_ptr<DirectoryMonitorDelegate>> delegate_;
    int fd_ = -1;                                                    // guarded by lock_
    std::optional<Dispatch::DispatchSourceFileSystemObject> dispatchSource_;  // guarded by lock_
    mutable UnfairLock lock_;
    bool isStarted_ = false;  // guarded by lock_
    const std::string path_;
};

}  // namespace Tovik
