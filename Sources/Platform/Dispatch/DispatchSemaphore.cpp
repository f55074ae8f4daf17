#include "Dispatch/DispatchSemaphore.h"

#include <condition_variable>
#include <mutex>

namespace Dispatch {

namespace detail {

class Semaphore {
public:
    explicit Semaphore(long value) : value_(value) {}

    DispatchTimeoutResult wait(DispatchTime deadline) {
        std::unique_lock lock(mutex_);
        auto available = [this] { return value_ > 0; };
        ++waiters_;
        bool taken = true;
        if (deadline.isDistantFuture()) {
            raised_.wait(lock, available);
        } else {
            taken = raised_.wait_until(lock, deadline.uptime, available);
        }
        --waiters_;
        if (!taken) return DispatchTimeoutResult::timedOut;
        --value_;
        return DispatchTimeoutResult::success;
    }

    long signal() {
        std::lock_guard lock(mutex_);
        ++value_;
        if (waiters_ == 0) return 0;
        raised_.notify_one();
        return 1;
    }

private:
    std::mutex mutex_;
    std::condition_variable raised_;
    long value_;       // guarded by mutex_
    long waiters_ = 0;  // guarded by mutex_
};

}  // namespace detail

DispatchSemaphore::DispatchSemaphore(long value) : impl_(std::make_shared<detail::Semaphore>(value < 0 ? 0 : value)) {}

void DispatchSemaphore::wait() const { impl_->wait(DispatchTime::distantFuture()); }
DispatchTimeoutResult DispatchSemaphore::wait(DispatchTime deadline) const { return impl_->wait(deadline); }
long DispatchSemaphore::signal() const { return impl_->signal(); }

}  // namespace Dispatch
