// KeyChainData: one byte value in the keychain (the generic password with
// account key(), the default service, no access group) with an in-memory
// copy that the last load or store set.
//
// When a store fails because no keychain is available (errSecNotAvailable),
// keyChainNotAvailableNotification is posted on the default notification
// center with this object as the sender, on the storing thread.
//
// Thread-safe: calls on one object take turns (the keychain call included);
// the notification is posted after the object's lock is released.
#pragma once

#include <optional>
#include <string>

#include "Tovik/KeyChainDataProtocol.h"
#include "Tovik/UnfairLock.h"

namespace Tovik {

class KeyChainData : public KeyChainDataProtocol {
public:
    static constexpr const char* keyChainNotAvailableNotification = "KeyChainNotAvailable";

    /// No copy yet.
    explicit KeyChainData(std::string key) : key_(std::move(key)) {}
    KeyChainData(const KeyChainData&) = delete;
    KeyChainData& operator=(const KeyChainData&) = delete;

    std::string key() const override;
    void setKey(std::string key) override;
    /// With an empty key: the copy, without reading.
    std::optional<Data> load() override;
    std::optional<Data> get() override;
    /// With an empty key only the copy changes (false). Failures are logged
    /// at error, "Failed to store <key>: status <status>" or "Failed to
    /// delete <key>: status <status>" (deleting a missing item fails too).
    bool store(std::optional<Data> value) override;
    std::optional<std::string> getString() override;
    bool storeString(std::optional<std::string> value) override;

private:
    std::optional<Data> loadLocked();  // lock_ held

    mutable UnfairLock lock_;
    std::string key_;          // guarded by lock_
    std::optional<Data> data_;  // guarded by lock_
};

}  // namespace Tovik
