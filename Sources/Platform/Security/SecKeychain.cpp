#include "Security/SecKeychain.h"

#include <pwd.h>
#include <unistd.h>

#include <map>
#include <mutex>

namespace Security {

namespace {

const std::filesystem::path systemKeychainFile = "/Library/Keychains/System.keychain";

struct UsersKeychains {
    std::optional<std::filesystem::path> login;
    std::optional<std::filesystem::path> dataProtection;
};

// The effective user's keychain files, from its home folder in the user
// database, looked up once per effective user (a keychain call must not read
// the user database each time). The entries are never removed, so references
// to them stay valid.
const UsersKeychains& effectiveUsersKeychains() {
    static std::mutex mutex;
    static std::map<uid_t, UsersKeychains> keychains;  // guarded by mutex
    const uid_t user = ::geteuid();
    std::lock_guard guard(mutex);
    if (auto known = keychains.find(user); known != keychains.end()) return known->second;
    UsersKeychains files;
    long size = ::sysconf(_SC_GETPW_R_SIZE_MAX);
    std::string buffer(size > 0 ? static_cast<size_t>(size) : 16384, '\0');
    passwd entry{};
    passwd* found = nullptr;
    if (::getpwuid_r(user, &entry, buffer.data(), buffer.size(), &found) == 0 && found != nullptr &&
        found->pw_dir != nullptr && found->pw_dir[0] == '/') {
        const auto folder = std::filesystem::path(found->pw_dir) / "Library" / "Keychains";
        files.login = user == 0 ? systemKeychainFile : folder / "login.keychain-db";
        files.dataProtection = folder / "keychain-2.db";
    } else if (user == 0) {
        files.login = systemKeychainFile;
    }
    return keychains.emplace(user, std::move(files)).first->second;
}

}  // namespace

const std::filesystem::path& SecKeychain::systemKeychainPath() { return systemKeychainFile; }

const std::optional<std::filesystem::path>& SecKeychain::loginKeychainPath() {
    return effectiveUsersKeychains().login;
}

const std::optional<std::filesystem::path>& SecKeychain::dataProtectionKeychainPath() {
    return effectiveUsersKeychains().dataProtection;
}

mode_t SecKeychain::folderMode(const std::filesystem::path& keychain) {
    return keychain.parent_path() == systemKeychainFile.parent_path() ? 0755 : 0700;
}

bool SecKeychain::isStandardKeychain(const std::filesystem::path& path) {
    const UsersKeychains& files = effectiveUsersKeychains();
    return path == systemKeychainFile || path == files.login || path == files.dataProtection;
}

OSStatus SecKeychainCopyDomainSearchList(SecPreferencesDomain domain, std::vector<SecKeychainRef>* searchList) {
    if (searchList == nullptr) return errSecParam;
    std::vector<SecKeychainRef> list;
    switch (domain) {
    case kSecPreferencesDomainUser: {
        const auto& login = SecKeychain::loginKeychainPath();
        if (!login) return errSecNotAvailable;
        list.push_back(std::make_shared<const SecKeychain>(*login));
        break;
    }
    case kSecPreferencesDomainSystem:
        list.push_back(std::make_shared<const SecKeychain>(systemKeychainFile));
        break;
    case kSecPreferencesDomainCommon:
    case kSecPreferencesDomainDynamic:
        break;
    default:
        return errSecInvalidPrefsDomain;
    }
    *searchList = std::move(list);
    return errSecSuccess;
}

OSStatus SecKeychainOpen(const std::string& pathName, SecKeychainRef* keychain) {
    if (pathName.empty() || keychain == nullptr) return errSecParam;
    *keychain = std::make_shared<const SecKeychain>(pathName);
    return errSecSuccess;
}

OSStatus SecKeychainCopyDefault(SecKeychainRef* keychain) {
    if (keychain == nullptr) return errSecParam;
    const auto& path = SecKeychain::defaultKeychainPath();
    if (!path) return errSecNotAvailable;
    *keychain = std::make_shared<const SecKeychain>(*path);
    return errSecSuccess;
}

}  // namespace Security
