#include "Dispatch/DispatchGroup.h"

#include <condition_variable>
#include <cstdio>
#include <cstdlib>
#include <mutex>
#include <utility>
#include <vector>

#include "Dispatch/Queue.h"

namespace Dispatch {

namespace detail {

class Group {
public:
    void enter() {
        std::lock_guard lock(mutex_);
        ++count_;
    }

    void leave() {
        std::vector<Notification> due;
        {
            std::lock_guard lock(mutex_);
            if (count_ == 0) {
                std::fprintf(stderr, "Dispatch: DispatchGroup.leave() called more often than enter()\n");
                std::abort();
            }
            if (--count_ > 0) return;
            due.swap(notifications_);
            emptied_.notify_all();
        }
        for (auto& [queue, work] : due) queue->async(std::move(work));
    }

    DispatchTimeoutResult wait(DispatchTime deadline) {
        std::unique_lock lock(mutex_);
        auto empty = [this] { return count_ == 0; };
        if (deadline.isDistantFuture()) {
            emptied_.wait(lock, empty);
            return DispatchTimeoutResult::success;
        }
        return emptied_.wait_until(lock, deadline.uptime, empty) ? DispatchTimeoutResult::success
                                                                 : DispatchTimeoutResult::timedOut;
    }

    void notify(std::shared_ptr<Queue> queue, std::function<void()> work) {
        {
            std::lock_guard lock(mutex_);
            if (count_ > 0) {
                notifications_.emplace_back(std::move(queue), std::move(work));
                return;
            }
        }
        queue->async(std::move(work));
    }

private:
    using Notification = std::pair<std::shared_ptr<Queue>, std::function<void()>>;

    std::mutex mutex_;
    std::condition_variable emptied_;
    long count_ = 0;                          // guarded by mutex_
    std::vector<Notification> notifications_;  // guarded by mutex_
};

}  // namespace detail

DispatchGroup::DispatchGroup() : impl_(std::make_shared<detail::Group>()) {}

void DispatchGroup::enter() const { impl_->enter(); }
void DispatchGroup::leave() const { impl_->leave(); }
void DispatchGroup::wait() const { impl_->wait(DispatchTime::distantFuture()); }
DispatchTimeoutResult DispatchGroup::wait(DispatchTime deadline) const { return impl_->wait(deadline); }

void DispatchGroup::notify(const DispatchQueue& queue, std::function<void()> work) const {
    impl_->notify(queue.impl(), std::move(work));
}

}  // namespace Dispatch
