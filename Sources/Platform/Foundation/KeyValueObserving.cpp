#include "Foundation/KeyValueObserving.h"

#include <algorithm>
#include <condition_variable>
#include <thread>

namespace Foundation {

struct KeyValueObservation::Entry {
    std::string key;
    unsigned options = 0;
    KeyValueObserver observer;

    std::atomic<bool> removed = false;
    // The threads running the observer now (no lock is held while it runs,
    // so one notification never waits for another).
    std::mutex mutex;
    std::condition_variable finished;
    std::vector<std::thread::id> callers;  // guarded by mutex
};

KeyValueObservation& KeyValueObservation::operator=(KeyValueObservation&& other) noexcept {
    if (this != &other) {
        remove();
        entry_ = std::move(other.entry_);
    }
    return *this;
}

void KeyValueObservation::remove() {
    if (!entry_) return;
    {
        std::unique_lock guard(entry_->mutex);
        entry_->removed = true;
        // Calls on this thread (the observer removing itself) are not waited for.
        const auto self = std::this_thread::get_id();
        entry_->finished.wait(guard, [&] {
            return std::all_of(entry_->callers.begin(), entry_->callers.end(), [&](auto id) { return id == self; });
        });
    }
    entry_.reset();
}

KeyValueObservation KeyValueObservers::add(std::string key, unsigned options, KeyValueObserver observer) {
    auto entry = std::make_shared<KeyValueObservation::Entry>();
    entry->key = std::move(key);
    entry->options = options;
    entry->observer = std::move(observer);
    std::lock_guard guard(mutex_);
    std::erase_if(entries_, [](const auto& old) { return old->removed.load(); });
    entries_.push_back(entry);
    count_ = entries_.size();
    return KeyValueObservation(std::move(entry));
}

std::vector<std::shared_ptr<KeyValueObservation::Entry>> KeyValueObservers::liveEntries() const {
    std::lock_guard guard(mutex_);
    std::erase_if(entries_, [](const auto& old) { return old->removed.load(); });
    count_ = entries_.size();
    return entries_;
}

bool KeyValueObservers::observes(const std::string& key) const {
    if (!any()) return false;
    std::lock_guard guard(mutex_);
    return std::any_of(entries_.begin(), entries_.end(),
                       [&](const auto& entry) { return !entry->removed && entry->key == key; });
}

std::vector<std::string> KeyValueObservers::keys() const {
    std::vector<std::string> keys;
    if (!any()) return keys;
    for (const auto& entry : liveEntries()) {
        if (std::find(keys.begin(), keys.end(), entry->key) == keys.end()) keys.push_back(entry->key);
    }
    return keys;
}

void KeyValueObservers::notify(const std::string& key, const std::optional<PropertyList>& oldValue,
                               const std::optional<PropertyList>& newValue, bool isPrior) const {
    if (!any()) return;
    for (const auto& entry : liveEntries()) {
        if (entry->key != key || (isPrior && !(entry->options & observePrior))) continue;
        KeyValueChange change;
        if (entry->options & observeOld) change.oldValue = oldValue;
        if ((entry->options & observeNew) && !isPrior) change.newValue = newValue;
        change.isPrior = isPrior;
        const auto self = std::this_thread::get_id();
        {
            std::lock_guard guard(entry->mutex);
            if (entry->removed) continue;
            entry->callers.push_back(self);
        }
        struct Finish {
            KeyValueObservation::Entry& entry;
            std::thread::id self;
            ~Finish() {
                std::lock_guard guard(entry.mutex);
                entry.callers.erase(std::find(entry.callers.begin(), entry.callers.end(), self));
                entry.finished.notify_all();
            }
        } finish{*entry, self};
        entry->observer(key, object_, change);
    }
}

}  // namespace Foundation
