// Fuzzes opening a keychain file: the input is the whole database file of a
// keychain named by its path ("<scratch>/fuzz.keychain-db"), searched for
// every generic password and every certificate, the trust settings of those
// certificates read in each domain, and, when it opens as a keychain, written
// to. No file may crash or hang the caller: every call answers with a
// keychain status, and a search that succeeds returns one attribute
// dictionary per item.
#include <unistd.h>

#include <cstddef>
#include <cstdint>
#include <filesystem>
#include <string>
#include <vector>

#include "Fuzz/FuzzSupport.h"
#include "Security/KeychainDatabase.h"
#include "Security/SecBase.h"
#include "Security/SecCertificate.h"
#include "Security/SecItem.h"

namespace {

using namespace Security;
using Foundation::PropertyList;

/// What a keychain call may answer for a file it cannot use.
bool isKeychainStatus(OSStatus status) {
    switch (status) {
    case errSecSuccess:
    case errSecItemNotFound:
    case errSecDuplicateItem:
    case errSecInvalidKeychain:
    case errSecWrongSecVersion:
    case errSecReadOnly:  // an SQLite file format this SQLite may only read
    case errSecDataTooLarge:
    case errSecIO:
        return true;
    default:
        return false;
    }
}

template <class T>
bool holds(const CFDictionary& attributes, const char* key) {
    auto entry = attributes.find(key);
    return entry != attributes.end() && entry->second.get<T>() != nullptr;
}

/// Reads the certificates of file and their trust settings (through the
/// keychain's own reads: the trust-settings calls only use the domains' files).
void readCertificates(const std::string& file) {
    const CFDictionary search{{kSecClass, kSecClassCertificate},
                              {kSecMatchSearchList, PropertyList::Array{file}},
                              {kSecMatchLimit, kSecMatchLimitAll},
                              {kSecReturnAttributes, true},
                              {kSecReturnRef, true}};
    CFTypeRef found;
    const OSStatus status = SecItemCopyMatching(search, &found);
    FUZZ_CHECK(isKeychainStatus(status));
    if (status != errSecSuccess) return;
    const auto* items = found ? found->get<PropertyList::Array>() : nullptr;
    FUZZ_CHECK(items && !items->empty());
    for (const auto& item : *items) {
        const auto* attributes = item.get<CFDictionary>();
        FUZZ_CHECK(attributes && holds<std::string>(*attributes, kSecClass) &&
                   holds<PropertyList::Data>(*attributes, kSecValueRef));
        const auto certificate = SecCertificateCreateWithData(*attributes->at(kSecValueRef).get<PropertyList::Data>());
        if (!certificate) continue;
        for (int64_t domain = 0; domain < 3; ++domain) {
            PropertyList::Array settings;
            const OSStatus read = detail::KeychainDatabase::copyTrustSettings(
                file, detail::MissingKeychain::isError, domain, detail::certificateItemOf(*certificate).hash,
                settings);
            FUZZ_CHECK(isKeychainStatus(read) || read == errSecInvalidTrustSettings);
            for (const auto& entry : settings) FUZZ_CHECK(entry.is<CFDictionary>());
        }
    }
    std::vector<std::vector<uint8_t>> trusted;
    FUZZ_CHECK(isKeychainStatus(detail::KeychainDatabase::certificatesWithTrustSettings(
        file, detail::MissingKeychain::isError, 1, trusted)));
}

bool isItem(const PropertyList& value) {
    const auto* attributes = value.get<CFDictionary>();
    return attributes && holds<std::string>(*attributes, kSecClass) &&
           holds<std::string>(*attributes, kSecAttrService) && holds<std::string>(*attributes, kSecAttrAccount) &&
           holds<PropertyList::Data>(*attributes, kSecValueData) &&
           holds<PropertyList::Date>(*attributes, kSecAttrModificationDate);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    static const std::string file = (FuzzSupport::scratchFolder() / "fuzz.keychain-db").string();
    // A new file every time, without the last input's WAL: the keychain calls
    // see another file at the path and open it afresh.
    for (const char* suffix : {"", "-wal", "-shm", "-journal"}) ::unlink((file + suffix).c_str());
    FuzzSupport::writeFile(file, FuzzSupport::bytesOf(data, size), 0600);

    const CFDictionary search{{kSecClass, kSecClassGenericPassword},
                              {kSecMatchSearchList, PropertyList::Array{file}},
                              {kSecMatchLimit, kSecMatchLimitAll},
                              {kSecReturnAttributes, true},
                              {kSecReturnData, true}};
    CFTypeRef found;
    const OSStatus status = SecItemCopyMatching(search, &found);
    FUZZ_CHECK(isKeychainStatus(status));
    if (status == errSecSuccess) {
        const auto* items = found ? found->get<PropertyList::Array>() : nullptr;
        FUZZ_CHECK(items && !items->empty());
        for (const auto& item : *items) FUZZ_CHECK(isItem(item));
    }
    if (status != errSecSuccess && status != errSecItemNotFound) return 0;
    readCertificates(file);

    const CFDictionary item{{kSecClass, kSecClassGenericPassword},
                            {kSecAttrService, "fuzz"},
                            {kSecAttrAccount, "fuzz"},
                            {kSecUseKeychain, file},
                            {kSecValueData, PropertyList::Data{1, 2, 3}}};
    FUZZ_CHECK(isKeychainStatus(SecItemAdd(item, nullptr)));
    const CFDictionary named{{kSecClass, kSecClassGenericPassword},
                             {kSecAttrService, "fuzz"},
                             {kSecMatchSearchList, PropertyList::Array{file}}};
    FUZZ_CHECK(isKeychainStatus(SecItemUpdate(named, {{kSecAttrLabel, "fuzz"}})));
    FUZZ_CHECK(isKeychainStatus(SecItemDelete(named)));
    return 0;
}
