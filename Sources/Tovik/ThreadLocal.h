// A per-thread value stored under a string key in the calling thread's
// dictionary. Values live as long as their thread.
#pragma once

#include <any>
#include <optional>
#include <string>
#include <unordered_map>
#include <utility>

namespace Tovik {

/// The calling thread's dictionary (one per thread, created on first use).
/// Only that thread may use it.
std::unordered_map<std::string, std::any>& currentThreadDictionary();

template <class T>
class ThreadLocal {
public:
    explicit ThreadLocal(std::string key) : key_(std::move(key)) {}

    const std::string& key() const { return key_; }

    /// The value stored under the key on this thread, or nothing when there is
    /// none or it holds a value of another type.
    std::optional<T> value() const {
        auto& dictionary = currentThreadDictionary();
        auto entry = dictionary.find(key_);
        if (entry == dictionary.end()) return std::nullopt;
        if (const T* stored = std::any_cast<T>(&entry->second)) return *stored;
        return std::nullopt;
    }

    /// Stores the value on this thread; nothing removes the entry.
    void setValue(std::optional<T> value) const {
        auto& dictionary = currentThreadDictionary();
        if (value) {
            dictionary.insert_or_assign(key_, std::any(std::move(*value)));
        } else {
            dictionary.erase(key_);
        }
    }

private:
    std::string key_;
};

}  // namespace Tovik
