// A source that fires while a descriptor is readable.
#pragma once

#include "Dispatch/EventLoop.h"
#include "Dispatch/Source.h"

namespace Dispatch::detail {

class ReadSource final : public Source {
public:
    ReadSource(std::shared_ptr<Queue> queue, int fileDescriptor);
    ~ReadSource() override;

    int handle() const { return fileDescriptor_; }

private:
    void start() override;
    void stop() override;
    void handlerReturned() override;
    void readable();

    const int fileDescriptor_;  // the caller's
    // Guarded by registrationMutex_: our own duplicate of the caller's
    // descriptor, so that epoll's registration is ours alone (several sources
    // may watch one descriptor) and closing the caller's does not disturb it.
    int watchedDescriptor_ = -1;
    EventLoop::WatchId watchId_ = 0;
};

}  // namespace Dispatch::detail
