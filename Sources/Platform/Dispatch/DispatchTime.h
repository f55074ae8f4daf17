// Points in monotonic time and the result of a bounded wait.
#pragma once

#include <chrono>

namespace Dispatch {

/// A point on the monotonic clock. Deadlines of timers, delayed work and
/// bounded waits are expressed in it; it does not jump with wall-clock changes.
struct DispatchTime {
    using Clock = std::chrono::steady_clock;

    Clock::time_point uptime{};

    static DispatchTime now() { return {Clock::now()}; }
    /// A deadline that never arrives: a wait on it never times out.
    static DispatchTime distantFuture() { return {Clock::time_point::max()}; }

    bool isDistantFuture() const { return uptime == Clock::time_point::max(); }

    /// `now() + 1.5` is one and a half seconds from now. Saturates at distantFuture.
    friend DispatchTime operator+(DispatchTime time, double seconds) {
        if (time.isDistantFuture() || seconds >= time.secondsToDistantFuture()) return distantFuture();
        return {time.uptime + std::chrono::duration_cast<Clock::duration>(
                                  std::chrono::duration<double>(seconds))};
    }
    template <class Rep, class Period>
    friend DispatchTime operator+(DispatchTime time, std::chrono::duration<Rep, Period> d) {
        if (time.isDistantFuture() || std::chrono::duration<double>(d).count() >= time.secondsToDistantFuture()) {
            return distantFuture();
        }
        return {time.uptime + std::chrono::duration_cast<Clock::duration>(d)};
    }

    friend auto operator<=>(const DispatchTime&, const DispatchTime&) = default;

private:
    // With a second of margin for rounding.
    double secondsToDistantFuture() const {
        return std::chrono::duration<double>(Clock::time_point::max() - uptime).count() - 1.0;
    }
};

enum class DispatchTimeoutResult { success, timedOut };

/// Quality of service classes. On Linux they only name the global queues;
/// work is not scheduled with different priorities.
enum class DispatchQoS { unspecified, background, utility, default_, userInitiated, userInteractive };

}  // namespace Dispatch
