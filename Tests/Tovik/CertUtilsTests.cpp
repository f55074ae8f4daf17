// CertUtils over the Security calls, run in scripts/sandbox.sh as root: the
// system keychain, which is also root's login keychain, is the sandbox's
// /Library/Keychains/System.keychain.
#include "Tovik/CertUtils.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "Support/LogCapture.h"
#include "Support/MountNamespace.h"
#include "Support/TestCertificates.h"
#include "Support/TestSupport.h"

using namespace Security;
using TestSupport::insideSandbox;
using TestSupport::ScopedLogCapture;
using TestSupport::TemporaryDirectory;
using Tovik::CertUtils;

namespace {

SecCertificateRef makeCertificate(const std::string& commonName, long serial) {
    return SecCertificateCreateWithData(TestSupport::selfSignedCertificate(commonName, serial));
}

/// How many certificates the default keychains hold under label.
size_t countLabelled(const std::string& label) {
    CFTypeRef found;
    const OSStatus status = SecItemCopyMatching({{kSecClass, kSecClassCertificate},
                                                 {kSecAttrLabel, label},
                                                 {kSecMatchLimit, kSecMatchLimitAll},
                                                 {kSecReturnData, true}},
                                                &found);
    return status == errSecSuccess ? found->get<Foundation::PropertyList::Array>()->size() : 0;
}

}  // namespace

TEST(CertUtilsTests, AddsAndRemovesCertificatesByName) {
    TemporaryDirectory sandbox("sandbox");
    if (!insideSandbox(sandbox.path())) return;
    ScopedLogCapture capture;
    const auto first = makeCertificate("First", 1), second = makeCertificate("Second", 2),
               third = makeCertificate("Third", 3);
    ASSERT_TRUE(first && second && third);
    const SecKeychainRef system = std::make_shared<const SecKeychain>(SecKeychain::systemKeychainPath());

    EXPECT_TRUE(CertUtils::addCertificate(first, "Velmora", kSecPreferencesDomainSystem));
    EXPECT_FALSE(CertUtils::addCertificate(first, "Velmora", system));
    EXPECT_TRUE(CertUtils::addCertificate(second, "Velmora", nullptr));
    EXPECT_TRUE(CertUtils::addCertificate(third, "Other", system));
    EXPECT_FALSE(CertUtils::addCertificate(third, "Common", kSecPreferencesDomainCommon));
    ASSERT_EQ(countLabelled("Velmora"), 2u);

    EXPECT_TRUE(CertUtils::removeCertificate("Velmora", kSecPreferencesDomainSystem));
    EXPECT_EQ(countLabelled("Velmora"), 0u);
    EXPECT_EQ(countLabelled("Other"), 1u);
    EXPECT_FALSE(CertUtils::removeCertificate("Velmora", nullptr));
    EXPECT_FALSE(CertUtils::removeCertificate("Other", kSecPreferencesDomainDynamic));
    EXPECT_TRUE(CertUtils::removeCertificate("Other", system));

    const std::string add = "E: (CertUtils: addCertificate(_:named:toKeychain:)) ";
    const std::string remove = "E: (CertUtils: removeCertificate(named:fromKeychain:)) ";
    const std::string deleting = "I: (CertUtils) Deleting certs from system keychain by name: ";
    EXPECT_EQ(capture.recorder().lines(),
              (std::vector<std::string>{
                  add + "Failed to add certificate \"Velmora\": The specified item already exists in the keychain.",
                  "E: (CertUtils: addCertificate(_:named:toDomain:)) There is no keychain for domain 2",
                  deleting + "Velmora",
                  deleting + "Velmora",
                  remove + "Failed to delete certificate \"Velmora\": "
                           "The specified item could not be found in the keychain.",
                  "E: (CertUtils: removeCertificate(named:fromDomain:)) There is no keychain for domain 3",
                  deleting + "Other",
              }));
}

TEST(CertUtilsTests, TrustsCertificatesAsRootsPerDomain) {
    TemporaryDirectory sandbox("sandbox");
    if (!insideSandbox(sandbox.path())) return;
    const auto certificate = makeCertificate("Root", 1);
    ASSERT_TRUE(certificate);
    {
        ScopedLogCapture capture;
        EXPECT_EQ(CertUtils::copyTrustSettings(certificate, kSecTrustSettingsDomainAdmin), std::nullopt);
        EXPECT_FALSE(CertUtils::isCertificateTrusted(certificate, kSecTrustSettingsDomainAdmin));
        EXPECT_EQ(CertUtils::trustCertificate(nullptr, kSecTrustSettingsDomainAdmin), errSecParam);
        const auto lines = capture.recorder().lines();
        const std::string failed = "E: (CertUtils: copyTrustSettings(for:inDomain:)) SecTrustSettingsCopyTrustSettings "
                                   "failed: The specified item could not be found in the keychain.";
        ASSERT_EQ(lines.size(), 4u);
        EXPECT_EQ(lines[0], failed);
        EXPECT_EQ(lines[1], failed);
        EXPECT_TRUE(lines[2].starts_with(
            "E: (CertUtils: isCertificateTrusted(_:inDomain:)) Failed to get trust settings for <cert(0x"))
            << lines[2];
        EXPECT_TRUE(lines[2].ends_with(") s: Root i: Root>")) << lines[2];
        EXPECT_EQ(lines[3], "I: (CertUtils) Error set trust settings: One or more parameters passed to a function "
                            "were not valid.");
    }

    EXPECT_EQ(CertUtils::trustCertificate(certificate, kSecTrustSettingsDomainAdmin), errSecSuccess);
    EXPECT_EQ(CertUtils::copyTrustSettings(certificate, kSecTrustSettingsDomainAdmin), CertUtils::TrustSettings{});
    EXPECT_TRUE(CertUtils::isCertificateTrusted(certificate, kSecTrustSettingsDomainAdmin));
    EXPECT_FALSE(CertUtils::isCertificateTrusted(certificate, kSecTrustSettingsDomainUser));

    const CFDictionary root{{kSecTrustSettingsResult, int(kSecTrustSettingsResultTrustRoot)}};
    const CFDictionary deny{{kSecTrustSettingsResult, int(kSecTrustSettingsResultDeny)}};
    const CFDictionary asRoot{{kSecTrustSettingsResult, int(kSecTrustSettingsResultTrustAsRoot)}};
    const CFDictionary noResult{{kSecTrustSettingsPolicyString, "example.com"}};
    const struct {
        const char* what;
        Foundation::PropertyList::Array settings;
        bool trusted;
    } cases[] = {
        {"roots only", {root, root}, true},
        {"denied", {deny}, false},
        {"no result", {noResult}, false},
        {"an empty constraint", {root, CFDictionary{}}, false},
        {"a root, then denied", {root, deny}, false},
        {"trusted as a root, not a root", {asRoot}, false},
    };
    for (const auto& c : cases) {
        ASSERT_EQ(SecTrustSettingsSetTrustSettings(certificate, kSecTrustSettingsDomainUser,
                                                   Foundation::PropertyList(c.settings)),
                  errSecSuccess)
            << c.what;
        EXPECT_EQ(CertUtils::isCertificateTrusted(certificate, kSecTrustSettingsDomainUser), c.trusted) << c.what;
    }
    EXPECT_TRUE(CertUtils::isCertificateTrusted(certificate, kSecTrustSettingsDomainAdmin));
}
