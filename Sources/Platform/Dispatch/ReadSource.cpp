#include "Dispatch/ReadSource.h"

#include <fcntl.h>
#include <sys/epoll.h>
#include <sys/ioctl.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>

namespace Dispatch::detail {

namespace {
constexpr uint32_t readEvents = EPOLLIN | EPOLLRDHUP | EPOLLONESHOT;
}

ReadSource::ReadSource(std::shared_ptr<Queue> queue, int fileDescriptor)
    : Source(std::move(queue)), fileDescriptor_(fileDescriptor) {}

ReadSource::~ReadSource() {
    if (watchedDescriptor_ >= 0) close(watchedDescriptor_);
}

void ReadSource::start() {
    watchedDescriptor_ = fcntl(fileDescriptor_, F_DUPFD_CLOEXEC, 0);
    if (watchedDescriptor_ < 0) {
        std::fprintf(stderr, "Dispatch: read source on descriptor %d never fires: fcntl(F_DUPFD_CLOEXEC): %s\n",
                     fileDescriptor_, std::strerror(errno));
        return;
    }
    std::weak_ptr<Source> weakSelf = weak_from_this();
    watchId_ = EventLoop::shared().addDescriptor(watchedDescriptor_, readEvents, [weakSelf](uint32_t) {
        if (auto self = weakSelf.lock()) static_cast<ReadSource&>(*self).readable();
    });
    if (watchId_ == 0) {
        std::fprintf(stderr, "Dispatch: read source on descriptor %d never fires: epoll_ctl: %s\n", fileDescriptor_,
                     std::strerror(errno));
    }
}

void ReadSource::stop() {
    if (watchedDescriptor_ < 0) return;
    if (watchId_ != 0) EventLoop::shared().removeDescriptor(watchId_, watchedDescriptor_);
    close(watchedDescriptor_);
    watchedDescriptor_ = -1;
    watchId_ = 0;
}

void ReadSource::readable() {
    int available = 0;
    {
        std::lock_guard registration(registrationMutex_);
        if (watchedDescriptor_ < 0) return;
        // Descriptors without a byte count (a pidfd, for one) report 0.
        if (ioctl(watchedDescriptor_, FIONREAD, &available) != 0 || available < 0) available = 0;
    }
    merge(static_cast<uintptr_t>(available), Merge::replace);
}

void ReadSource::handlerReturned() {
    std::lock_guard registration(registrationMutex_);
    if (watchedDescriptor_ >= 0 && watchId_ != 0) {
        EventLoop::shared().rearmDescriptor(watchId_, watchedDescriptor_, readEvents);
    }
}

}  // namespace Dispatch::detail
