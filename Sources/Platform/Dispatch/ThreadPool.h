// The process-wide elastic pool of worker threads behind every queue.
#pragma once

#include <algorithm>
#include <condition_variable>
#include <cstddef>
#include <cstdint>
#include <deque>
#include <functional>
#include <mutex>

namespace Dispatch::detail {

/// Runs jobs in submission order on as many threads as it takes. A job that
/// finds no idle worker gets a new thread at once while the pool is small;
/// beyond that a monitor adds threads whenever queued jobs have made no
/// progress for a few milliseconds, so blocked jobs never hold up the others
/// while a burst of short jobs does not create a thread each. A worker idle
/// for a few seconds retires.
class ThreadPool {
public:
    /// The pool of the process; lives until the process ends.
    static ThreadPool& shared();

    /// Queues job and returns at once. Callable from any thread, including
    /// from a job. A job must not throw (an escaping exception terminates).
    void submit(std::function<void()> job);

    /// Threads alive now (busy or idle), without the monitor. For diagnostics.
    std::size_t threadCount() const;

private:
    ThreadPool();
    void spawnWorker();  // needs mutex_
    void workerLoop();
    [[noreturn]] void monitorLoop();
    std::size_t unserved() const { return jobs_.size() - std::min(jobs_.size(), idle_ + starting_); }  // needs mutex_

    const std::size_t eagerThreads_;  // up to this many threads start without delay

    mutable std::mutex mutex_;
    std::condition_variable wakeWorker_;
    std::condition_variable wakeMonitor_;
    std::deque<std::function<void()>> jobs_;  // guarded by mutex_
    std::size_t idle_ = 0;                    // guarded by mutex_: workers waiting for a job
    std::size_t starting_ = 0;                // guarded by mutex_: spawned, not yet waiting or working
    std::size_t threads_ = 0;                 // guarded by mutex_
    uint64_t jobsStarted_ = 0;                // guarded by mutex_: progress seen by the monitor
    bool monitorStarted_ = false;             // guarded by mutex_
};

}  // namespace Dispatch::detail
