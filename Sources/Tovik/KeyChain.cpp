#include "Tovik/KeyChain.h"

#include <errno.h>

#include <filesystem>
#include <fstream>
#include <iterator>

#include "Dispatch/DispatchQueue.h"
#include "Foundation/PropertyList.h"
#include "Tovik/Logger/Logger.h"

namespace Tovik {

using namespace Security;

namespace {

Dispatch::DispatchQueue completionQueue() { return Dispatch::DispatchQueue::global(Dispatch::DispatchQoS::userInitiated); }

// CFBundleIdentifier of "<bundle>/Contents/Info.plist" when the executable is
// "<bundle>/Contents/MacOS/<name>".
std::optional<std::string> enclosingBundleIdentifier(const std::filesystem::path& executable) {
    const auto macOS = executable.parent_path();
    if (macOS.filename() != "MacOS" || macOS.parent_path().filename() != "Contents") return std::nullopt;
    std::ifstream file(macOS.parent_path() / "Info.plist", std::ios::binary);
    if (!file) return std::nullopt;
    const std::string bytes((std::istreambuf_iterator<char>(file)), std::istreambuf_iterator<char>());
    const auto info = Foundation::PropertyList::fromData(bytes);
    const auto* dictionary = info ? info->get<Foundation::PropertyList::Dictionary>() : nullptr;
    if (!dictionary) return std::nullopt;
    auto identifier = dictionary->find("CFBundleIdentifier");
    if (identifier == dictionary->end() || !identifier->second.get<std::string>() ||
        identifier->second.get<std::string>()->empty())
        return std::nullopt;
    return *identifier->second.get<std::string>();
}

}  // namespace

const std::string& KeyChain::defaultService() {
    static const std::string service = [] {
        std::error_code error;
        const auto executable = std::filesystem::read_symlink("/proc/self/exe", error);
        if (!error) {
            if (auto identifier = enclosingBundleIdentifier(executable)) return *identifier;
            if (!executable.filename().empty()) return executable.filename().string();
        }
        return std::string(program_invocation_short_name);
    }();
    return service;
}

CFDictionary KeyChain::baseQuery(const std::string& key, const std::optional<std::string>& service,
                                 const std::optional<std::string>& accessGroup) {
    CFDictionary query;
    query.emplace(kSecClass, kSecClassGenericPassword);
    query.emplace(kSecAttrService, service ? *service : defaultService());
    query.emplace(kSecAttrAccount, key);
    if (accessGroup) {
        query.emplace(kSecAttrAccessGroup, *accessGroup);
        query.emplace(kSecUseDataProtectionKeychain, true);
    }
    return query;
}

std::string KeyChain::reason(OSStatus status) {
    auto message = SecCopyErrorMessageString(status, nullptr);
    return message ? *message : std::to_string(status);
}

std::optional<KeyChain::Data> KeyChain::load(const std::string& key, const std::optional<std::string>& service,
                                             const std::optional<std::string>& accessGroup) {
    CFDictionary query = baseQuery(key, service, accessGroup);
    query.emplace(kSecReturnData, true);
    query.emplace(kSecMatchLimit, kSecMatchLimitOne);
    CFTypeRef result;
    const OSStatus status = SecItemCopyMatching(query, &result);
    if (status == errSecSuccess) {
        const auto* data = result ? result->get<Foundation::PropertyList::Data>() : nullptr;
        return data ? std::optional<Data>(*data) : std::nullopt;
    }
    if (status != errSecItemNotFound)
        TLOG_ERROR("load(key:service:accessGroup:)", "Failed to find " + key + " in Keychain. " + reason(status));
    return std::nullopt;
}

KeyChain::OSStatus KeyChain::save(const std::string& key, const Data& value, const std::optional<std::string>& service,
                                  const std::optional<std::string>& accessGroup) {
    const CFDictionary base = baseQuery(key, service, accessGroup);
    CFDictionary search = base;
    search.emplace(kSecReturnData, true);
    CFTypeRef stored;
    const OSStatus status = SecItemCopyMatching(search, &stored);
    if (status == errSecSuccess) {
        TLOG_DEBUG("save(key:value:service:accessGroup:)", "Keychain value for key " + key + " exists - updating");
        const auto* bytes = stored ? stored->get<Foundation::PropertyList::Data>() : nullptr;
        if (bytes && *bytes == value) return errSecSuccess;
        return SecItemUpdate(base, CFDictionary{{kSecValueData, value}});
    }
    if (status == errSecItemNotFound) {
        TLOG_DEBUG("save(key:value:service:accessGroup:)", "Keychain value for key " + key + " doesn't exist - adding");
        CFDictionary item = base;
        item.emplace(kSecValueData, value);
        return SecItemAdd(item, nullptr);
    }
    return status;
}

KeyChain::OSStatus KeyChain::delete_(const std::string& key, const std::optional<std::string>& service,
                                     const std::optional<std::string>& accessGroup) {
    return SecItemDelete(baseQuery(key, service, accessGroup));
}

void KeyChain::load(const std::string& key, const std::optional<std::string>& service,
                    const std::optional<std::string>& accessGroup,
                    std::function<void(std::optional<Data>)> completion) {
    completionQueue().async([=, completion = std::move(completion)] { completion(load(key, service, accessGroup)); });
}

void KeyChain::save(const std::string& key, const Data& value, const std::optional<std::string>& service,
                    const std::optional<std::string>& accessGroup, std::function<void(OSStatus)> completion) {
    completionQueue().async(
        [=, completion = std::move(completion)] { completion(save(key, value, service, accessGroup)); });
}

void KeyChain::delete_(const std::string& key, const std::optional<std::string>& service,
                       const std::optional<std::string>& accessGroup, std::function<void(OSStatus)> completion) {
    completionQueue().async(
        [=, completion = std::move(completion)] { completion(delete_(key, service, accessGroup)); });
}

SecKeychainRef KeyChain::keychain(SecPreferencesDomain domain) {
    std::vector<SecKeychainRef> list;
    const OSStatus status = SecKeychainCopyDomainSearchList(domain, &list);
    if (status != errSecSuccess) {
        TLOG_ERROR("keychain(in:)", "Failed searching for keychain in " + std::to_string(static_cast<int32_t>(domain)) +
                                        ". " + reason(status));
        return nullptr;
    }
    return list.empty() ? nullptr : list.front();
}

void KeyChain::logDecodingFailure(const std::string& key, const std::string& error) {
    TLOG_ERROR("loadObject(key:service:accessGroup:)", "Failed to decode data for key '" + key + "'. " + error);
}

void KeyChain::logEncodingFailure(const std::string& value, const std::string& key, const std::string& error) {
    TLOG_ERROR("saveObject(_:key:service:accessGroup:)",
               "Failed to encode value " + value + " for key '" + key + "'. " + error);
}

}  // namespace Tovik
