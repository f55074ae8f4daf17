// The receiver of a FileSystemMonitor's reports.
#pragma once

#include <memory>
#include <string>

#include "Dispatch/DispatchSource.h"

namespace Tovik {

class FileSystemMonitor;

/// Held weakly by the monitor (adopt it in a class owned by a std::shared_ptr);
/// a freed delegate is simply not called.
///
/// Both calls arrive asynchronously on the global default-QoS queue, never on
/// the monitor's own queue, so a delegate may call back into the monitor (stop
/// it, start it again). A call dispatched just before stopMonitoring() may
/// still arrive after it.
class FileSystemMonitorDelegate {
public:
    virtual ~FileSystemMonitorDelegate() = default;

    /// An event arrived on the target path itself. `events` are the vnode
    /// events merged into that one delivery.
    virtual void fileSystemMonitorDidObserveChange(const std::shared_ptr<FileSystemMonitor>& monitor,
                                                   Dispatch::FileSystemEvent events) = 0;

    /// Re-arming the chain after an event failed; the monitor has stopped
    /// every level (isMonitoring() is false). `path` is the target path.
    /// By default logs at error "FileSystemMonitor(<target> failed to restart
    /// on path <path>".
    virtual void fileSystemMonitorDidFailToRestart(const std::shared_ptr<FileSystemMonitor>& monitor,
                                                   const std::string& path);
};

}  // namespace Tovik
