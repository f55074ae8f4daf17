#include "Tovik/UnfairLock.h"

namespace Tovik {

namespace {
// Lock word states.
constexpr uint32_t unlocked = 0;
constexpr uint32_t locked = 1;
constexpr uint32_t lockedWithWaiters = 2;
}  // namespace

UnfairLock::UnfairLock() : oslock_(std::make_unique<std::atomic<uint32_t>>(unlocked)) {}

UnfairLock::~UnfairLock() = default;

void UnfairLock::lock() {
    uint32_t state = unlocked;
    if (oslock_->compare_exchange_strong(state, locked, std::memory_order_acquire, std::memory_order_relaxed)) {
        return;
    }
    // Contended: mark the word as having waiters and sleep until it is released.
    if (state != lockedWithWaiters) state = oslock_->exchange(lockedWithWaiters, std::memory_order_acquire);
    while (state != unlocked) {
        oslock_->wait(lockedWithWaiters, std::memory_order_relaxed);
        state = oslock_->exchange(lockedWithWaiters, std::memory_order_acquire);
    }
}

bool UnfairLock::try_lock() {
    uint32_t state = unlocked;
    return oslock_->compare_exchange_strong(state, locked, std::memory_order_acquire, std::memory_order_relaxed);
}

void UnfairLock::unlock() {
    if (oslock_->exchange(unlocked, std::memory_order_release) == lockedWithWaiters) oslock_->notify_one();
}

}  // namespace Tovik
