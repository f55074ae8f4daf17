#include "Dispatch/ThreadPool.h"

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <exception>
#include <system_error>
#include <thread>
#include <utility>

namespace Dispatch::detail {

namespace {
// How long a worker waits for a job before it retires.
constexpr auto idleLifetime = std::chrono::seconds(5);
// How long queued jobs may wait without progress before the monitor adds a thread.
constexpr auto stallTime = std::chrono::milliseconds(5);
}  // namespace

ThreadPool& ThreadPool::shared() {
    // Never destroyed: detached workers may still use it while the process exits.
    static auto* pool = new ThreadPool;
    return *pool;
}

ThreadPool::ThreadPool() : eagerThreads_(std::max<std::size_t>(8, 2 * std::thread::hardware_concurrency())) {}

void ThreadPool::submit(std::function<void()> job) {
    std::lock_guard lock(mutex_);
    jobs_.push_back(std::move(job));
    // Every queued job needs a waiting (or starting) worker of its own; a
    // notified worker stays counted as idle until it has taken its job.
    if (unserved() == 0) {
        wakeWorker_.notify_one();
    } else if (threads_ < eagerThreads_) {
        spawnWorker();
    } else if (!monitorStarted_) {
        try {
            std::thread([this] { monitorLoop(); }).detach();
            monitorStarted_ = true;
        } catch (const std::system_error&) {
            spawnWorker();
        }
    } else {
        wakeMonitor_.notify_one();
    }
}

std::size_t ThreadPool::threadCount() const {
    std::lock_guard lock(mutex_);
    return threads_;
}

void ThreadPool::spawnWorker() {
    try {
        std::thread([this] { workerLoop(); }).detach();
        ++threads_;
        ++starting_;
    } catch (const std::system_error& error) {
        // The job stays queued and runs when a busy worker frees up.
        std::fprintf(stderr, "Dispatch: cannot start a worker thread: %s\n", error.what());
        if (threads_ == 0) std::terminate();
    }
}

void ThreadPool::workerLoop() {
    std::unique_lock lock(mutex_);
    --starting_;
    for (;;) {
        if (jobs_.empty()) {
            ++idle_;
            bool woken = wakeWorker_.wait_for(lock, idleLifetime, [this] { return !jobs_.empty(); });
            --idle_;
            if (!woken) {
                --threads_;
                return;
            }
        }
        auto job = std::move(jobs_.front());
        jobs_.pop_front();
        ++jobsStarted_;
        lock.unlock();
        job();
        job = nullptr;  // release what the job captured outside the lock
        lock.lock();
    }
}

void ThreadPool::monitorLoop() {
    std::unique_lock lock(mutex_);
    for (;;) {
        wakeMonitor_.wait(lock, [this] { return unserved() > 0; });
        uint64_t seen = jobsStarted_;
        auto tick = std::chrono::steady_clock::now() + stallTime;
        while (wakeMonitor_.wait_until(lock, tick) != std::cv_status::timeout) {
        }
        if (unserved() == 0 || jobsStarted_ != seen) continue;
        // Stalled: give the waiting jobs threads, a few at a time.
        std::size_t missing = std::min<std::size_t>(unserved(), 4);
        for (std::size_t i = 0; i < missing; ++i) spawnWorker();
    }
}

}  // namespace Dispatch::detail
