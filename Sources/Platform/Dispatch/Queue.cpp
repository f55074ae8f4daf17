#include "Dispatch/Queue.h"

#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <utility>

#include "Dispatch/ThreadPool.h"

namespace Dispatch::detail {

namespace {

// The queues the calling thread is running work of: the innermost scope, linked outwards.
thread_local const CurrentQueueScope* currentQueues = nullptr;

[[noreturn]] void abortSyncDeadlock(const std::string& label, const char* why) {
    std::fprintf(stderr, "Dispatch: sync onto queue \"%s\" %s; it would wait for itself forever (deadlock)\n",
                 label.c_str(), why);
    std::fflush(stderr);
    std::abort();
}

}  // namespace

CurrentQueueScope::CurrentQueueScope(Queue* queue) : queue_(queue), outer_(currentQueues) { currentQueues = this; }

CurrentQueueScope::~CurrentQueueScope() { currentQueues = outer_; }

struct Queue::SyncWaiter {
    std::condition_variable turn;
    bool ready = false;  // guarded by the queue's mutex_: the caller now owns the queue
};

Queue::Queue(std::string label, DispatchQoS qos, Kind kind) : label_(std::move(label)), qos_(qos), kind_(kind) {}

Queue* Queue::current() { return currentQueues ? currentQueues->queue_ : nullptr; }

bool Queue::isCurrent() const {
    for (const CurrentQueueScope* scope = currentQueues; scope; scope = scope->outer_) {
        if (scope->queue_ == this) return true;
    }
    return false;
}

void Queue::async(std::function<void()> work) {
    if (kind_ == Kind::concurrent) {
        ThreadPool::shared().submit([self = shared_from_this(), work = std::move(work)] {
            CurrentQueueScope scope(self.get());
            work();
        });
        return;
    }
    std::lock_guard lock(mutex_);
    items_.push_back({std::move(work), nullptr});
    if (!running_) {
        running_ = true;
        scheduleDrain();
    }
}

void Queue::scheduleDrain() {
    if (kind_ == Kind::main) {
        mainDrainRequested_ = true;
        mainWakeUp_.notify_one();
    } else {
        ThreadPool::shared().submit([self = shared_from_this()] { self->drain(); });
    }
}

void Queue::drain() {
    std::unique_lock lock(mutex_);
    for (;;) {
        if (items_.empty()) {
            running_ = false;
            return;
        }
        Item item = std::move(items_.front());
        items_.pop_front();
        if (item.waiter) {
            // A sync caller is next: it runs its block on its own thread and
            // takes over the queue (see finishInlineRun()).
            item.waiter->ready = true;
            item.waiter->turn.notify_one();
            return;
        }
        lock.unlock();
        {
            CurrentQueueScope scope(this);
            item.work();
            item.work = nullptr;
        }
        lock.lock();
    }
}

void Queue::sync(void (*invoke)(void*), void* context) {
    if (kind_ == Kind::concurrent) {
        CurrentQueueScope scope(this);
        invoke(context);
        return;
    }
    if (isCurrent()) abortSyncDeadlock(label_, "from work running on that queue");
    if (kind_ == Kind::main) {
        if (gettid() == getpid()) abortSyncDeadlock(label_, "from the main thread");
        syncViaWorkItem(invoke, context);
        return;
    }
    {
        std::unique_lock lock(mutex_);
        if (!running_) {
            running_ = true;  // idle: run right here, on the caller's thread
        } else {
            SyncWaiter waiter;
            items_.push_back({nullptr, &waiter});
            waiter.turn.wait(lock, [&] { return waiter.ready; });
        }
    }
    {
        CurrentQueueScope scope(this);
        invoke(context);
    }
    finishInlineRun();
}

void Queue::finishInlineRun() {
    std::lock_guard lock(mutex_);
    if (items_.empty()) {
        running_ = false;
    } else {
        scheduleDrain();
    }
}

void Queue::syncViaWorkItem(void (*invoke)(void*), void* context) {
    std::mutex doneMutex;
    std::condition_variable doneChanged;
    bool done = false;
    async([&] {
        invoke(context);
        std::lock_guard lock(doneMutex);
        done = true;
        doneChanged.notify_one();  // under the lock: the waiter's frame outlives this call
    });
    std::unique_lock lock(doneMutex);
    doneChanged.wait(lock, [&] { return done; });
}

void Queue::serveMainForever() {
    for (;;) {
        {
            std::unique_lock lock(mutex_);
            mainWakeUp_.wait(lock, [this] { return mainDrainRequested_; });
            mainDrainRequested_ = false;
        }
        drain();
    }
}

}  // namespace Dispatch::detail
