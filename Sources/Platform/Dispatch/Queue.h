// The state behind a DispatchQueue handle.
#pragma once

#include <condition_variable>
#include <deque>
#include <functional>
#include <memory>
#include <mutex>
#include <string>

#include "Dispatch/DispatchTime.h"

namespace Dispatch::detail {

class Queue : public std::enable_shared_from_this<Queue> {
public:
    enum class Kind { serial, concurrent, main };

    Queue(std::string label, DispatchQoS qos, Kind kind);

    const std::string& label() const { return label_; }
    DispatchQoS qos() const { return qos_; }
    bool isSerial() const { return kind_ != Kind::concurrent; }

    void async(std::function<void()> work);
    /// Runs invoke(context) on this queue and returns when it has finished.
    void sync(void (*invoke)(void*), void* context);

    /// Whether the calling thread is running work of this queue.
    bool isCurrent() const;
    /// The innermost queue the calling thread runs work of, or nullptr.
    static Queue* current();

    /// Serves the main queue on the calling thread forever.
    [[noreturn]] void serveMainForever();

private:
    struct SyncWaiter;
    struct Item {
        std::function<void()> work;
        SyncWaiter* waiter = nullptr;  // set for a sync block waiting for its turn
    };

    void scheduleDrain();  // the queue is marked running; get its items run
    void drain();          // runs items until the queue is empty or handed to a sync caller
    void finishInlineRun();
    void syncViaWorkItem(void (*invoke)(void*), void* context);

    const std::string label_;
    const DispatchQoS qos_;
    const Kind kind_;

    std::mutex mutex_;
    std::deque<Item> items_;  // guarded by mutex_ (serial and main queues)
    // Guarded by mutex_: a drain job is scheduled or running, or a sync caller
    // owns the queue. Only the owner runs items.
    bool running_ = false;
    std::condition_variable mainWakeUp_;  // the main thread waits here for a drain request
    bool mainDrainRequested_ = false;     // guarded by mutex_
};

/// Marks the calling thread as running work of a queue for its lifetime.
class CurrentQueueScope {
public:
    explicit CurrentQueueScope(Queue* queue);
    ~CurrentQueueScope();
    CurrentQueueScope(const CurrentQueueScope&) = delete;
    CurrentQueueScope& operator=(const CurrentQueueScope&) = delete;

private:
    friend class Queue;
    Queue* const queue_;
    const CurrentQueueScope* const outer_;  // the scope this one is nested in, on the same thread
};

}  // namespace Dispatch::detail
