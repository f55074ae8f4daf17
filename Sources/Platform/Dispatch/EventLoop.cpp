#include "Dispatch/EventLoop.h"

#include <sys/epoll.h>
#include <sys/timerfd.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <thread>
#include <vector>

namespace Dispatch::detail {

namespace {

// epoll data of the timer descriptor; watch ids start at 1.
constexpr uint64_t timerDescriptorKey = 0;

[[noreturn]] void abortWithErrno(const char* call) {
    std::fprintf(stderr, "Dispatch: the event thread cannot start: %s: %s\n", call, std::strerror(errno));
    std::abort();
}

}  // namespace

EventLoop& EventLoop::shared() {
    // Never destroyed: the event thread runs until the process ends.
    static auto* loop = new EventLoop;
    return *loop;
}

EventLoop::EventLoop() {
    epollFd_ = epoll_create1(EPOLL_CLOEXEC);
    if (epollFd_ < 0) abortWithErrno("epoll_create1");
    timerFd_ = timerfd_create(CLOCK_MONOTONIC, TFD_CLOEXEC | TFD_NONBLOCK);
    if (timerFd_ < 0) abortWithErrno("timerfd_create");
    epoll_event event{};
    event.events = EPOLLIN;
    event.data.u64 = timerDescriptorKey;
    if (epoll_ctl(epollFd_, EPOLL_CTL_ADD, timerFd_, &event) != 0) abortWithErrno("epoll_ctl");
    std::thread([this] { run(); }).detach();
}

EventLoop::TimerId EventLoop::addTimer(TimePoint deadline, std::function<void()> fire) {
    std::lock_guard lock(mutex_);
    TimerId id = nextId_++;
    bool earliest = timers_.empty() || deadline < timers_.begin()->first.first;
    timers_.emplace(std::pair{deadline, id}, std::move(fire));
    timerDeadlines_.emplace(id, deadline);
    if (earliest) armTimerDescriptor();
    return id;
}

void EventLoop::cancelTimer(TimerId id) {
    std::function<void()> dropped;  // released outside the lock
    std::lock_guard lock(mutex_);
    auto found = timerDeadlines_.find(id);
    if (found == timerDeadlines_.end()) return;
    auto timer = timers_.find({found->second, id});
    dropped = std::move(timer->second);
    timers_.erase(timer);
    timerDeadlines_.erase(found);
    // A timer descriptor armed for an earlier deadline than needed only causes
    // one spurious wake-up; it is re-armed then.
}

void EventLoop::armTimerDescriptor() {
    itimerspec timerSpec{};
    if (!timers_.empty()) {
        auto nanoseconds = std::chrono::duration_cast<std::chrono::nanoseconds>(
                               timers_.begin()->first.first.time_since_epoch())
                               .count();
        constexpr int64_t latestSecond = 1LL << 40;  // far beyond any uptime; timerfd rejects the clock's maximum
        timerSpec.it_value.tv_sec = static_cast<time_t>(std::min<int64_t>(nanoseconds / 1'000'000'000, latestSecond));
        timerSpec.it_value.tv_nsec = static_cast<long>(nanoseconds % 1'000'000'000);
        if (timerSpec.it_value.tv_sec <= 0 && timerSpec.it_value.tv_nsec <= 0) timerSpec.it_value.tv_nsec = 1;  // 0 would disarm
    }
    if (timerfd_settime(timerFd_, TFD_TIMER_ABSTIME, &timerSpec, nullptr) != 0) {
        std::fprintf(stderr, "Dispatch: timerfd_settime: %s\n", std::strerror(errno));
    }
}

void EventLoop::fireDueTimers() {
    uint64_t expirations = 0;
    while (read(timerFd_, &expirations, sizeof expirations) > 0) {
    }
    std::vector<std::function<void()>> due;
    {
        std::lock_guard lock(mutex_);
        TimePoint now = DispatchTime::Clock::now();
        while (!timers_.empty() && timers_.begin()->first.first <= now) {
            auto timer = timers_.begin();
            timerDeadlines_.erase(timer->first.second);
            due.push_back(std::move(timer->second));
            timers_.erase(timer);
        }
        armTimerDescriptor();
    }
    for (auto& fire : due) fire();
}

EventLoop::WatchId EventLoop::addDescriptor(int fd, uint32_t events, std::function<void(uint32_t)> handler) {
    std::lock_guard lock(mutex_);
    WatchId id = nextId_++;
    epoll_event event{};
    event.events = events;
    event.data.u64 = id;
    if (epoll_ctl(epollFd_, EPOLL_CTL_ADD, fd, &event) != 0) return 0;
    watches_.emplace(id, std::make_shared<std::function<void(uint32_t)>>(std::move(handler)));
    return id;
}

bool EventLoop::rearmDescriptor(WatchId id, int fd, uint32_t events) {
    epoll_event event{};
    event.events = events;
    event.data.u64 = id;
    return epoll_ctl(epollFd_, EPOLL_CTL_MOD, fd, &event) == 0;
}

void EventLoop::removeDescriptor(WatchId id, int fd) {
    std::shared_ptr<std::function<void(uint32_t)>> dropped;  // released outside the lock
    std::lock_guard lock(mutex_);
    epoll_ctl(epollFd_, EPOLL_CTL_DEL, fd, nullptr);
    auto found = watches_.find(id);
    if (found == watches_.end()) return;
    dropped = std::move(found->second);
    watches_.erase(found);
}

void EventLoop::run() {
    epoll_event events[64];
    for (;;) {
        int count = epoll_wait(epollFd_, events, 64, -1);
        if (count < 0) {
            if (errno == EINTR) continue;
            abortWithErrno("epoll_wait");
        }
        for (int i = 0; i < count; ++i) {
            if (events[i].data.u64 == timerDescriptorKey) {
                fireDueTimers();
                continue;
            }
            std::shared_ptr<std::function<void(uint32_t)>> handler;
            {
                std::lock_guard lock(mutex_);
                auto found = watches_.find(events[i].data.u64);
                if (found != watches_.end()) handler = found->second;
            }
            if (handler) (*handler)(events[i].events);
        }
    }
}

}  // namespace Dispatch::detail
