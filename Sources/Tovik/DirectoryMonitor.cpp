#include "Tovik/DirectoryMonitor.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <mutex>
#include <system_error>
#include <utility>

#include "Dispatch/DispatchQueue.h"
#include "Kernel/FileDescriptor.h"
#include "Tovik/Logger/Logger.h"

namespace Tovik {

namespace {

// Opened for event notification only: no read or write access, no hold on
// the file's contents.
constexpr int kEventOnlyFlags = O_PATH | O_CLOEXEC;

// The highest error number the system knows; anything outside 1...this is
// reported as this.
constexpr int kLastErrorNumber = EHWPOISON;

const Dispatch::DispatchQueue& sharedQueue() {
    static const Dispatch::DispatchQueue queue("DirectoryMonitor", Dispatch::DispatchQoS::unspecified,
                                               Dispatch::DispatchQueue::Attributes::concurrent,
                                               Dispatch::DispatchQueue::AutoreleaseFrequency::workItem);
    return queue;
}

}  // namespace

std::shared_ptr<DirectoryMonitor> DirectoryMonitor::create(std::string path) {
    return std::make_shared<DirectoryMonitor>(Token{}, std::move(path));
}

DirectoryMonitor::DirectoryMonitor(Token, std::string path) : path_(std::move(path)) {}

DirectoryMonitor::~DirectoryMonitor() { stopMonitoring(); }

std::shared_ptr<DirectoryMonitorDelegate> DirectoryMonitor::delegate() const { return delegate_.load().lock(); }

void DirectoryMonitor::setDelegate(std::weak_ptr<DirectoryMonitorDelegate> delegate) {
    delegate_.store(std::move(delegate));
}

bool DirectoryMonitor::isMonitoring() const {
    std::lock_guard guard(lock_);
    return isStarted_;
}

int DirectoryMonitor::fd() const {
    std::lock_guard guard(lock_);
    return fd_;
}

std::optional<DirectoryMonitor::Node> DirectoryMonitor::watchedNode() const {
    std::lock_guard guard(lock_);
    struct stat status {};
    if (fd_ == -1 || ::fstat(fd_, &status) != 0) return std::nullopt;
    return Node{status.st_dev, status.st_ino};
}

bool DirectoryMonitor::startMonitoring() {
    std::lock_guard guard(lock_);
    const bool starting = !dispatchSource_.has_value();
    if (starting) {
        if (fd_ != -1) ::close(std::exchange(fd_, -1));
        fd_ = ::open(path_.c_str(), kEventOnlyFlags);
        if (fd_ == -1) {
            int error = errno;
            if (error <= 0 || error > kLastErrorNumber) error = kLastErrorNumber;
            TLOG_ERROR("startMonitoring()", "Open " + path_ + " for file notifications: " +
                                                std::generic_category().message(error));
            isStarted_ = false;
            return false;
        }

        const int capturedFd = fd_;
        auto owned = std::make_shared<Kernel::FileDescriptor>(capturedFd);
        auto source = Dispatch::DispatchSource::makeFileSystemObjectSource(
            capturedFd, Dispatch::FileSystemEvent::all(), sharedQueue());
        source.setEventHandler([weakSelf = weak_from_this(), capturedFd] {
            if (auto self = weakSelf.lock()) self->handleEvent(capturedFd);
        });
        // Holds the monitor until the source is cancelled and this has run.
        source.setCancelHandler([self = shared_from_this(), capturedFd, owned] {
            std::lock_guard guard(self->lock_);
            if (self->fd_ == capturedFd) {
                self->isStarted_ = false;
                self->dispatchSource_.reset();
                self->fd_ = -1;
            }
            owned->reset();
        });
        dispatchSource_ = source;
        source.activate();
    }
    isStarted_ = starting;
    return starting;
}

void DirectoryMonitor::stopMonitoring() {
    std::lock_guard guard(lock_);
    if (dispatchSource_) dispatchSource_->cancel();
    isStarted_ = false;
    dispatchSource_.reset();
    fd_ = -1;
}

bool DirectoryMonitor::restartMonitoring() {
    stopMonitoring();
    return startMonitoring();
}

void DirectoryMonitor::handleEvent(int capturedFd) {
    auto delegate = delegate_.load().lock();
    if (!delegate) return;
    {
        std::lock_guard guard(lock_);
        // A stop or a restart since this event was queued makes it stale.
        if (fd_ != capturedFd) return;
    }
    delegate->directoryMonitorDidObserveChange(shared_from_this());
}

}  // namespace Tovik
