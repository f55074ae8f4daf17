// A process's notification center: named notifications, each with an
// optional sender and a user-info dictionary, delivered to the blocks
// observing them.
//
// Delivery is synchronous: post() calls every matching observer's block on
// the posting thread, in the order the observers were added, and returns when
// all have run. The center's lock is not held while blocks run, so a block
// may post, add and remove observers; an observer added during a post is not
// called by that post.
//
// Every member is thread-safe. removeObserver() does not wait for a block
// that a post on another thread is running at that moment.
#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

#include "Foundation/PropertyList.h"

namespace Foundation {

struct Notification {
    std::string name;
    /// The sender, compared by identity only; null when posted without one.
    const void* object = nullptr;
    PropertyList::Dictionary userInfo;
};

class NotificationCenter {
public:
    using Block = std::function<void(const Notification&)>;
    /// Names one observer; 0 names none.
    using ObserverToken = uint64_t;

    /// The process's center. Created on first use; lives until the process ends.
    static NotificationCenter& defaultCenter();

    NotificationCenter() = default;
    NotificationCenter(const NotificationCenter&) = delete;
    NotificationCenter& operator=(const NotificationCenter&) = delete;

    /// Calls block for each notification posted with name (any name when
    /// absent) by object (any sender when null), until removeObserver(token).
    ObserverToken addObserver(std::optional<std::string> name, const void* object, Block block);
    /// Stops the observer's deliveries; an unknown or 0 token does nothing.
    void removeObserver(ObserverToken token);

    /// Delivers the notification to the matching observers (see the banner).
    void post(std::string name, const void* object = nullptr, PropertyList::Dictionary userInfo = {});

private:
    struct Observer {
        ObserverToken token;
        std::optional<std::string> name;
        const void* object;
        std::shared_ptr<const Block> block;
    };

    bool isObserving(ObserverToken token);

    std::mutex mutex_;
    ObserverToken lastToken_ = 0;     // guarded by mutex_
    std::vector<Observer> observers_;  // guarded by mutex_; in the order added
};

}  // namespace Foundation
