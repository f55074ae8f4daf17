// The receiver of a DirectoryMonitor's change notices.
#pragma once

#include <memory>

namespace Tovik {

class DirectoryMonitor;

/// Held weakly by the monitor (adopt it in a class owned by a std::shared_ptr);
/// a freed delegate is simply not called.
class DirectoryMonitorDelegate {
public:
    virtual ~DirectoryMonitorDelegate() = default;

    /// Called after one or more change events on the watched path (the kernel
    /// may merge several into one call), on a thread of the shared
    /// "DirectoryMonitor" queue, possibly in parallel with calls for other
    /// monitors. No lock of the monitor is held: the delegate may stop or
    /// restart the monitor from here. Which events fired is not reported.
    virtual void directoryMonitorDidObserveChange(const std::shared_ptr<DirectoryMonitor>& monitor) = 0;
};

}  // namespace Tovik
