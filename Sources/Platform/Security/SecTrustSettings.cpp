#include "Security/SecTrustSettings.h"

#include <filesystem>
#include <string>

#include "Security/KeychainDatabase.h"
#include "Security/SecKeychain.h"

namespace Security {

namespace {

using detail::KeychainDatabase;
using detail::MissingKeychain;
using Foundation::PropertyList;

/// The keychain that holds domain's settings; errSecParam for a domain out of
/// range, errSecNotAvailable for the user domain of a user without a home.
OSStatus keychainOf(SecTrustSettingsDomain domain, const std::filesystem::path*& file) {
    switch (domain) {
    case kSecTrustSettingsDomainUser: {
        const auto& login = SecKeychain::loginKeychainPath();
        if (!login) return errSecNotAvailable;
        file = &*login;
        return errSecSuccess;
    }
    case kSecTrustSettingsDomainAdmin:
    case kSecTrustSettingsDomainSystem:
        file = &SecKeychain::systemKeychainPath();
        return errSecSuccess;
    }
    return errSecParam;
}

bool isConstraint(const PropertyList& entry) {
    const auto* constraint = entry.get<PropertyList::Dictionary>();
    if (!constraint) return false;
    for (const auto& [key, value] : *constraint) {
        if (key == kSecTrustSettingsResult) {
            const auto* result = value.get<int64_t>();
            if (!result || *result <= kSecTrustSettingsResultInvalid || *result > kSecTrustSettingsResultUnspecified)
                return false;
        } else if (key == kSecTrustSettingsPolicy || key == kSecTrustSettingsPolicyString ||
                   key == kSecTrustSettingsApplication) {
            if (!value.is<std::string>()) return false;
        } else if (key == kSecTrustSettingsAllowedError || key == kSecTrustSettingsKeyUsage) {
            if (!value.is<int64_t>()) return false;
        } else {
            return false;
        }
    }
    return true;
}

}  // namespace

OSStatus SecTrustSettingsCopyTrustSettings(const SecCertificateRef& certificate, SecTrustSettingsDomain domain,
                                           PropertyList::Array* trustSettings) {
    const std::filesystem::path* file = nullptr;
    if (!certificate || !trustSettings) return errSecParam;
    if (OSStatus status = keychainOf(domain, file); status != errSecSuccess) return status;
    PropertyList::Array settings;
    const OSStatus status = KeychainDatabase::copyTrustSettings(*file, MissingKeychain::isEmpty, domain,
                                                                detail::certificateItemOf(*certificate).hash, settings);
    if (status == errSecSuccess) *trustSettings = std::move(settings);
    return status;
}

OSStatus SecTrustSettingsSetTrustSettings(const SecCertificateRef& certificate, SecTrustSettingsDomain domain,
                                          const std::optional<PropertyList>& trustSettingsDictOrArray) {
    const std::filesystem::path* file = nullptr;
    if (!certificate) return errSecParam;
    if (OSStatus status = keychainOf(domain, file); status != errSecSuccess) return status;
    PropertyList::Array settings;
    if (trustSettingsDictOrArray) {
        if (const auto* array = trustSettingsDictOrArray->get<PropertyList::Array>()) settings = *array;
        else settings.push_back(*trustSettingsDictOrArray);
    }
    for (const auto& entry : settings)
        if (!isConstraint(entry)) return errSecParam;
    return KeychainDatabase::setTrustSettings(*file, MissingKeychain::isCreated, domain,
                                              detail::certificateItemOf(*certificate).hash, settings);
}

OSStatus SecTrustSettingsCopyCertificates(SecTrustSettingsDomain domain, std::vector<SecCertificateRef>* certificates) {
    const std::filesystem::path* file = nullptr;
    if (!certificates) return errSecParam;
    if (OSStatus status = keychainOf(domain, file); status != errSecSuccess) return status;
    std::vector<std::vector<uint8_t>> found;
    if (OSStatus status =
            KeychainDatabase::certificatesWithTrustSettings(*file, MissingKeychain::isEmpty, domain, found);
        status != errSecSuccess)
        return status;
    std::vector<SecCertificateRef> result;
    for (const auto& data : found)
        if (auto certificate = SecCertificateCreateWithData(data)) result.push_back(std::move(certificate));
    if (result.empty()) return errSecNoTrustSettings;
    *certificates = std::move(result);
    return errSecSuccess;
}

}  // namespace Security
