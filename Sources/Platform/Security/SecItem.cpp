#include "Security/SecItem.h"

#include <chrono>
#include <cstdint>
#include <filesystem>
#include <string>
#include <vector>

#include "Security/KeychainDatabase.h"
#include "Security/SecCertificate.h"
#include "Security/SecKeychain.h"

namespace Security {

namespace {

namespace fs = std::filesystem;
using detail::GenericPassword;
using detail::KeychainDatabase;
using detail::MissingKeychain;
using Foundation::PropertyList;

enum class Call { add, copyMatching, update, remove, attributesToUpdate };

// What a dictionary says, once checked.
struct Query {
    bool certificate = false;  // else a generic password
    detail::GenericPasswordFilter attributes;
    std::optional<PropertyList::Data> data;
    std::optional<PropertyList::Data> valueRef;  // a certificate's DER
    bool returnData = false;
    bool returnAttributes = false;
    bool returnRef = false;
    size_t limit = 1;  // 0: all
    bool dataProtection = false;
    std::optional<std::string> keychain;
    std::optional<std::vector<std::string>> searchList;

    bool returnsSomething() const { return returnData || returnAttributes || returnRef; }
};

bool takes(Call call, std::initializer_list<Call> calls) {
    for (Call each : calls)
        if (each == call) return true;
    return false;
}

OSStatus setString(const PropertyList& value, std::optional<std::string>& field) {
    const auto* text = value.get<std::string>();
    if (!text) return errSecParam;
    field = *text;
    return errSecSuccess;
}

OSStatus setBool(const PropertyList& value, bool& field) {
    const auto* flag = value.get<bool>();
    if (!flag) return errSecParam;
    field = *flag;
    return errSecSuccess;
}

OSStatus setLimit(const PropertyList& value, size_t& limit) {
    if (const auto* name = value.get<std::string>()) {
        if (*name == kSecMatchLimitOne) limit = 1;
        else if (*name == kSecMatchLimitAll) limit = 0;
        else return errSecParam;
    } else if (const auto* number = value.get<int64_t>(); number && *number >= 1) {
        limit = static_cast<size_t>(*number);
    } else {
        return errSecParam;
    }
    return errSecSuccess;
}

OSStatus setSearchList(const PropertyList& value, std::optional<std::vector<std::string>>& list) {
    const auto* array = value.get<PropertyList::Array>();
    if (!array) return errSecParam;
    list.emplace();
    for (const auto& entry : *array) {
        const auto* path = entry.get<std::string>();
        if (!path || path->empty()) return errSecParam;
        list->push_back(*path);
    }
    return errSecSuccess;
}

OSStatus checkClass(const PropertyList& value, bool& certificate) {
    const auto* name = value.get<std::string>();
    if (!name) return errSecParam;
    certificate = *name == kSecClassCertificate;
    if (*name == kSecClassGenericPassword || certificate) return errSecSuccess;
    for (const char* other : {kSecClassInternetPassword, kSecClassKey, kSecClassIdentity})
        if (*name == other) return errSecUnimplemented;
    return errSecNoSuchClass;
}

OSStatus parse(const CFDictionary& dictionary, Call call, Query& query) {
    using enum Call;
    const auto itemClass = dictionary.find(kSecClass);
    const bool hasClass = itemClass != dictionary.end();
    if (hasClass) {
        if (call == attributesToUpdate) return errSecParam;
        if (OSStatus status = checkClass(itemClass->second, query.certificate); status != errSecSuccess)
            return status;
    }
    const bool password = !query.certificate;
    for (const auto& [key, value] : dictionary) {
        OSStatus status = errSecParam;
        if (key == kSecClass) {
            status = errSecSuccess;
        } else if (key == kSecAttrService) {
            if (password) status = setString(value, query.attributes.service);
        } else if (key == kSecAttrAccount) {
            if (password) status = setString(value, query.attributes.account);
        } else if (key == kSecAttrAccessGroup) {
            status = setString(value, query.attributes.accessGroup);
        } else if (key == kSecAttrLabel) {
            status = setString(value, query.attributes.label);
        } else if (key == kSecValueData) {
            if (const auto* data = value.get<PropertyList::Data>();
                data && password && takes(call, {add, attributesToUpdate})) {
                query.data = *data;
                status = errSecSuccess;
            }
        } else if (key == kSecValueRef) {
            if (const auto* data = value.get<PropertyList::Data>();
                data && query.certificate && takes(call, {add, copyMatching, remove})) {
                query.valueRef = *data;
                status = errSecSuccess;
            }
        } else if (key == kSecReturnData) {
            if (takes(call, {add, copyMatching})) status = setBool(value, query.returnData);
        } else if (key == kSecReturnAttributes) {
            if (takes(call, {add, copyMatching})) status = setBool(value, query.returnAttributes);
        } else if (key == kSecReturnRef) {
            if (query.certificate && takes(call, {add, copyMatching})) status = setBool(value, query.returnRef);
        } else if (key == kSecMatchLimit) {
            if (takes(call, {copyMatching, update, remove})) status = setLimit(value, query.limit);
        } else if (key == kSecUseDataProtectionKeychain) {
            if (call != attributesToUpdate) status = setBool(value, query.dataProtection);
        } else if (key == kSecUseKeychain) {
            if (call == add && value.get<std::string>() && !value.get<std::string>()->empty())
                status = setString(value, query.keychain);
        } else if (key == kSecMatchSearchList) {
            if (takes(call, {copyMatching, update, remove})) status = setSearchList(value, query.searchList);
        }
        if (status != errSecSuccess) return status;
    }
    if (call != attributesToUpdate && !hasClass) return errSecParam;
    if (query.dataProtection && (query.keychain || query.searchList)) return errSecParam;
    return errSecSuccess;
}

struct Keychain {
    const fs::path* file;  // into SecKeychain's paths or the query's search list
    MissingKeychain missing;
};

/// The keychains a search, update or delete goes through, in order.
OSStatus searchedKeychains(const Query& query, const std::vector<fs::path>& searchList,
                           std::vector<Keychain>& keychains) {
    if (query.dataProtection) {
        const auto& file = SecKeychain::dataProtectionKeychainPath();
        if (!file) return errSecNotAvailable;
        keychains.push_back({&*file, MissingKeychain::isEmpty});
        return errSecSuccess;
    }
    if (query.searchList) {
        for (const auto& path : searchList) {
            keychains.push_back({&path, SecKeychain::isStandardKeychain(path) ? MissingKeychain::isEmpty
                                                                               : MissingKeychain::isError});
        }
        return errSecSuccess;
    }
    // The user domain's search list, then the system domain's: the login
    // keychain (none without a home folder), then the system keychain.
    const auto& login = SecKeychain::loginKeychainPath();
    if (login) keychains.push_back({&*login, MissingKeychain::isEmpty});
    if (!login || *login != SecKeychain::systemKeychainPath())
        keychains.push_back({&SecKeychain::systemKeychainPath(), MissingKeychain::isEmpty});
    return errSecSuccess;
}

/// The keychain an item is added to.
OSStatus addedKeychain(const Query& query, const std::optional<fs::path>& named, Keychain& keychain) {
    const std::optional<fs::path>& file = query.dataProtection ? SecKeychain::dataProtectionKeychainPath()
                                          : named                ? named
                                                                 : SecKeychain::defaultKeychainPath();
    if (!file) return errSecNotAvailable;
    keychain = {&*file, SecKeychain::isStandardKeychain(*file) ? MissingKeychain::isCreated : MissingKeychain::isError};
    return errSecSuccess;
}

PropertyList::Date dateOf(int64_t nanoseconds) {
    return PropertyList::Date(
        std::chrono::duration_cast<PropertyList::Date::duration>(std::chrono::nanoseconds(nanoseconds)));
}

PropertyList resultOf(GenericPassword& item, const Query& query) {
    PropertyList::Data data = item.data ? std::move(*item.data) : PropertyList::Data{};
    if (!query.returnAttributes) return PropertyList(std::move(data));
    CFDictionary attributes{
        {kSecClass, kSecClassGenericPassword},
        {kSecAttrService, std::move(item.service)},
        {kSecAttrAccount, std::move(item.account)},
        {kSecAttrCreationDate, dateOf(item.created)},
        {kSecAttrModificationDate, dateOf(item.modified)},
    };
    if (!item.accessGroup.empty()) attributes.emplace(kSecAttrAccessGroup, std::move(item.accessGroup));
    if (item.label) attributes.emplace(kSecAttrLabel, std::move(*item.label));
    if (query.returnData) attributes.emplace(kSecValueData, std::move(data));
    return PropertyList(std::move(attributes));
}

/// The result of a search that found items (limit as asked); takes their values.
CFTypeRef resultOf(std::vector<GenericPassword>& items, const Query& query) {
    if (!query.returnsSomething()) return std::nullopt;
    if (query.limit == 1) return resultOf(items.front(), query);
    PropertyList::Array all;
    all.reserve(items.size());
    for (auto& item : items) all.push_back(resultOf(item, query));
    return PropertyList(std::move(all));
}

PropertyList resultOf(detail::CertificateItem& item, const Query& query) {
    if (!query.returnAttributes) return PropertyList(std::move(item.data));  // data or ref: the DER
    CFDictionary attributes{
        {kSecClass, kSecClassCertificate},
        {kSecAttrCertificateType, item.type},
        {kSecAttrIssuer, std::move(item.issuer)},
        {kSecAttrSerialNumber, std::move(item.serialNumber)},
        {kSecAttrSubject, std::move(item.subject)},
        {kSecAttrCreationDate, dateOf(item.created)},
        {kSecAttrModificationDate, dateOf(item.modified)},
    };
    if (!item.accessGroup.empty()) attributes.emplace(kSecAttrAccessGroup, std::move(item.accessGroup));
    if (item.label) attributes.emplace(kSecAttrLabel, std::move(*item.label));
    if (query.returnData) attributes.emplace(kSecValueData, item.data);
    if (query.returnRef) attributes.emplace(kSecValueRef, item.data);
    return PropertyList(std::move(attributes));
}

/// The result of a search for certificates that found some.
CFTypeRef resultOf(std::vector<detail::CertificateItem>& items, const Query& query) {
    if (!query.returnsSomething()) return std::nullopt;
    if (query.limit == 1) return resultOf(items.front(), query);
    PropertyList::Array all;
    all.reserve(items.size());
    for (auto& item : items) all.push_back(resultOf(item, query));
    return PropertyList(std::move(all));
}

/// What a certificate query matches: its label, access group and kSecValueRef.
/// errSecParam when kSecValueRef is no certificate.
OSStatus certificateFilterOf(const Query& query, detail::CertificateFilter& filter) {
    filter.label = query.attributes.label;
    filter.accessGroup = query.attributes.accessGroup;
    if (query.valueRef) {
        const auto certificate = SecCertificateCreateWithData(*query.valueRef);
        if (!certificate) return errSecParam;
        filter.hash = detail::certificateItemOf(*certificate).hash;
    }
    return errSecSuccess;
}

OSStatus addCertificate(const Query& query, const Keychain& keychain, CFTypeRef* result) {
    const auto certificate = query.valueRef ? SecCertificateCreateWithData(*query.valueRef) : nullptr;
    if (!certificate) return errSecParam;
    detail::CertificateItem item = detail::certificateItemOf(*certificate);
    item.accessGroup = query.attributes.accessGroup.value_or("");
    item.label = query.attributes.label ? query.attributes.label : SecCertificateCopySubjectSummary(certificate);
    if (OSStatus status = KeychainDatabase::addCertificate(*keychain.file, keychain.missing, item);
        status != errSecSuccess)
        return status;
    if (result == nullptr || !query.returnsSomething()) return errSecSuccess;
    std::vector<detail::CertificateItem> added;
    const detail::CertificateFilter identity{std::nullopt, item.accessGroup, item.hash};
    OSStatus status = KeychainDatabase::findCertificates(*keychain.file, keychain.missing, identity, 1, added);
    if (status == errSecSuccess && added.empty()) status = errSecItemNotFound;  // deleted meanwhile
    if (status == errSecSuccess) *result = resultOf(added, query);
    return status;
}

OSStatus copyCertificates(const Query& query, const std::vector<Keychain>& keychains, CFTypeRef* result) {
    detail::CertificateFilter filter;
    if (OSStatus status = certificateFilterOf(query, filter); status != errSecSuccess) return status;
    std::vector<detail::CertificateItem> found;
    for (const auto& keychain : keychains) {
        const size_t wanted = query.limit == 0 ? 0 : query.limit - found.size();
        if (OSStatus status =
                KeychainDatabase::findCertificates(*keychain.file, keychain.missing, filter, wanted, found);
            status != errSecSuccess)
            return status;
        if (query.limit != 0 && found.size() >= query.limit) break;
    }
    if (found.empty()) return errSecItemNotFound;
    if (result != nullptr) *result = resultOf(found, query);
    return errSecSuccess;
}

OSStatus deleteCertificates(const Query& query, const std::vector<Keychain>& keychains) {
    detail::CertificateFilter filter;
    if (OSStatus status = certificateFilterOf(query, filter); status != errSecSuccess) return status;
    int64_t removed = 0;
    for (const auto& keychain : keychains) {
        if (OSStatus status = KeychainDatabase::removeCertificates(*keychain.file, keychain.missing, filter, removed);
            status != errSecSuccess)
            return status;
    }
    return removed > 0 ? errSecSuccess : errSecItemNotFound;
}

/// The query's search list as paths.
std::vector<fs::path> searchListOf(const Query& query) {
    std::vector<fs::path> paths;
    if (query.searchList) paths.assign(query.searchList->begin(), query.searchList->end());
    return paths;
}

}  // namespace

OSStatus SecItemAdd(const CFDictionary& attributes, CFTypeRef* result) {
    Query query;
    Keychain keychain;
    if (OSStatus status = parse(attributes, Call::add, query); status != errSecSuccess) return status;
    const std::optional<fs::path> named = query.keychain ? std::optional<fs::path>(*query.keychain) : std::nullopt;
    if (OSStatus status = addedKeychain(query, named, keychain); status != errSecSuccess) return status;
    if (query.certificate) return addCertificate(query, keychain, result);
    GenericPassword item;
    item.service = query.attributes.service.value_or("");
    item.account = query.attributes.account.value_or("");
    item.accessGroup = query.attributes.accessGroup.value_or("");
    item.label = query.attributes.label;
    item.data = query.data;
    if (OSStatus status = KeychainDatabase::add(*keychain.file, keychain.missing, item); status != errSecSuccess)
        return status;
    if (result == nullptr || !query.returnsSomething()) return errSecSuccess;
    // The stored item, with the times the keychain gave it.
    std::vector<GenericPassword> added;
    const detail::GenericPasswordFilter identity{item.service, item.account, item.accessGroup, std::nullopt};
    OSStatus status = KeychainDatabase::find(*keychain.file, keychain.missing, identity, 1, true, added);
    if (status == errSecSuccess && added.empty()) status = errSecItemNotFound;  // deleted meanwhile
    if (status == errSecSuccess) *result = resultOf(added, query);
    return status;
}

OSStatus SecItemCopyMatching(const CFDictionary& dictionary, CFTypeRef* result) {
    Query query;
    std::vector<Keychain> keychains;
    if (OSStatus status = parse(dictionary, Call::copyMatching, query); status != errSecSuccess) return status;
    const std::vector<fs::path> searchList = searchListOf(query);
    if (OSStatus status = searchedKeychains(query, searchList, keychains); status != errSecSuccess) return status;
    if (query.certificate) return copyCertificates(query, keychains, result);
    std::vector<GenericPassword> found;
    for (const auto& keychain : keychains) {
        const size_t wanted = query.limit == 0 ? 0 : query.limit - found.size();
        if (OSStatus status = KeychainDatabase::find(*keychain.file, keychain.missing, query.attributes, wanted,
                                                     query.returnAttributes, found);
            status != errSecSuccess)
            return status;
        if (query.limit != 0 && found.size() >= query.limit) break;
    }
    if (found.empty()) return errSecItemNotFound;
    if (result != nullptr) *result = resultOf(found, query);
    return errSecSuccess;
}

OSStatus SecItemUpdate(const CFDictionary& dictionary, const CFDictionary& attributesToUpdate) {
    Query query, changes;
    std::vector<Keychain> keychains;
    if (OSStatus status = parse(dictionary, Call::update, query); status != errSecSuccess) return status;
    if (query.certificate) return errSecUnimplemented;
    if (OSStatus status = parse(attributesToUpdate, Call::attributesToUpdate, changes); status != errSecSuccess)
        return status;
    const detail::GenericPasswordChanges update{changes.attributes.service, changes.attributes.account,
                                                changes.attributes.accessGroup, changes.attributes.label,
                                                changes.data};
    if (update.empty()) return errSecParam;
    const std::vector<fs::path> searchList = searchListOf(query);
    if (OSStatus status = searchedKeychains(query, searchList, keychains); status != errSecSuccess) return status;
    int64_t updated = 0;
    for (const auto& keychain : keychains) {
        if (OSStatus status =
                KeychainDatabase::update(*keychain.file, keychain.missing, query.attributes, update, updated);
            status != errSecSuccess)
            return status;
    }
    return updated > 0 ? errSecSuccess : errSecItemNotFound;
}

OSStatus SecItemDelete(const CFDictionary& dictionary) {
    Query query;
    std::vector<Keychain> keychains;
    if (OSStatus status = parse(dictionary, Call::remove, query); status != errSecSuccess) return status;
    const std::vector<fs::path> searchList = searchListOf(query);
    if (OSStatus status = searchedKeychains(query, searchList, keychains); status != errSecSuccess) return status;
    if (query.certificate) return deleteCertificates(query, keychains);
    int64_t removed = 0;
    for (const auto& keychain : keychains) {
        if (OSStatus status = KeychainDatabase::remove(*keychain.file, keychain.missing, query.attributes, removed);
            status != errSecSuccess)
            return status;
    }
    return removed > 0 ? errSecSuccess : errSecItemNotFound;
}

}  // namespace Security
