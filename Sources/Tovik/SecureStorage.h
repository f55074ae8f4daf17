// A key storage whose blob lives in a file sealed with AES-256-GCM. The file
// is the sealed box's combined form:
//
//   nonce (12 bytes) | ciphertext (as long as the blob) | tag (16 bytes)
//
// with no header and no additional data. The key is 32 random bytes kept in
// the keychain by storageKey. Every write makes a new key and a new nonce,
// writes the sealed bytes to a temporary file beside the file
// (temporaryURL()) and flushes it, stores the key, and only then renames the
// temporary file over the file and flushes the folder: the file changes only
// after its key is stored. A file whose key is lost or replaced cannot be
// opened: the storage then starts empty, and its next write replaces the
// file. A crash between storing the key and the rename loses the contents
// that way.
//
// One storage per file at a time. Threads and write-behind as for
// KeyStorageBase. Logs carry the source "SecureStorage".
#pragma once

#include <filesystem>
#include <memory>

#include "Tovik/KeyChainDataProtocol.h"
#include "Tovik/KeyStorage.h"

namespace Tovik {

class SecureStorage : public KeyStorageBase {
public:
    /// The storage of the file url, sealed under the key storageKey keeps,
    /// written writeDelay seconds after a change. When storageKey holds no
    /// key, logs "Storage Key doesn't exist." at debug and removes the file
    /// (it could never be opened). Then loads the file: a missing file or
    /// key leaves the storage empty, and so does one that does not open
    /// (logged at error by the load).
    static std::shared_ptr<SecureStorage> create(std::shared_ptr<KeyChainDataProtocol> storageKey,
                                                 std::filesystem::path url, double writeDelay) {
        return make<SecureStorage>(std::move(storageKey), std::move(url), writeDelay);
    }

    const std::filesystem::path& url() const { return url_; }
    /// Where a write puts the sealed bytes before renaming them over url():
    /// url() + ".tmp". At most one is ever left (by a crash), and the next
    /// write or delete removes it.
    const std::filesystem::path& temporaryURL() const { return temporaryURL_; }

protected:
    SecureStorage(std::shared_ptr<KeyChainDataProtocol> storageKey, std::filesystem::path url, double writeDelay);

    /// Logs "Load from <path>" at debug; absent, with a warning, when there
    /// is no file ("File <path> doesn't exist") or no key ("No secure key
    /// found"). Throws when the file cannot be read or opened.
    std::optional<Data> loadData() override;
    /// Logs "Write to <path>" at debug and writes blob sealed under a new
    /// key (see the banner). Throws "Failed to store the key for <path>"
    /// when the keychain refuses the key (the file stays as it was), or the
    /// error of the sealing or the write.
    void storeData(const Data& blob) override;
    /// Deletes the key (when there is one) and removes the file.
    void deleteData() override;

private:
    void removeFiles() const;

    const std::shared_ptr<KeyChainDataProtocol> key_;
    const std::filesystem::path url_;
    const std::filesystem::path temporaryURL_;
};

}  // namespace Tovik
