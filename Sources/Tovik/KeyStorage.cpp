#include "Tovik/KeyStorage.h"

#include <cstdio>
#include <cstdlib>
#include <exception>
#include <mutex>
#include <stdexcept>
#include <string_view>

#include "Tovik/ErrorText.h"
#include "Tovik/Logger/Logger.h"

namespace Tovik {

namespace {

[[noreturn]] void mustBeImplemented() {
    std::fputs("Fatal error: Must be implemented in subclass\n", stderr);
    std::abort();
}

}  // namespace

KeyStorageBase::KeyStorageBase(std::string queueLabel, double writeDelay)
    : queue_(std::move(queueLabel), Dispatch::DispatchQoS::unspecified, Dispatch::DispatchQueue::Attributes::serial,
             Dispatch::DispatchQueue::AutoreleaseFrequency::inherit),
      writeDelay_(writeDelay) {}

std::optional<KeyStorageBase::Data> KeyStorageBase::loadData() { mustBeImplemented(); }
void KeyStorageBase::storeData(const Data&) { mustBeImplemented(); }
void KeyStorageBase::deleteData() { mustBeImplemented(); }

void KeyStorageBase::load() {
    std::lock_guard hooks(hooksLock_);
    std::optional<Foundation::PropertyList> contents;
    try {
        const auto blob = loadData();
        if (!blob) return;
        contents = Foundation::PropertyList::fromData(
            std::string_view(reinterpret_cast<const char*>(blob->data()), blob->size()));
        if (!contents) throw std::runtime_error("The data is not a property list");
    } catch (...) {
        TLOG_ERROR("load()", "Failed to load stored cache: " + errorText(std::current_exception()));
        return;
    }
    const auto* dictionary = contents->get<Dictionary>();
    if (!dictionary) {
        TLOG_ERROR("load()", "The decoded object is not a dictionary");
        return;
    }
    std::lock_guard guard(lock_);
    cache_ = *dictionary;
    dirty_ = false;
}

void KeyStorageBase::store() {
    std::lock_guard hooks(hooksLock_);
    std::string blob;
    {
        std::lock_guard guard(lock_);
        if (!dirty_) return;
        dirty_ = false;
        blob = Foundation::PropertyList(cache_).data(Foundation::PropertyList::Format::binary);
    }
    try {
        if (blob.empty()) throw std::runtime_error("The dictionary cannot be written as a property list");
        storeData(Data(blob.begin(), blob.end()));
    } catch (...) {
        {
            std::lock_guard guard(lock_);
            dirty_ = true;
        }
        TLOG_ERROR("store()", "Failed to store cache: " + errorText(std::current_exception()));
    }
}

bool KeyStorageBase::isEmpty() const {
    std::lock_guard guard(lock_);
    return cache_.empty();
}

KeyStorageBase::Dictionary KeyStorageBase::dictionaryRepresentation() const {
    std::lock_guard guard(lock_);
    return cache_;
}

std::optional<KeyStorageBase::Value> KeyStorageBase::object(const std::string& key) const {
    std::lock_guard guard(lock_);
    auto found = cache_.find(key);
    if (found == cache_.end()) return std::nullopt;
    return found->second;
}

void KeyStorageBase::set(std::optional<Value> value, const std::string& key) {
    {
        std::lock_guard guard(lock_);
        if (value)
            cache_.insert_or_assign(key, std::move(*value));
        else
            cache_.erase(key);
        dirty_ = true;
    }
    if (writeDelay_ != 0) {
        queue_.asyncAfter(writeDelay_, [self = shared_from_this()] { self->store(); });
    } else {
        queue_.sync([this] { store(); });
    }
}

void KeyStorageBase::reset(const Dictionary& dictionary) {
    {
        std::lock_guard guard(lock_);
        cache_ = dictionary;
        dirty_ = true;
    }
    store();
}

void KeyStorageBase::delete_() {
    std::lock_guard hooks(hooksLock_);
    {
        std::lock_guard guard(lock_);
        cache_.clear();
        dirty_ = false;
    }
    deleteData();
}

}  // namespace Tovik
