// The progress of one piece of work, shared between the worker that advances
// it and the callers that watch or cancel it.
//
// Always owned through std::shared_ptr (discreteProgress()). Every member may
// be called from any thread at any time. Cancelling is a request: the worker
// reads isCancelled() at points of its choosing and stops there.
#pragma once

#include <atomic>
#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>

namespace Foundation {

class Progress {
public:
    /// Called after totalUnitCount or completedUnitCount changed, on the
    /// thread that changed it, with the progress as it is then. Two changes
    /// made on different threads may be observed in either order. It must not
    /// set another observer.
    using Observer = std::function<void(const Progress&)>;

    /// A progress with totalUnitCount units, none completed, not cancelled.
    static std::shared_ptr<Progress> discreteProgress(int64_t totalUnitCount);

    explicit Progress(int64_t totalUnitCount);
    Progress(const Progress&) = delete;
    Progress& operator=(const Progress&) = delete;

    int64_t totalUnitCount() const { return totalUnitCount_.load(); }
    void setTotalUnitCount(int64_t count);
    int64_t completedUnitCount() const { return completedUnitCount_.load(); }
    void setCompletedUnitCount(int64_t count);
    /// completed / total, 0 when the total is not positive.
    double fractionCompleted() const;

    /// Marks the work cancelled; later calls do nothing. Never blocks.
    void cancel() { cancelled_.store(true); }
    bool isCancelled() const { return cancelled_.load(); }

    /// Replaces the observer (nullptr removes it). A call to the previous one
    /// that is already running may still finish after this returns.
    void setObserver(Observer observer);

private:
    void notify() const;

    std::atomic<int64_t> totalUnitCount_;
    std::atomic<int64_t> completedUnitCount_{0};
    std::atomic<bool> cancelled_{false};
    mutable std::mutex observerMutex_;
    std::shared_ptr<const Observer> observer_;  // guarded by observerMutex_
};

}  // namespace Foundation
