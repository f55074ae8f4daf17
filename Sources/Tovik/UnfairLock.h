// The library's one mutex: non-recursive, released by the thread that took it.
// Satisfies Lockable, so std::lock_guard / std::unique_lock work with it.
#pragma once

#include <atomic>
#include <cstdint>
#include <memory>

namespace Tovik {

class UnfairLock {
public:
    UnfairLock();
    ~UnfairLock();
    UnfairLock(const UnfairLock&) = delete;
    UnfairLock& operator=(const UnfairLock&) = delete;

    void lock();
    bool try_lock();
    void unlock();

private:
    // The lock word lives in its own heap cell so its address never changes.
    std::unique_ptr<std::atomic<uint32_t>> oslock_;
};

}  // namespace Tovik
