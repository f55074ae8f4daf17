// Watches a path that may not exist yet, and keeps watching it while the
// folders above it appear, vanish and come back.
//
// The monitor keeps a chain of levels from the target path up to a root
// folder. Every level whose node exists is watched with an event-only
// descriptor and a vnode source of its own. An event at any level re-checks
// the levels from the target up to that one: a level whose node is no longer
// the one at its path is re-armed (or left idle while nothing stands there).
// Events on the target itself go to the delegate; so does a failure to
// re-arm, after which the whole chain is stopped. A target that was watched
// and is deleted, moved away (itself or with a folder above it) or replaced
// is always reported, as delete or rename, whichever level's event came first.
//
// Threads: every piece of state, of the monitor and of its chain, is touched
// only on the monitor's serial queue, labelled "Tovik.FileSystemMonitor " +
// the target path. The public calls enter it synchronously and so must not be
// made from it (a delegate is called elsewhere, see FileSystemMonitorDelegate).
//
// Lifetime: always owned by a std::shared_ptr (see create()). Sources hold
// the monitor weakly; releasing it stops every level.
#pragma once

#include <sys/types.h>

#include <atomic>
#include <memory>
#include <optional>
#include <string>

#include "Dispatch/DispatchQueue.h"
#include "Dispatch/DispatchSource.h"
#include "Tovik/FileSystemMonitorDelegate.h"

namespace Tovik {

/// One level of a monitor's chain: the target, or one of the folders above
/// it up to the root. Touched only on its monitor's queue.
class PathInfo {
public:
    /// Which node a level was armed on; the level is intact while that node
    /// still stands at its path.
    struct NodeReference {
        dev_t device = 0;
        ino_t inode = 0;
        friend bool operator==(const NodeReference&, const NodeReference&) = default;
    };

    PathInfo(std::string path, std::shared_ptr<PathInfo> parent);
    /// Frees the levels above iteratively: a chain of any length is released
    /// without one stack frame per level.
    ~PathInfo();
    PathInfo(const PathInfo&) = delete;
    PathInfo& operator=(const PathInfo&) = delete;

    /// Cancels the source and forgets it, the descriptor and the reference.
    /// The descriptor is closed by the source's cancel handler, on the queue.
    void stop();
    /// True when the level is watched and its node still stands at `path`.
    bool isIntact() const;

    std::optional<Dispatch::DispatchSourceFileSystemObject> dispatchSource;  // present while watched
    int fd = -1;                            // the event-only descriptor; -1 when none
    const std::string path;
    std::optional<NodeReference> refUrl;    // the node that was opened
    std::shared_ptr<PathInfo> parent;       // the level above; none at the root
};

class FileSystemMonitor final : public std::enable_shared_from_this<FileSystemMonitor> {
    struct Token {};

public:
    /// A stopped monitor for `path` whose chain ends at `underRoot`, or, when
    /// that is empty, at the highest readable existing folder above the path
    /// that is not above its base folder (the search stops at the first
    /// existing folder that cannot be read). Without such a folder, logs at
    /// error "Failed to find accessible root path for '<path>'" and has no
    /// chain. Nothing is opened yet.
    static std::shared_ptr<FileSystemMonitor> create(const std::string& path, const std::string& underRoot = {});
    FileSystemMonitor(Token, const std::string& path, const std::string& underRoot);
    /// Stops every level (on the queue; inline when released on it).
    ~FileSystemMonitor();
    FileSystemMonitor(const FileSystemMonitor&) = delete;
    FileSystemMonitor& operator=(const FileSystemMonitor&) = delete;

    /// Arms every level that exists, from the target up to the first level
    /// that is already armed on the node at its path (logged at debug as
    /// "Path <path> is already monitoring."); a level that appears below one
    /// while that one is being armed is found too. False when a level exists
    /// but cannot be opened, or cannot be read and so not watched (logged as
    /// "Open <path> for monitoring file notifications: <error>"; the chain is
    /// then stopped), or, logged as "Path info is not initialized", when the
    /// monitor has no chain.
    bool startMonitoring();
    /// Stops every level; no source of the monitor fires afterwards. Does
    /// nothing on a stopped monitor.
    void stopMonitoring();
    /// The result of the last start, false after a stop or a failed re-arm.
    bool isMonitoring() const;

    /// The target path as the chain holds it (made absolute, without "." or
    /// ".." parts); empty for a monitor without a chain.
    const std::string& path() const;

    /// Get and set from any thread.
    std::shared_ptr<FileSystemMonitorDelegate> delegate() const;
    void setDelegate(std::weak_ptr<FileSystemMonitorDelegate> delegate);

    /// The queue every piece of the monitor's state lives on.
    const Dispatch::DispatchQueue& queue() const { return queue_; }

private:
    /// Walks from the target up to (not including) `below`, re-arming what
    /// is not intact. targetEventsReported: the target's own events so far
    /// went to the delegate already (the walk of its own event handler).
    bool restartMonitoringQ(const PathInfo* below, bool targetEventsReported = false);
    bool restartQ(const std::shared_ptr<PathInfo>& level);
    void handleEventQ(const std::shared_ptr<PathInfo>& level, int capturedFd);
    void reportReplacedTargetQ(const PathInfo& target);
    void notifyChangeQ(Dispatch::FileSystemEvent events);
    void stopQ();

    std::shared_ptr<PathInfo> pathInfo_;  // the target level; none without a root
    const Dispatch::DispatchQueue queue_;
    bool isStarted_ = false;
    std::atomic<std::weak_ptr<FileSystemMonitorDelegate>> delegate_;
};

}  // namespace Tovik
