#include "Dispatch/Source.h"

#include <utility>

#include "Dispatch/Queue.h"

namespace Dispatch::detail {

Source::Source(std::shared_ptr<Queue> queue) : queue_(std::move(queue)) {}

void Source::setEventHandler(std::function<void()> handler) {
    Handler replacement = handler ? std::make_shared<const std::function<void()>>(std::move(handler)) : nullptr;
    std::lock_guard lock(mutex_);
    if (!cancelHandlerScheduled_) std::swap(eventHandler_, replacement);
}

void Source::setCancelHandler(std::function<void()> handler) {
    Handler replacement = handler ? std::make_shared<const std::function<void()>>(std::move(handler)) : nullptr;
    std::lock_guard lock(mutex_);
    if (!cancelHandlerScheduled_) std::swap(cancelHandler_, replacement);
}

void Source::activate() {
    std::lock_guard registration(registrationMutex_);
    {
        std::lock_guard lock(mutex_);
        if (activated_ || cancelled_) return;
        activated_ = true;
        keepAlive_ = shared_from_this();
    }
    started_ = true;
    start();
}

void Source::cancel() {
    {
        std::lock_guard lock(mutex_);
        if (cancelled_) return;
        cancelled_ = true;
        hasPending_ = false;
    }
    {
        std::lock_guard registration(registrationMutex_);
        if (started_ && !stopped_) {
            stopped_ = true;
            stop();
        }
    }
    std::lock_guard lock(mutex_);
    unregistered_ = true;
    scheduleCancelHandlerIfDue();
}

bool Source::isCancelled() const {
    std::lock_guard lock(mutex_);
    return cancelled_;
}

uintptr_t Source::data() const {
    std::lock_guard lock(mutex_);
    return current_;
}

void Source::merge(uintptr_t value, Merge how) {
    std::lock_guard lock(mutex_);
    if (cancelled_) return;
    switch (how) {
    case Merge::add: pending_ += value; break;
    case Merge::combineBits: pending_ |= value; break;
    case Merge::replace: pending_ = value; break;
    }
    hasPending_ = true;
    if (!deliveryScheduled_ && !handlerRunning_) {
        deliveryScheduled_ = true;
        queue_->async([self = shared_from_this()] { self->deliver(); });
    }
}

void Source::deliver() {
    Handler handler;
    {
        std::lock_guard lock(mutex_);
        deliveryScheduled_ = false;
        if (cancelled_ || !hasPending_) return;
        current_ = pending_;
        pending_ = 0;
        hasPending_ = false;
        handlerRunning_ = true;
        handler = eventHandler_;
    }
    if (handler) (*handler)();
    handler = nullptr;
    handlerReturned();
    std::lock_guard lock(mutex_);
    handlerRunning_ = false;
    if (cancelled_) {
        scheduleCancelHandlerIfDue();
    } else if (hasPending_ && !deliveryScheduled_) {
        deliveryScheduled_ = true;
        queue_->async([self = shared_from_this()] { self->deliver(); });
    }
}

void Source::scheduleCancelHandlerIfDue() {
    if (!unregistered_ || handlerRunning_ || cancelHandlerScheduled_) return;
    cancelHandlerScheduled_ = true;
    queue_->async([self = shared_from_this()] { self->runCancelHandler(); });
}

void Source::runCancelHandler() {
    std::shared_ptr<Source> keepAlive;  // dropped last, after the handlers
    Handler eventHandler;
    Handler cancelHandler;
    {
        std::lock_guard lock(mutex_);
        keepAlive = std::move(keepAlive_);
        eventHandler = std::move(eventHandler_);
        cancelHandler = std::move(cancelHandler_);
    }
    if (cancelHandler) (*cancelHandler)();
}

}  // namespace Dispatch::detail
