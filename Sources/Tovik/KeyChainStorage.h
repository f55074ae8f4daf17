// A key storage whose blob is one keychain item: the generic password with
// account `key` and the default service (KeyChain::defaultService()), no
// access group. Writes happen at once (no delay).
//
// Keychain failures are logged (source "KeyChainStorage") and swallowed: the
// storage keeps what it holds in memory.
#pragma once

#include <memory>
#include <string>

#include "Tovik/KeyStorage.h"

namespace Tovik {

class KeyChainStorage : public KeyStorageBase {
public:
    /// The storage of the item `key`, loaded from it.
    static std::shared_ptr<KeyChainStorage> create(std::string key) { return make<KeyChainStorage>(std::move(key)); }

    const std::string& key() const { return key_; }

protected:
    /// Queue "KeychainStorage:" + key, no write delay.
    explicit KeyChainStorage(std::string key);

    /// Logs "Load from <key>" at debug; the item's bytes.
    std::optional<Data> loadData() override;
    /// Logs "Store to <key>" at debug and saves the item; "Failed to store
    /// <key>" at error when that fails.
    void storeData(const Data& blob) override;
    /// Deletes the item; "Failed to delete <key>" at error when that fails
    /// (also when there was none).
    void deleteData() override;

private:
    const std::string key_;
};

}  // namespace Tovik
