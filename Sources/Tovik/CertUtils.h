// Certificates in the file keychain of a preferences domain, and their trust
// settings in a trust-settings domain.
//
// Certificates are found by their label (kSecAttrLabel), the name they were
// added under. Every operation is static, synchronous and stateless, may be
// called from any thread and blocks on the keychain; changing the system
// keychain or the admin and system trust settings needs root. Failures are
// logged once (as each operation says; the reason in a message is the
// status's text, or its number when it has none) and returned as false, an
// absent result or the status; nothing throws.
#pragma once

#include <optional>
#include <string>
#include <vector>

#include "Security/SecBase.h"
#include "Security/SecCertificate.h"
#include "Security/SecItem.h"
#include "Security/SecKeychain.h"
#include "Security/SecTrustSettings.h"

namespace Tovik {

class CertUtils {
public:
    /// A certificate's trust settings: one dictionary per usage constraint.
    using TrustSettings = std::vector<Security::CFDictionary>;

    CertUtils() = delete;

    /// Adds certificate under name to keychain (null: the default keychain).
    /// false, logged at error "Failed to add certificate "<name>": <reason>",
    /// when the keychain refuses it, also when it is there already.
    static bool addCertificate(const Security::SecCertificateRef& certificate, const std::string& name,
                               const Security::SecKeychainRef& keychain);
    /// The same with the first keychain of domain's search list; false, logged
    /// at error "There is no keychain for domain <domain>" (as a number),
    /// when it has none.
    static bool addCertificate(const Security::SecCertificateRef& certificate, const std::string& name,
                               Security::SecPreferencesDomain domain);

    /// Removes every certificate labelled name from keychain (null: the
    /// default search list), logged at info first. false, logged at error
    /// "Failed to delete certificate "<name>": <reason>", when that fails,
    /// also when there is none.
    static bool removeCertificate(const std::string& name, const Security::SecKeychainRef& keychain);
    /// The same with domain's keychain, as addCertificate.
    static bool removeCertificate(const std::string& name, Security::SecPreferencesDomain domain);

    /// The certificate's settings in domain; absent, logged at error, when it
    /// has none or they cannot be read.
    static std::optional<TrustSettings> copyTrustSettings(const Security::SecCertificateRef& certificate,
                                                          Security::SecTrustSettingsDomain domain);

    /// Makes certificate always trusted as a root in domain. The status; a
    /// failure is also logged at info "Error set trust settings: <reason>".
    static Security::OSStatus trustCertificate(const Security::SecCertificateRef& certificate,
                                               Security::SecTrustSettingsDomain domain);

    /// Whether the certificate's settings in domain trust it as a root: they
    /// are empty, or every constraint's result is
    /// kSecTrustSettingsResultTrustRoot. false (logged at error) when it has
    /// no settings there.
    static bool isCertificateTrusted(const Security::SecCertificateRef& certificate,
                                     Security::SecTrustSettingsDomain domain);
};

}  // namespace Tovik
