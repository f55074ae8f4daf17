#include "Dispatch/TimerSource.h"

#include <algorithm>
#include <chrono>

namespace Dispatch::detail {

void TimerSource::schedule(DispatchTime deadline, std::optional<double> repeatingSeconds) {
    std::lock_guard registration(registrationMutex_);
    scheduled_ = true;
    deadline_ = deadline;
    interval_.reset();
    if (repeatingSeconds) {
        // A zero or negative interval would spin; the shortest interval is a millisecond.
        interval_ = std::max<DispatchTime::Clock::duration>(
            std::chrono::duration_cast<DispatchTime::Clock::duration>(std::chrono::duration<double>(*repeatingSeconds)),
            std::chrono::milliseconds(1));
    }
    if (started_ && !stopped_) arm();
}

void TimerSource::start() { arm(); }

void TimerSource::stop() {
    if (timerId_ != 0) EventLoop::shared().cancelTimer(timerId_);
    timerId_ = 0;
}

void TimerSource::arm() {
    auto& loop = EventLoop::shared();
    if (timerId_ != 0) loop.cancelTimer(timerId_);
    timerId_ = 0;
    uint64_t generation = ++generation_;
    if (!scheduled_ || deadline_.isDistantFuture()) return;
    std::weak_ptr<Source> weakSelf = weak_from_this();
    timerId_ = loop.addTimer(deadline_.uptime, [weakSelf, generation] {
        if (auto self = weakSelf.lock()) static_cast<TimerSource&>(*self).fired(generation);
    });
}

void TimerSource::fired(uint64_t generation) {
    uintptr_t count = 1;
    {
        std::lock_guard registration(registrationMutex_);
        if (generation != generation_ || stopped_) return;
        timerId_ = 0;
        if (interval_) {
            // Fires missed while the process was busy count into this delivery.
            auto now = DispatchTime::Clock::now();
            auto next = deadline_.uptime + *interval_;
            if (next <= now) {
                auto missed = (now - next) / *interval_ + 1;
                count += static_cast<uintptr_t>(missed);
                next += missed * *interval_;
            }
            deadline_.uptime = next;
            arm();
        } else {
            scheduled_ = false;
        }
    }
    merge(count, Merge::add);
}

}  // namespace Dispatch::detail
