// The library's one mutex: non-recursive, released by the thread that took it.
// Satisfies Lockable, so std::lock_guard / std::unique_lock work with it.
//
// Waiters are not queued fairly: a thread that calls lock() just as the owner
// unlocks may take the lock ahead of threads already asleep. Uncontended
// lock() and unlock() are a single atomic operation each; contended waiters
// sleep in the kernel (futex through std::atomic::wait) rather than spin.
#pragma once

#include <atomic>
#include <cstdint>
#include <memory>

namespace Tovik {

class UnfairLock {
public:
    /// Unlocked.
    UnfairLock();
    /// Must not be locked when destroyed.
    ~UnfairLock();
    UnfairLock(const UnfairLock&) = delete;
    UnfairLock& operator=(const UnfairLock&) = delete;

    /// Blocks until the calling thread owns the lock. Taking it again on the
    /// owning thread deadlocks (not recursive).
    void lock();
    /// Takes the lock if it is free; never blocks. True when taken.
    [[nodiscard]] bool try_lock();
    /// Releases the lock; only the owning thread may call it.
    void unlock();

private:
    // The lock word lives in its own heap cell so its address never changes:
    // 0 unlocked, 1 locked, 2 locked with sleeping waiters.
    std::unique_ptr<std::atomic<uint32_t>> oslock_;
};

}  // namespace Tovik
