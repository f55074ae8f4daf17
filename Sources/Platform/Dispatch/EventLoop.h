// The process-wide event thread: one epoll set for descriptors and one timer
// list, serving every source and every delayed work item of the process.
#pragma once

#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <unordered_map>
#include <utility>

#include "Dispatch/DispatchTime.h"

namespace Dispatch::detail {

class EventLoop {
public:
    using TimePoint = DispatchTime::Clock::time_point;
    using TimerId = uint64_t;
    using WatchId = uint64_t;

    /// The loop of the process, started on first use; it lives (with its
    /// thread and descriptors) until the process ends.
    static EventLoop& shared();

    /// Calls fire on the event thread once the deadline has passed. fire must
    /// be quick and must not block (it typically submits work to a queue).
    TimerId addTimer(TimePoint deadline, std::function<void()> fire);
    /// Forgets a timer that has not fired yet; does nothing otherwise. A timer
    /// that is firing at this moment may still finish its call.
    void cancelTimer(TimerId id);

    /// Calls handler(epoll events) on the event thread whenever fd reports one
    /// of events (EPOLLIN, EPOLLONESHOT, ...). Returns 0 when epoll refuses the
    /// descriptor (errno set). The same quick-and-non-blocking rule as for timers.
    WatchId addDescriptor(int fd, uint32_t events, std::function<void(uint32_t)> handler);
    /// Re-enables a one-shot watch. Returns false on failure (errno set).
    bool rearmDescriptor(WatchId id, int fd, uint32_t events);
    /// Stops watching fd. Call it before closing fd. A handler call that has
    /// already begun may still finish.
    void removeDescriptor(WatchId id, int fd);

private:
    EventLoop();
    [[noreturn]] void run();
    void fireDueTimers();
    void armTimerDescriptor();  // needs mutex_

    int epollFd_ = -1;
    int timerFd_ = -1;

    std::mutex mutex_;
    uint64_t nextId_ = 1;  // guarded by mutex_; ids are never reused
    // Guarded by mutex_: pending timers by deadline, and the deadline of each.
    std::map<std::pair<TimePoint, TimerId>, std::function<void()>> timers_;
    std::unordered_map<TimerId, TimePoint> timerDeadlines_;
    // Guarded by mutex_: the handler of each descriptor watch.
    std::unordered_map<WatchId, std::shared_ptr<std::function<void(uint32_t)>>> watches_;
};

}  // namespace Dispatch::detail
