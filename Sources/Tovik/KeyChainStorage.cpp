#include "Tovik/KeyChainStorage.h"

#include "Security/SecItem.h"
#include "Tovik/KeyChain.h"
#include "Tovik/Logger/Logger.h"

namespace Tovik {

KeyChainStorage::KeyChainStorage(std::string key) : KeyStorageBase("KeychainStorage:" + key, 0), key_(std::move(key)) {}

std::optional<KeyStorageBase::Data> KeyChainStorage::loadData() {
    TLOG_DEBUG("loadData()", "Load from " + key_);
    return KeyChain::load(key_);
}

void KeyChainStorage::storeData(const Data& blob) {
    TLOG_DEBUG("storeData(_:)", "Store to " + key_);
    if (KeyChain::save(key_, blob) != Security::errSecSuccess) TLOG_ERROR("storeData(_:)", "Failed to store " + key_);
}

void KeyChainStorage::deleteData() {
    if (Security::SecItemDelete(KeyChain::baseQuery(key_, std::nullopt, std::nullopt)) != Security::errSecSuccess)
        TLOG_ERROR("deleteData()", "Failed to delete " + key_);
}

}  // namespace Tovik
