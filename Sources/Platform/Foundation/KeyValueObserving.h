// Key-value observing: callbacks registered for a key of an object, told
// before and after the key's value changes.
//
// KeyValueObservers is the registry an observable object keeps; the object
// calls notify() for every change, on the thread that made or detected it,
// without holding locks of its own. An observation lasts until its
// KeyValueObservation token is removed or destroyed.
#pragma once

#include <atomic>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

#include "Foundation/PropertyList.h"

namespace Foundation {

/// What an observer is sent, as the platform's option bits.
enum KeyValueObservingOptions : unsigned {
    observeNew = 0x01,    // the new value in after-notifications
    observeOld = 0x02,    // the old value
    observePrior = 0x08,  // a notification before the change as well
};

/// One notification, as the platform's change dictionary carries it.
struct KeyValueChange {
    std::optional<PropertyList> oldValue;  // with observeOld; absent when the key had no value
    std::optional<PropertyList> newValue;  // with observeNew, after the change only; absent when none
    bool isPrior = false;                  // the notification before the change
};

/// Called with the key, the observed object and the change.
using KeyValueObserver = std::function<void(const std::string& key, const void* object, const KeyValueChange&)>;

/// Keeps an observation alive; destroying it or remove() ends it.
class KeyValueObservation {
public:
    KeyValueObservation() = default;
    ~KeyValueObservation() { remove(); }
    KeyValueObservation(KeyValueObservation&&) noexcept = default;
    KeyValueObservation& operator=(KeyValueObservation&& other) noexcept;
    KeyValueObservation(const KeyValueObservation&) = delete;
    KeyValueObservation& operator=(const KeyValueObservation&) = delete;

    /// Ends the observation. A notification running on another thread is
    /// waited for; after the call none starts. May be called from the
    /// observer itself.
    void remove();

    struct Entry;

private:
    friend class KeyValueObservers;
    explicit KeyValueObservation(std::shared_ptr<Entry> entry) : entry_(std::move(entry)) {}

    std::shared_ptr<Entry> entry_;
};

class KeyValueObservers {
public:
    /// object is what observers are told they observe.
    explicit KeyValueObservers(const void* object) : object_(object) {}

    /// Observes key with options (KeyValueObservingOptions bits).
    [[nodiscard]] KeyValueObservation add(std::string key, unsigned options, KeyValueObserver observer);

    /// Whether any observation may be registered (cheap; no lock): false
    /// only when none is.
    bool any() const { return count_.load(std::memory_order_acquire) > 0; }
    /// Whether key is observed.
    bool observes(const std::string& key) const;
    /// The observed keys, each once.
    std::vector<std::string> keys() const;

    /// Tells the observers of key, in registration order, on the calling
    /// thread, holding no lock while an observer runs: a prior notification
    /// goes only to those that asked for one, values only to those that
    /// asked for them.
    void notify(const std::string& key, const std::optional<PropertyList>& oldValue,
                const std::optional<PropertyList>& newValue, bool isPrior) const;

private:
    // The entries not removed, in registration order; drops the removed ones.
    std::vector<std::shared_ptr<KeyValueObservation::Entry>> liveEntries() const;

    const void* const object_;
    mutable std::mutex mutex_;
    // Guarded by mutex_; removed entries stay until the next look at the list.
    mutable std::vector<std::shared_ptr<KeyValueObservation::Entry>> entries_;
    mutable std::atomic<size_t> count_ = 0;  // entries_.size()
};

}  // namespace Foundation
