#include "Tovik/CertUtils.h"

#include <chrono>
#include <cstdint>
#include <cstdio>
#include <string>
#include <type_traits>
#include <variant>

#include "Tovik/KeyChain.h"
#include "Tovik/Logger/Logger.h"

namespace Tovik {

using namespace Security;
using Foundation::PropertyList;

namespace {

std::string noKeychainMessage(SecPreferencesDomain domain) {
    return "There is no keychain for domain " + std::to_string(static_cast<int32_t>(domain));
}

/// A property-list value in one line, as the platform prints collections:
/// "({kSecTrustSettingsResult = 1;}, text)".
std::string describe(const PropertyList& value) {
    return std::visit(
        [](const auto& v) -> std::string {
            using T = std::decay_t<decltype(v)>;
            if constexpr (std::is_same_v<T, bool>) {
                return v ? "1" : "0";
            } else if constexpr (std::is_same_v<T, int64_t> || std::is_same_v<T, double>) {
                return std::to_string(v);
            } else if constexpr (std::is_same_v<T, std::string>) {
                return v;
            } else if constexpr (std::is_same_v<T, PropertyList::Data>) {
                std::string hex = "<";
                for (uint8_t byte : v) {
                    char digits[3];
                    std::snprintf(digits, sizeof digits, "%02x", byte);
                    hex += digits;
                }
                return hex + ">";
            } else if constexpr (std::is_same_v<T, PropertyList::Date>) {
                return std::to_string(std::chrono::duration_cast<std::chrono::seconds>(v.time_since_epoch()).count());
            } else if constexpr (std::is_same_v<T, PropertyList::Array>) {
                std::string text = "(";
                for (const auto& entry : v) text += (text.size() > 1 ? ", " : "") + describe(entry);
                return text + ")";
            } else {
                std::string text = "{";
                for (const auto& [key, entry] : v) text += key + " = " + describe(entry) + ";";
                return text + "}";
            }
        },
        value.storage());
}

}  // namespace

bool CertUtils::addCertificate(const SecCertificateRef& certificate, const std::string& name,
                               const SecKeychainRef& keychain) {
    CFDictionary attributes{
        {kSecClass, kSecClassCertificate},
        {kSecValueRef, SecCertificateCopyData(certificate)},
        {kSecAttrLabel, name},
    };
    if (keychain) attributes.emplace(kSecUseKeychain, keychain->path().string());
    const OSStatus status = SecItemAdd(attributes, nullptr);
    if (status == errSecSuccess) return true;
    TLOG_ERROR("addCertificate(_:named:toKeychain:)",
               "Failed to add certificate \"" + name + "\": " + KeyChain::reason(status));
    return false;
}

bool CertUtils::addCertificate(const SecCertificateRef& certificate, const std::string& name,
                               SecPreferencesDomain domain) {
    const SecKeychainRef keychain = KeyChain::keychain(domain);
    if (!keychain) {
        TLOG_ERROR("addCertificate(_:named:toDomain:)", noKeychainMessage(domain));
        return false;
    }
    return addCertificate(certificate, name, keychain);
}

bool CertUtils::removeCertificate(const std::string& name, const SecKeychainRef& keychain) {
    TLOG_INFO("removeCertificate(named:fromKeychain:)", "Deleting certs from system keychain by name: " + name);
    CFDictionary query{
        {kSecClass, kSecClassCertificate},
        {kSecAttrLabel, name},
        {kSecMatchLimit, kSecMatchLimitAll},
    };
    if (keychain) query.emplace(kSecMatchSearchList, PropertyList::Array{keychain->path().string()});
    const OSStatus status = SecItemDelete(query);
    if (status == errSecSuccess) return true;
    TLOG_ERROR("removeCertificate(named:fromKeychain:)",
               "Failed to delete certificate \"" + name + "\": " + KeyChain::reason(status));
    return false;
}

bool CertUtils::removeCertificate(const std::string& name, SecPreferencesDomain domain) {
    const SecKeychainRef keychain = KeyChain::keychain(domain);
    if (!keychain) {
        TLOG_ERROR("removeCertificate(named:fromDomain:)", noKeychainMessage(domain));
        return false;
    }
    return removeCertificate(name, keychain);
}

std::optional<CertUtils::TrustSettings> CertUtils::copyTrustSettings(const SecCertificateRef& certificate,
                                                                     SecTrustSettingsDomain domain) {
    PropertyList::Array settings;
    const OSStatus status = SecTrustSettingsCopyTrustSettings(certificate, domain, &settings);
    if (status != errSecSuccess) {
        TLOG_ERROR("copyTrustSettings(for:inDomain:)",
                   "SecTrustSettingsCopyTrustSettings failed: " + KeyChain::reason(status));
        return std::nullopt;
    }
    TrustSettings result;
    for (const auto& entry : settings) {
        const auto* constraint = entry.get<CFDictionary>();
        if (!constraint) {
            TLOG_ERROR("copyTrustSettings(for:inDomain:)",
                       "Failed to coerce " + describe(settings) + " to [[String:AnyObject]]");
            return std::nullopt;
        }
        result.push_back(*constraint);
    }
    return result;
}

OSStatus CertUtils::trustCertificate(const SecCertificateRef& certificate, SecTrustSettingsDomain domain) {
    const OSStatus status = SecTrustSettingsSetTrustSettings(certificate, domain, std::nullopt);
    if (status != errSecSuccess)
        TLOG_INFO("trustCertificate(_:inDomain:)", "Error set trust settings: " + KeyChain::reason(status));
    return status;
}

bool CertUtils::isCertificateTrusted(const SecCertificateRef& certificate, SecTrustSettingsDomain domain) {
    const auto settings = copyTrustSettings(certificate, domain);
    if (!settings) {
        TLOG_ERROR("isCertificateTrusted(_:inDomain:)",
                   "Failed to get trust settings for " + CFCopyDescription(certificate));
        return false;
    }
    // No constraints: always trusted.
    for (const auto& constraint : *settings) {
        const auto result = constraint.find(kSecTrustSettingsResult);
        if (constraint.empty() || result == constraint.end()) return false;
        const auto* value = result->second.get<int64_t>();
        if (!value || *value < kSecTrustSettingsResultInvalid || *value > kSecTrustSettingsResultUnspecified)
            return false;  // not a trust-settings result
        if (*value != kSecTrustSettingsResultTrustRoot) return false;
    }
    return true;
}

}  // namespace Tovik
