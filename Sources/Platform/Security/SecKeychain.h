// Keychain files and the keychain search lists of the preferences domains.
//
// A keychain is an SQLite database file (see KeychainDatabase.h). The files:
//
//   system keychain           /Library/Keychains/System.keychain
//   login keychain            <home>/Library/Keychains/login.keychain-db
//   data-protection keychain  <home>/Library/Keychains/keychain-2.db
//
// <home> is the home folder of the effective user as the user database
// (getpwuid) gives it, never $HOME; it is looked up once per effective user.
// The data-protection keychain holds the items of keychain access groups
// (kSecUseDataProtectionKeychain); it is not on any search list.
//
// As for a daemon in the system session, root's login keychain is the system
// keychain: for euid 0 the user domain's list is the system keychain, which
// is also where items are added by default.
//
// A file is created on first use, by the first item added to it, with mode
// 0600 and owned by the effective user (root for the system keychain); its
// folders are made as needed ("/Library/Keychains" 0755, folders below a
// home 0700). Until then searching it finds nothing.
#pragma once

#include <sys/types.h>

#include <cstdint>
#include <filesystem>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "Security/SecBase.h"

namespace Security {

enum SecPreferencesDomain : int32_t {
    kSecPreferencesDomainUser = 0,
    kSecPreferencesDomainSystem = 1,
    kSecPreferencesDomainCommon = 2,
    kSecPreferencesDomainDynamic = 3,
};

/// One keychain file; the file need not exist. Immutable.
///
/// In query dictionaries (SecItem.h) a keychain stands for itself by its
/// path, as a string: kSecUseKeychain = path().string(), kSecMatchSearchList =
/// an array of such strings.
class SecKeychain {
public:
    explicit SecKeychain(std::filesystem::path path) : path_(std::move(path)) {}
    const std::filesystem::path& path() const { return path_; }

    // The files above; the references stay valid until the process ends.
    static const std::filesystem::path& systemKeychainPath();
    /// The effective user's login keychain; nothing when the user database
    /// has no home folder for that user. For root: systemKeychainPath().
    static const std::optional<std::filesystem::path>& loginKeychainPath();
    /// Nothing when the effective user has no home folder.
    static const std::optional<std::filesystem::path>& dataProtectionKeychainPath();
    /// Where items go when neither a keychain nor the data-protection keychain
    /// is named: the login keychain (the system keychain for root).
    static const std::optional<std::filesystem::path>& defaultKeychainPath() { return loginKeychainPath(); }
    /// The folder mode a keychain's missing folders are made with: 0755 for
    /// the system keychain's folder, 0700 otherwise.
    static mode_t folderMode(const std::filesystem::path& keychain);
    /// Whether path is one of the files above (those are made on first use;
    /// any other keychain must exist).
    static bool isStandardKeychain(const std::filesystem::path& path);

private:
    std::filesystem::path path_;
};

/// Shared: copies refer to the same keychain. Null means none.
using SecKeychainRef = std::shared_ptr<const SecKeychain>;

/// The domain's keychain search list: user — the login keychain; system — the
/// system keychain; common and dynamic — empty. errSecInvalidPrefsDomain for
/// another value, errSecNotAvailable for the user domain of a user without a
/// home folder, errSecParam for a null searchList. Thread-safe.
OSStatus SecKeychainCopyDomainSearchList(SecPreferencesDomain domain, std::vector<SecKeychainRef>* searchList);

/// A reference to the keychain file at pathName, which need not exist yet
/// (as the platform's, it is only checked when used). errSecParam for an
/// empty path or a null keychain.
OSStatus SecKeychainOpen(const std::string& pathName, SecKeychainRef* keychain);

/// The keychain items are added to by default (defaultKeychainPath()).
/// errSecNotAvailable when the effective user has no home folder,
/// errSecParam for a null keychain.
OSStatus SecKeychainCopyDefault(SecKeychainRef* keychain);

}  // namespace Security
