// A timer source: fires at a deadline, then optionally at a fixed interval.
#pragma once

#include <optional>

#include "Dispatch/DispatchTime.h"
#include "Dispatch/EventLoop.h"
#include "Dispatch/Source.h"

namespace Dispatch::detail {

class TimerSource final : public Source {
public:
    using Source::Source;

    void schedule(DispatchTime deadline, std::optional<double> repeatingSeconds);

private:
    void start() override;
    void stop() override;
    void arm();  // needs registrationMutex_
    void fired(uint64_t generation);

    // Guarded by registrationMutex_.
    bool scheduled_ = false;
    DispatchTime deadline_;
    std::optional<DispatchTime::Clock::duration> interval_;
    EventLoop::TimerId timerId_ = 0;
    uint64_t generation_ = 0;  // tells a stale firing from the current schedule
};

}  // namespace Dispatch::detail
