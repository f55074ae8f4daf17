// A count of outstanding work with blocking and asynchronous waits.
// A handle: copies refer to the same group. Every member is thread-safe.
#pragma once

#include <functional>
#include <memory>

#include "Dispatch/DispatchQueue.h"
#include "Dispatch/DispatchTime.h"

namespace Dispatch {

namespace detail {
class Group;
}

class DispatchGroup {
public:
    DispatchGroup();

    /// Counts one more outstanding piece of work.
    void enter() const;
    /// Ends one piece of work. When the count reaches zero, waiters wake and
    /// notify blocks are submitted to their queues. Leaving more often than
    /// entering is a programming error and aborts the process.
    void leave() const;

    /// Blocks until the count is zero (returns at once if it already is).
    void wait() const;
    /// As wait(), giving up at the deadline.
    DispatchTimeoutResult wait(DispatchTime deadline) const;

    /// Submits work to queue once the count is zero: at once if it already is,
    /// otherwise when the last leave() happens. Each notify fires once.
    void notify(const DispatchQueue& queue, std::function<void()> work) const;

private:
    std::shared_ptr<detail::Group> impl_;
};

}  // namespace Dispatch
