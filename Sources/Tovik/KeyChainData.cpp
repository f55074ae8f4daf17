#include "Tovik/KeyChainData.h"

#include <mutex>
#include <string_view>

#include "Foundation/NotificationCenter.h"
#include "Foundation/UTF8.h"
#include "Security/SecItem.h"
#include "Tovik/KeyChain.h"
#include "Tovik/Logger/Logger.h"

namespace Tovik {

std::string KeyChainData::key() const {
    std::lock_guard guard(lock_);
    return key_;
}

void KeyChainData::setKey(std::string key) {
    std::lock_guard guard(lock_);
    key_ = std::move(key);
}

std::optional<KeyChainData::Data> KeyChainData::loadLocked() {
    if (!key_.empty()) data_ = KeyChain::load(key_);
    return data_;
}

std::optional<KeyChainData::Data> KeyChainData::load() {
    std::lock_guard guard(lock_);
    return loadLocked();
}

std::optional<KeyChainData::Data> KeyChainData::get() {
    std::lock_guard guard(lock_);
    return data_ ? data_ : loadLocked();
}

bool KeyChainData::store(std::optional<Data> value) {
    Security::OSStatus status;
    {
        std::lock_guard guard(lock_);
        data_ = std::move(value);
        if (key_.empty()) return false;
        if (!data_) {
            status = Security::SecItemDelete(KeyChain::baseQuery(key_, std::nullopt, std::nullopt));
            if (status == Security::errSecSuccess) return true;
            TLOG_ERROR("store(_:)", "Failed to delete " + key_ + ": status " + std::to_string(status));
        } else {
            status = KeyChain::save(key_, *data_);
            if (status == Security::errSecSuccess) return true;
            TLOG_ERROR("store(_:)", "Failed to store " + key_ + ": status " + std::to_string(status));
        }
    }
    if (status == Security::errSecNotAvailable)
        Foundation::NotificationCenter::defaultCenter().post(keyChainNotAvailableNotification, this);
    return false;
}

std::optional<std::string> KeyChainData::getString() {
    auto bytes = get();
    if (!bytes) return std::nullopt;
    std::string text(bytes->begin(), bytes->end());
    if (!Foundation::isValidUTF8(text)) return std::nullopt;
    return text;
}

bool KeyChainData::storeString(std::optional<std::string> value) {
    if (!value) return store(std::nullopt);
    return store(Data(value->begin(), value->end()));
}

}  // namespace Tovik
