#include "Dispatch/DispatchSource.h"

#include "Dispatch/ReadSource.h"
#include "Dispatch/TimerSource.h"
#include "Dispatch/VnodeSource.h"

namespace Dispatch {

DispatchSource::FileSystemObject DispatchSource::makeFileSystemObjectSource(int fileDescriptor,
                                                                            FileSystemEvent eventMask,
                                                                            const DispatchQueue& queue) {
    return FileSystemObject(std::make_shared<detail::VnodeSource>(queue.impl(), fileDescriptor, eventMask.rawValue));
}

DispatchSource::Timer DispatchSource::makeTimerSource(const DispatchQueue& queue) {
    return Timer(std::make_shared<detail::TimerSource>(queue.impl()));
}

DispatchSource::Read DispatchSource::makeReadSource(int fileDescriptor, const DispatchQueue& queue) {
    return Read(std::make_shared<detail::ReadSource>(queue.impl(), fileDescriptor));
}

void DispatchSource::setEventHandler(std::function<void()> handler) const { impl_->setEventHandler(std::move(handler)); }
void DispatchSource::setCancelHandler(std::function<void()> handler) const {
    impl_->setCancelHandler(std::move(handler));
}
void DispatchSource::activate() const { impl_->activate(); }
void DispatchSource::cancel() const { impl_->cancel(); }
bool DispatchSource::isCancelled() const { return impl_->isCancelled(); }
uintptr_t DispatchSource::rawData() const { return impl_->data(); }

FileSystemEvent DispatchSource::FileSystemObject::mask() const {
    return {static_cast<const detail::VnodeSource&>(*impl_).eventMask()};
}
int DispatchSource::FileSystemObject::handle() const { return static_cast<const detail::VnodeSource&>(*impl_).handle(); }

void DispatchSource::Timer::schedule(DispatchTime deadline, std::optional<double> repeating) const {
    static_cast<detail::TimerSource&>(*impl_).schedule(deadline, repeating);
}

int DispatchSource::Read::handle() const { return static_cast<const detail::ReadSource&>(*impl_).handle(); }

}  // namespace Dispatch
