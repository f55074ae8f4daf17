// Trust settings of certificates in the three trust-settings domains.
//
// A certificate's settings in a domain are an array of dictionaries, each a
// usage constraint; an empty array means "always trusted as a root". They are
// keyed by the SHA-1 of the certificate's DER (the certificate itself need not
// be in any keychain) and kept in a keychain file (see KeychainDatabase.h):
// the user domain's in the effective user's login keychain, the admin and
// system domains' in the system keychain. (As for a daemon in the system
// session, root's login keychain is the system keychain.) Reading a domain
// whose keychain the effective user may not open finds nothing; writing it
// fails with the keychain's status.
//
// Every call is synchronous and thread-safe; statuses are the platform's.
#pragma once

#include <cstdint>
#include <vector>

#include "Foundation/PropertyList.h"
#include "Security/SecBase.h"
#include "Security/SecCertificate.h"

namespace Security {

enum SecTrustSettingsDomain : uint32_t {
    kSecTrustSettingsDomainUser = 0,
    kSecTrustSettingsDomainAdmin = 1,
    kSecTrustSettingsDomainSystem = 2,
};

enum SecTrustSettingsResult : uint32_t {
    kSecTrustSettingsResultInvalid = 0,  // never valid in settings
    kSecTrustSettingsResultTrustRoot = 1,
    kSecTrustSettingsResultTrustAsRoot = 2,
    kSecTrustSettingsResultDeny = 3,
    kSecTrustSettingsResultUnspecified = 4,
};

// The keys of one usage constraint. Values: the result an integer of
// SecTrustSettingsResult other than kSecTrustSettingsResultInvalid; the policy
// (its name), policy string and application (its path) strings; the allowed
// error and key usage integers.
inline constexpr const char* kSecTrustSettingsPolicy = "kSecTrustSettingsPolicy";
inline constexpr const char* kSecTrustSettingsApplication = "kSecTrustSettingsApplication";
inline constexpr const char* kSecTrustSettingsPolicyString = "kSecTrustSettingsPolicyString";
inline constexpr const char* kSecTrustSettingsKeyUsage = "kSecTrustSettingsKeyUsage";
inline constexpr const char* kSecTrustSettingsAllowedError = "kSecTrustSettingsAllowedError";
inline constexpr const char* kSecTrustSettingsResult = "kSecTrustSettingsResult";

/// The certificate's settings in domain, as stored. errSecItemNotFound when
/// it has none there, errSecInvalidTrustSettings when the stored record is
/// damaged, errSecParam for a null certificate, a domain out of range or a
/// null trustSettings.
OSStatus SecTrustSettingsCopyTrustSettings(const SecCertificateRef& certificate, SecTrustSettingsDomain domain,
                                           Foundation::PropertyList::Array* trustSettings);

/// Replaces the certificate's settings in domain with trustSettingsDictOrArray:
/// an array of constraint dictionaries, one dictionary (an array of one), or
/// nothing (an empty array: always trusted as a root). errSecParam for a
/// null certificate, a domain out of range, or settings other than the
/// above (an unknown key, a value of the wrong type, a result out of range).
OSStatus SecTrustSettingsSetTrustSettings(const SecCertificateRef& certificate, SecTrustSettingsDomain domain,
                                          const std::optional<Foundation::PropertyList>& trustSettingsDictOrArray);

/// The certificates of domain's keychain that have settings in domain.
/// errSecNoTrustSettings when there are none, errSecParam for a domain out of
/// range or a null certificates.
OSStatus SecTrustSettingsCopyCertificates(SecTrustSettingsDomain domain,
                                          std::vector<SecCertificateRef>* certificates);

}  // namespace Security
