// A KeyChainDataProtocol kept in memory, for storages tested without a
// keychain: it holds one value and can be told to refuse stores. Header only
// (the fuzz entry points use it too). Thread-safe.
#pragma once

#include <mutex>
#include <optional>
#include <string>

#include "Tovik/KeyChainDataProtocol.h"

namespace TestSupport {

class MemoryKeyChainData : public Tovik::KeyChainDataProtocol {
public:
    explicit MemoryKeyChainData(std::optional<Data> value = std::nullopt) : value_(std::move(value)) {}

    /// While true, store() changes nothing and returns false.
    void setRefusing(bool refusing) {
        std::lock_guard guard(mutex_);
        refusing_ = refusing;
    }
    /// The value, as the keychain would hold it.
    std::optional<Data> value() const {
        std::lock_guard guard(mutex_);
        return value_;
    }

    std::string key() const override { return "memory"; }
    void setKey(std::string) override {}
    std::optional<Data> load() override { return value(); }
    std::optional<Data> get() override { return value(); }
    bool store(std::optional<Data> value) override {
        std::lock_guard guard(mutex_);
        if (refusing_) return false;
        value_ = std::move(value);
        return true;
    }
    std::optional<std::string> getString() override {
        auto bytes = value();
        return bytes ? std::optional<std::string>(std::string(bytes->begin(), bytes->end())) : std::nullopt;
    }
    bool storeString(std::optional<std::string> text) override {
        return store(text ? std::optional<Data>(Data(text->begin(), text->end())) : std::nullopt);
    }

private:
    mutable std::mutex mutex_;
    std::optional<Data> value_;  // guarded by mutex_
    bool refusing_ = false;      // guarded by mutex_
};

}  // namespace TestSupport
