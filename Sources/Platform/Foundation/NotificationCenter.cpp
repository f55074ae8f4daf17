#include "Foundation/NotificationCenter.h"

#include <algorithm>
#include <utility>

namespace Foundation {

NotificationCenter& NotificationCenter::defaultCenter() {
    // Never destroyed: a post may come while the process exits.
    static auto* center = new NotificationCenter;
    return *center;
}

NotificationCenter::ObserverToken NotificationCenter::addObserver(std::optional<std::string> name,
                                                                  const void* object, Block block) {
    std::lock_guard guard(mutex_);
    observers_.push_back({++lastToken_, std::move(name), object, std::make_shared<const Block>(std::move(block))});
    return lastToken_;
}

void NotificationCenter::removeObserver(ObserverToken token) {
    std::lock_guard guard(mutex_);
    std::erase_if(observers_, [&](const Observer& observer) { return observer.token == token; });
}

bool NotificationCenter::isObserving(ObserverToken token) {
    std::lock_guard guard(mutex_);
    return std::any_of(observers_.begin(), observers_.end(),
                       [token](const Observer& observer) { return observer.token == token; });
}

void NotificationCenter::post(std::string name, const void* object, PropertyList::Dictionary userInfo) {
    std::vector<std::pair<ObserverToken, std::shared_ptr<const Block>>> matching;
    {
        std::lock_guard guard(mutex_);
        for (const auto& observer : observers_) {
            if ((!observer.name || *observer.name == name) && (!observer.object || observer.object == object))
                matching.emplace_back(observer.token, observer.block);
        }
    }
    const Notification notification{std::move(name), object, std::move(userInfo)};
    for (const auto& [token, block] : matching) {
        if (!isObserving(token)) continue;  // removed by an earlier block
        if (*block) (*block)(notification);
    }
}

}  // namespace Foundation
