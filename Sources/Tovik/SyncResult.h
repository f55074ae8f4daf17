// Waiting, with an optional time-out, for a value that a callback delivers.
//
//     int status = withSyncResult(-1, 5.0, "getStatus", __FILE__, "status()", __LINE__,
//                                 [&](const std::shared_ptr<SyncResult<int>>& result) {
//                                     client.getStatus([result](int s) { result->setValue(s); });
//                                 });
#pragma once

#include <functional>
#include <memory>
#include <string_view>
#include <type_traits>
#include <utility>

#include "Dispatch/DispatchSemaphore.h"
#include "Dispatch/DispatchTime.h"
#include "Tovik/UnfairLock.h"

namespace Tovik {

namespace detail {
struct SyncResultWaiter;
}

/// A value written later, from any thread. Every completed write signals the
/// waiting withSyncResult() once; signals beyond the first are left unused.
/// Shared by reference (std::shared_ptr): writes after the wait has ended are
/// harmless.
template <class T>
class SyncResult {
public:
    explicit SyncResult(T value) : value_(std::move(value)) {}
    SyncResult(const SyncResult&) = delete;
    SyncResult& operator=(const SyncResult&) = delete;

    /// A copy of the current value. Any thread.
    T value() const {
        std::lock_guard guard(lock_);
        return value_;
    }

    /// Stores the value and signals once. Any thread.
    void setValue(T value) {
        {
            std::lock_guard guard(lock_);
            value_ = std::move(value);
        }
        sem_.signal();
    }

    /// Changes the value in place (modify receives T&) and signals once when
    /// modify returns normally; an exception from modify is passed on without
    /// a signal. modify runs under the value's lock: it must not touch this
    /// SyncResult.
    template <class Modify>
    void modify(Modify&& modify) {
        {
            std::lock_guard guard(lock_);
            std::forward<Modify>(modify)(value_);
        }
        sem_.signal();
    }

private:
    friend struct detail::SyncResultWaiter;

    mutable UnfairLock lock_;
    T value_;  // guarded by lock_
    Dispatch::DispatchSemaphore sem_{0};
};

namespace detail {
// The private semaphore, for withSyncResult() only.
struct SyncResultWaiter {
    template <class T>
    static const Dispatch::DispatchSemaphore& sem(const SyncResult<T>& result) {
        return result.sem_;
    }
};

/// Logs name + " timed out for " + timeout + " secs." at info, attributed to
/// the given file, function and line.
void logSyncResultTimeout(std::string_view name, double timeout, std::string_view file, std::string_view function,
                          unsigned line);
}  // namespace detail

/// Hands a SyncResult holding `initial` to body (called on this thread), then
/// waits for its first write: without limit when timeout <= 0, else until
/// `timeout` seconds after the call began. On a time-out logs at info
/// "<name> timed out for <timeout> secs." (timeout in the shortest decimal
/// form with at least one fractional digit: "0.5", "5.0"), naming file,
/// function and line. Returns the current value: the written one, or after a
/// time-out the initial value unless a write came in meanwhile.
template <class T>
T withSyncResult(T initial, double timeout, std::string_view name, std::string_view file,
                 std::string_view function, unsigned line,
                 const std::function<void(const std::shared_ptr<SyncResult<std::type_identity_t<T>>>&)>& body) {
    const Dispatch::DispatchTime start = Dispatch::DispatchTime::now();
    auto result = std::make_shared<SyncResult<T>>(std::move(initial));
    body(result);
    const Dispatch::DispatchSemaphore& sem = detail::SyncResultWaiter::sem(*result);
    if (timeout <= 0) {
        sem.wait();
    } else if (sem.wait(start + timeout) == Dispatch::DispatchTimeoutResult::timedOut) {
        detail::logSyncResultTimeout(name, timeout, file, function, line);
    }
    return result->value();
}

}  // namespace Tovik
