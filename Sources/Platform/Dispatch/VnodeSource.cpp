#include "Dispatch/VnodeSource.h"

namespace Dispatch::detail {

void VnodeSource::start() {
    std::weak_ptr<Source> weakSelf = weak_from_this();
    registration_ = VnodeWatcher::shared().add(fileDescriptor_, eventMask_, [weakSelf](uint32_t events) {
        auto self = weakSelf.lock();
        if (!self) return;
        auto& source = static_cast<VnodeSource&>(*self);
        if (uint32_t wanted = events & source.eventMask_) source.merge(wanted, Merge::combineBits);
    });
}

void VnodeSource::stop() {
    if (registration_ != 0) VnodeWatcher::shared().remove(registration_);
    registration_ = 0;
}

}  // namespace Dispatch::detail
