// Code signatures of running processes: finding a process's code by its pid,
// code requirements, and checking the code's signature against one.
//
// Linux executables carry no signature, so here a program's signature is a
// detached CMS (PKCS#7) signature in DER form in the file beside it named
// after it plus ".p7s" ("/usr/bin/tool" -> "/usr/bin/tool.p7s"). The code of
// a running process is the executable it runs (/proc/<pid>/exe; its path
// names the signature file). The code is valid when
//   - the signature verifies over the executable's bytes as they are now,
//   - the signer's certificate carries the code-signing extended key usage,
//     and
//   - its chain ends at a root the system trusts: the CA certificates of
//     OpenSSL's built-in default locations (OPENSSLDIR's cert.pem and
//     certs/, that is the system's CA store on Debian), not overridable by
//     the environment, and the certificates of the trust-settings domains'
//     keychains (SecTrustSettings.h) whose settings trust them as a root: in
//     the first of the user, admin and system domains where a certificate
//     has settings, every constraint's result (kSecTrustSettingsResultTrustRoot
//     when it has none) is TrustRoot or TrustAsRoot. Settings add roots; they
//     do not take away those of the CA store.
//
// Requirements: the only clause read is a leaf certificate's organizational
// unit, "certificate leaf[subject.OU] = <value>" with the value a word of
// letters, digits, '.', '-' and '_' or a double-quoted string; it holds when
// the first OU of the signer's subject equals the value. Anything else is
// errSecCSReqInvalid.
//
// Statuses are the platform's code-signing values. Every call is
// thread-safe; references are immutable values.
#pragma once

#include <sys/types.h>

#include <cstdint>
#include <memory>
#include <string>

#include "Security/SecBase.h"
#include "Security/SecItem.h"

namespace Security {

inline constexpr OSStatus errSecCSUnimplemented = -67072;
inline constexpr OSStatus errSecCSInvalidFlags = -67070;
inline constexpr OSStatus errSecCSObjectRequired = -67069;
inline constexpr OSStatus errSecCSStaticCodeNotFound = -67068;
inline constexpr OSStatus errSecCSUnsupportedGuestAttributes = -67067;
inline constexpr OSStatus errSecCSInvalidAttributeValues = -67066;
inline constexpr OSStatus errSecCSNoSuchCode = -67065;
inline constexpr OSStatus errSecCSGuestInvalid = -67063;
inline constexpr OSStatus errSecCSUnsigned = -67062;
inline constexpr OSStatus errSecCSSignatureFailed = -67061;
inline constexpr OSStatus errSecCSSignatureNotVerifiable = -67060;
inline constexpr OSStatus errSecCSReqInvalid = -67052;
inline constexpr OSStatus errSecCSReqFailed = -67050;
inline constexpr OSStatus errSecCSNotAHost = -67046;
inline constexpr OSStatus errSecCSSignatureInvalid = -67045;

using SecCSFlags = uint32_t;
inline constexpr SecCSFlags kSecCSDefaultFlags = 0;

/// The guest attribute naming a process by its pid (an integer).
inline constexpr const char* kSecGuestAttributePid = "pid";

/// A compiled requirement.
class SecRequirement {
public:
    explicit SecRequirement(std::string organizationalUnit) : organizationalUnit_(std::move(organizationalUnit)) {}
    /// The OU the signer's leaf certificate must have.
    const std::string& organizationalUnit() const { return organizationalUnit_; }

private:
    std::string organizationalUnit_;
};
using SecRequirementRef = std::shared_ptr<const SecRequirement>;

/// The code of one running process.
class SecCode {
public:
    SecCode(pid_t pid, uint64_t startTime) : pid_(pid), startTime_(startTime) {}
    pid_t pid() const { return pid_; }
    /// When the process started (clock ticks after boot): tells it from a
    /// later process that was given the same pid.
    uint64_t startTime() const { return startTime_; }

private:
    pid_t pid_;
    uint64_t startTime_;
};
using SecCodeRef = std::shared_ptr<const SecCode>;

/// Compiles text (see the banner). errSecCSReqInvalid for text it does not
/// read, errSecCSInvalidFlags for flags other than kSecCSDefaultFlags,
/// errSecCSObjectRequired for a null requirement.
OSStatus SecRequirementCreateWithString(const std::string& text, SecCSFlags flags, SecRequirementRef* requirement);

/// The code of the process that attributes name by kSecGuestAttributePid;
/// host must be null (the system). errSecCSNoSuchCode when there is no such
/// process, errSecCSUnsupportedGuestAttributes without a pid,
/// errSecCSInvalidAttributeValues for a pid that is not a positive integer,
/// errSecCSNotAHost for another host.
OSStatus SecCodeCopyGuestWithAttributes(const SecCodeRef& host, const CFDictionary& attributes, SecCSFlags flags,
                                        SecCodeRef* guest);

/// Checks the code's signature (see the banner) and, when requirement is not
/// null, that the signer meets it. errSecCSGuestInvalid when the process has
/// ended, errSecCSSignatureNotVerifiable when its executable cannot be read,
/// errSecCSUnsigned without a signature file, errSecCSSignatureInvalid for a
/// file that is not a CMS signature, errSecCSSignatureFailed when it does
/// not verify or its chain is not trusted, errSecCSReqFailed when the
/// requirement does not hold.
OSStatus SecCodeCheckValidity(const SecCodeRef& code, SecCSFlags flags, const SecRequirementRef& requirement);

}  // namespace Security
