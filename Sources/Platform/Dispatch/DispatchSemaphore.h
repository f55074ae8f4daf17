// A counting semaphore. A handle: copies refer to the same semaphore.
#pragma once

#include <memory>

#include "Dispatch/DispatchTime.h"

namespace Dispatch {

namespace detail {
class Semaphore;
}

class DispatchSemaphore {
public:
    /// value: the initial count, 0 or more.
    explicit DispatchSemaphore(long value = 0);

    /// Takes one from the count, blocking while it is zero.
    void wait() const;
    /// As wait(), giving up at the deadline; a timed-out wait takes nothing.
    DispatchTimeoutResult wait(DispatchTime deadline) const;
    /// Adds one to the count and wakes one waiter. Returns non-zero when a
    /// waiting thread was woken, zero otherwise.
    long signal() const;

private:
    std::shared_ptr<detail::Semaphore> impl_;
};

}  // namespace Dispatch
