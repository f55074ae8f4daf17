// Serial and concurrent work queues on an elastic thread pool.
//
// A DispatchQueue is a handle: copies refer to the same queue, and a queue lives
// as long as a handle or a pending work item refers to it.
//
// Ordering guarantees
// - A serial queue runs its items one at a time, in submission order (FIFO),
//   each on some pool thread; an item never overlaps the next.
// - A concurrent queue starts its items in submission order and runs them in
//   parallel.
// - The main queue is serial and is served only by the thread that called
//   dispatchMain(); items submitted before that call wait for it.
//
// Threads
// The pool grows when every thread is busy, so an item that blocks (on a
// semaphore, a child process, the network) never keeps another queue from
// running. Idle threads retire after a few seconds.
//
// Work items must not throw: an exception escaping an async item ends the
// process (std::terminate). An exception thrown by a sync block is passed on
// to the caller of sync().
#pragma once

#include <exception>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <type_traits>
#include <utility>

#include "Dispatch/DispatchTime.h"

namespace Dispatch {

class DispatchGroup;
namespace detail {
class Queue;
}

class DispatchQueue {
public:
    enum class Attributes { serial, concurrent };
    /// Accepted for fidelity with the queues' declarations; has no effect.
    enum class AutoreleaseFrequency { inherit, workItem, never };

    /// Creates a new queue. The label is informational (crash messages, currentLabel()).
    explicit DispatchQueue(std::string label,
                           DispatchQoS qos = DispatchQoS::unspecified,
                           Attributes attributes = Attributes::serial,
                           AutoreleaseFrequency autoreleaseFrequency = AutoreleaseFrequency::inherit);

    /// The process's main queue (label "com.apple.main-thread").
    static DispatchQueue main();
    /// The global concurrent queue of a quality of service; the same queue on every call.
    static DispatchQueue global(DispatchQoS qos = DispatchQoS::default_);

    const std::string& label() const;
    DispatchQoS qos() const;
    bool isSerial() const;

    /// Schedules work and returns at once. Callable from any thread, including
    /// from work running on this queue.
    void async(std::function<void()> work) const;
    /// As async(work), with the group entered now and left when work has run.
    void async(const DispatchGroup& group, std::function<void()> work) const;
    /// Schedules work to be submitted at the deadline (not before it).
    void asyncAfter(DispatchTime deadline, std::function<void()> work) const;
    /// Schedules work to be submitted `seconds` from now.
    void asyncAfter(double seconds, std::function<void()> work) const;

    /// Runs work on this queue and returns its result once it has finished.
    /// On a serial queue the block runs after every item submitted before it and
    /// excludes all other items of the queue; on a concurrent queue it runs
    /// at once. A sync onto a serial queue that the calling thread is already
    /// running work of would wait for itself: that is a programming error and
    /// aborts the process with a message naming the queue.
    template <class F>
    std::invoke_result_t<F&> sync(F&& work) const {
        using R = std::invoke_result_t<F&>;
        if constexpr (std::is_void_v<R>) {
            struct Context { F* work; std::exception_ptr error; } context{&work, nullptr};
            syncImpl([](void* raw) {
                auto* c = static_cast<Context*>(raw);
                try { (*c->work)(); } catch (...) { c->error = std::current_exception(); }
            }, &context);
            if (context.error) std::rethrow_exception(context.error);
        } else {
            struct Context { F* work; std::optional<R> result; std::exception_ptr error; } context{&work, {}, nullptr};
            syncImpl([](void* raw) {
                auto* c = static_cast<Context*>(raw);
                try { c->result.emplace((*c->work)()); } catch (...) { c->error = std::current_exception(); }
            }, &context);
            if (context.error) std::rethrow_exception(context.error);
            return std::move(*context.result);
        }
    }

    /// True when the calling thread is running an item (or a sync block) of this queue.
    bool isCurrent() const;
    /// The label of the innermost queue the calling thread is running work of, or "".
    static std::string currentLabel();

    friend bool operator==(const DispatchQueue& a, const DispatchQueue& b) { return a.impl_ == b.impl_; }

    /// For the sources and groups of this library.
    const std::shared_ptr<detail::Queue>& impl() const { return impl_; }

private:
    explicit DispatchQueue(std::shared_ptr<detail::Queue> impl) : impl_(std::move(impl)) {}
    void syncImpl(void (*invoke)(void*), void* context) const;

    std::shared_ptr<detail::Queue> impl_;
};

/// Parks the calling (main) thread serving the main queue forever.
[[noreturn]] void dispatchMain();

}  // namespace Dispatch
