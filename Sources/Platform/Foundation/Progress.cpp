#include "Foundation/Progress.h"

#include <utility>

namespace Foundation {

std::shared_ptr<Progress> Progress::discreteProgress(int64_t totalUnitCount) {
    return std::make_shared<Progress>(totalUnitCount);
}

Progress::Progress(int64_t totalUnitCount) : totalUnitCount_(totalUnitCount) {}

void Progress::setTotalUnitCount(int64_t count) {
    totalUnitCount_.store(count);
    notify();
}

void Progress::setCompletedUnitCount(int64_t count) {
    completedUnitCount_.store(count);
    notify();
}

double Progress::fractionCompleted() const {
    const int64_t total = totalUnitCount();
    return total > 0 ? static_cast<double>(completedUnitCount()) / static_cast<double>(total) : 0.0;
}

void Progress::setObserver(Observer observer) {
    auto shared = observer ? std::make_shared<const Observer>(std::move(observer)) : nullptr;
    std::lock_guard guard(observerMutex_);
    observer_ = std::move(shared);
}

void Progress::notify() const {
    std::shared_ptr<const Observer> observer;
    {
        std::lock_guard guard(observerMutex_);
        observer = observer_;
    }
    if (observer) (*observer)(*this);
}

}  // namespace Foundation
