// A file-system-object source: reports vnode events of the node a descriptor refers to.
#pragma once

#include "Dispatch/Source.h"
#include "Dispatch/VnodeWatcher.h"

namespace Dispatch::detail {

class VnodeSource final : public Source {
public:
    VnodeSource(std::shared_ptr<Queue> queue, int fileDescriptor, uint32_t eventMask)
        : Source(std::move(queue)), fileDescriptor_(fileDescriptor), eventMask_(eventMask) {}

    int handle() const { return fileDescriptor_; }
    uint32_t eventMask() const { return eventMask_; }

private:
    void start() override;
    void stop() override;

    const int fileDescriptor_;  // the caller's
    const uint32_t eventMask_;
    VnodeWatcher::RegistrationId registration_ = 0;  // guarded by registrationMutex_
};

}  // namespace Dispatch::detail
