// Serial jobs with synchronous results.
//
// Asynchronous closures
// C++ has no async closures. Throughout the library "an asynchronous closure
// returning T" is a callable that receives a completion and calls it exactly
// once with the result, now or later, from any thread:
//
//     AsyncClosure<int> fetch = [](Completion<int> done) {
//         queue.async([done] { done(42); });        // suspends, finishes later
//     };
//
// The closure returning before it calls its completion is a suspension point;
// the closure has finished when its completion has been called. A closure that
// may fail (ThrowingAsyncClosure<T>) completes with a Result<T> holding either
// the value or the error; a closure that throws before completing is treated
// as having completed with that error. A second call of a completion is
// ignored. A closure that never calls its completion keeps the waiting job
// (and its queue) blocked forever.
//
// SyncAsync runs such closures strictly one after another on a serial dispatch
// queue: every job blocks the queue's thread until its closure has completed,
// so closures submitted with async() run one at a time, in submission order,
// each finishing (suspension points included) before the next begins; sync()
// and syncThrowing() wait behind every job submitted before them.
//
// A job's closure is started on the thread that runs the job (the queue's
// thread for SyncAsync) and must not depend on work that needs the same queue,
// since that thread is blocked until the closure completes.
#pragma once

#include <atomic>
#include <exception>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <utility>
#include <variant>

#include "Dispatch/DispatchQueue.h"
#include "Dispatch/DispatchSemaphore.h"

namespace Tovik {

namespace detail {
template <class T>
struct CompletionOf {
    using Type = std::function<void(T)>;
};
template <>
struct CompletionOf<void> {
    using Type = std::function<void()>;
};
}  // namespace detail

/// The outcome of a closure that may fail: a T, or the error it failed with.
template <class T>
class Result {
public:
    Result(T value) : outcome_(std::in_place_index<0>, std::move(value)) {}  // NOLINT: implicit on purpose
    static Result failure(std::exception_ptr error) { return Result(std::move(error)); }

    bool hasValue() const { return outcome_.index() == 0; }
    /// The value; rethrows the error of a failure.
    T& value() & {
        if (!hasValue()) std::rethrow_exception(std::get<1>(outcome_));
        return std::get<0>(outcome_);
    }
    T&& value() && { return std::move(value()); }
    /// The error, or null for a value.
    std::exception_ptr error() const { return hasValue() ? nullptr : std::get<1>(outcome_); }

private:
    explicit Result(std::exception_ptr error) : outcome_(std::in_place_index<1>, std::move(error)) {}
    std::variant<T, std::exception_ptr> outcome_;
};

template <>
class Result<void> {
public:
    Result() = default;
    static Result failure(std::exception_ptr error) {
        Result result;
        result.error_ = std::move(error);
        return result;
    }

    bool hasValue() const { return error_ == nullptr; }
    /// Rethrows the error of a failure.
    void value() const {
        if (error_) std::rethrow_exception(error_);
    }
    std::exception_ptr error() const { return error_; }

private:
    std::exception_ptr error_;
};

/// Receives the result of an asynchronous closure: std::function<void(T)>, or
/// std::function<void()> for T = void.
template <class T>
using Completion = typename detail::CompletionOf<T>::Type;
/// An asynchronous closure returning T (see the banner).
template <class T>
using AsyncClosure = std::function<void(Completion<T>)>;
/// An asynchronous closure returning T or failing.
template <class T>
using ThrowingAsyncClosure = std::function<void(Completion<Result<T>>)>;

namespace detail {
// What a job and its completion share: the completion may outlive run().
template <class Outcome>
struct JobState {
    Dispatch::DispatchSemaphore sem{0};
    std::optional<Outcome> result;  // written once, before sem is signalled
    std::atomic<bool> finished{false};

    void finish(Outcome outcome) {
        if (finished.exchange(true, std::memory_order_acq_rel)) return;
        result.emplace(std::move(outcome));
        sem.signal();
    }
};
}  // namespace detail

class SyncAsync {
public:
    /// Runs an asynchronous closure and blocks the calling thread until it has
    /// completed. Created, run once and dropped.
    template <class T>
    class SerialJob {
    public:
        explicit SerialJob(AsyncClosure<T> block) : block_(std::move(block)) {}

        /// Starts the block on the calling thread and waits, without a
        /// time-out, for its completion; returns its value.
        T run();

    private:
        using Outcome = std::conditional_t<std::is_void_v<T>, std::monostate, T>;
        std::shared_ptr<detail::JobState<Outcome>> state_ = std::make_shared<detail::JobState<Outcome>>();
        AsyncClosure<T> block_;
    };

    /// As SerialJob, for a closure that may fail: run() passes its error on.
    template <class T>
    class SerialThrowingJob {
    public:
        explicit SerialThrowingJob(ThrowingAsyncClosure<T> block) : block_(std::move(block)) {}

        /// The block's value, or its error rethrown.
        T run();

    private:
        std::shared_ptr<detail::JobState<Result<T>>> state_ = std::make_shared<detail::JobState<Result<T>>>();
        ThrowingAsyncClosure<T> block_;
    };

    /// A serial queue with this label.
    explicit SyncAsync(std::string label);

    /// Submits the closure and returns at once. It runs after every job
    /// submitted before it has completed. It must not throw.
    void async(AsyncClosure<void> block);

    /// Runs the closure after every job submitted before it and returns its
    /// value. Must not be called from a job of this object (it would wait for
    /// itself; the queue aborts the process instead).
    template <class T>
    T sync(AsyncClosure<T> block) {
        return queue_.sync([&block]() -> T { return SerialJob<T>(std::move(block)).run(); });
    }

    /// As sync(), passing the closure's error on to the caller unchanged.
    template <class T>
    T syncThrowing(ThrowingAsyncClosure<T> block) {
        return queue_.sync([&block]() -> T { return SerialThrowingJob<T>(std::move(block)).run(); });
    }

    const Dispatch::DispatchQueue& queue() const { return queue_; }

private:
    Dispatch::DispatchQueue queue_;
};

template <class T>
T SyncAsync::SerialJob<T>::run() {
    if constexpr (std::is_void_v<T>) {
        block_([state = state_] { state->finish(std::monostate{}); });
        state_->sem.wait();
    } else {
        block_([state = state_](T value) { state->finish(std::move(value)); });
        state_->sem.wait();
        return std::move(*state_->result);
    }
}

template <class T>
T SyncAsync::SerialThrowingJob<T>::run() {
    try {
        block_([state = state_](Result<T> outcome) { state->finish(std::move(outcome)); });
    } catch (...) {
        state_->finish(Result<T>::failure(std::current_exception()));
    }
    state_->sem.wait();
    if constexpr (std::is_void_v<T>) {
        state_->result->value();
    } else {
        return std::move(*state_->result).value();
    }
}

}  // namespace Tovik
