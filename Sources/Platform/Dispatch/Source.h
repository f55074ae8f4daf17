// The delivery machinery shared by every kind of source: merging of events,
// one event handler invocation at a time, and cancellation.
#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>

namespace Dispatch::detail {

class Queue;

class Source : public std::enable_shared_from_this<Source> {
public:
    explicit Source(std::shared_ptr<Queue> queue);
    virtual ~Source() = default;
    Source(const Source&) = delete;
    Source& operator=(const Source&) = delete;

    void setEventHandler(std::function<void()> handler);
    void setCancelHandler(std::function<void()> handler);
    void activate();
    void cancel();
    bool isCancelled() const;
    /// The data of the delivery in progress (or of the last one).
    uintptr_t data() const;

protected:
    enum class Merge { add, combineBits, replace };

    /// Records an event (from the event thread) and gets a delivery going
    /// unless one is already pending. Does nothing once cancelled.
    void merge(uintptr_t value, Merge how);

    /// Registers with the event system; called once, on activation. It
    /// and stop() are serialised by registrationMutex_, which they hold.
    virtual void start() = 0;
    /// Unregisters; called once, on cancel, if start() was called.
    virtual void stop() = 0;
    /// After each event handler invocation that returned before cancel.
    /// Called without any lock held.
    virtual void handlerReturned() {}

    /// Held by start(), stop() and whatever else touches the subclass's
    /// registration with the event system. Taken before mutex_, never after.
    std::mutex registrationMutex_;
    bool started_ = false;  // guarded by registrationMutex_
    bool stopped_ = false;  // guarded by registrationMutex_

private:
    using Handler = std::shared_ptr<const std::function<void()>>;

    void deliver();                      // on the queue
    void scheduleCancelHandlerIfDue();   // needs mutex_
    void runCancelHandler();             // on the queue

    const std::shared_ptr<Queue> queue_;

    mutable std::mutex mutex_;
    Handler eventHandler_;   // guarded by mutex_
    Handler cancelHandler_;  // guarded by mutex_
    uintptr_t pending_ = 0;       // guarded by mutex_: merged since the last delivery
    bool hasPending_ = false;     // guarded by mutex_
    uintptr_t current_ = 0;       // guarded by mutex_: the data of the running delivery
    bool activated_ = false;      // guarded by mutex_
    bool cancelled_ = false;      // guarded by mutex_
    bool unregistered_ = false;   // guarded by mutex_: cancelled and out of the event system
    bool deliveryScheduled_ = false;  // guarded by mutex_
    bool handlerRunning_ = false;     // guarded by mutex_
    bool cancelHandlerScheduled_ = false;  // guarded by mutex_
    // Guarded by mutex_: the event system's hold on an activated source, until
    // its cancel handler has run.
    std::shared_ptr<Source> keepAlive_;
};

}  // namespace Dispatch::detail
