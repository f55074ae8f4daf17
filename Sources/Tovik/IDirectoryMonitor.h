// What callers use of a directory monitor.
#pragma once

#include <memory>
#include <string>

namespace Tovik {

class DirectoryMonitorDelegate;

class IDirectoryMonitor {
public:
    virtual ~IDirectoryMonitor() = default;

    /// The receiver of change notices, held weakly; nothing when unset or freed.
    virtual std::shared_ptr<DirectoryMonitorDelegate> delegate() const = 0;
    virtual void setDelegate(std::weak_ptr<DirectoryMonitorDelegate> delegate) = 0;
    /// The watched path, as given at construction.
    virtual const std::string& path() const = 0;
    /// True from a successful startMonitoring() until the monitor stops.
    virtual bool isMonitoring() const = 0;
    /// True when this call started monitoring; false when it was running
    /// already or the path could not be opened (logged).
    virtual bool startMonitoring() = 0;
    /// Stops delivery; does nothing on a stopped monitor.
    virtual void stopMonitoring() = 0;
};

}  // namespace Tovik
