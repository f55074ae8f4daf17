#include "Security/SecCode.h"

#include <fcntl.h>
#include <unistd.h>

#include <openssl/bio.h>
#include <openssl/cms.h>
#include <openssl/err.h>
#include <openssl/x509.h>
#include <openssl/x509v3.h>

#include <cctype>
#include <cstdint>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <memory>
#include <optional>
#include <set>
#include <sstream>
#include <string_view>
#include <vector>

#include "Kernel/FileDescriptor.h"
#include "Security/SecCertificate.h"
#include "Security/SecTrustSettings.h"

namespace Security {

namespace {

template <class T, void (*Free)(T*)>
struct Freer {
    void operator()(T* value) const { Free(value); }
};
using Bio = std::unique_ptr<BIO, Freer<BIO, BIO_free_all>>;
using Cms = std::unique_ptr<CMS_ContentInfo, Freer<CMS_ContentInfo, CMS_ContentInfo_free>>;
using Store = std::unique_ptr<X509_STORE, Freer<X509_STORE, X509_STORE_free>>;

struct SignersFree {
    void operator()(STACK_OF(X509) * signers) const { sk_X509_free(signers); }
};

/// Field 22 of /proc/<pid>/stat (after the command, which may hold spaces
/// and parentheses); nothing when the process is gone.
std::optional<uint64_t> startTimeOf(pid_t pid) {
    std::ifstream file("/proc/" + std::to_string(pid) + "/stat");
    const std::string text((std::istreambuf_iterator<char>(file)), std::istreambuf_iterator<char>());
    const auto end = text.rfind(')');
    if (end == std::string::npos) return std::nullopt;
    std::istringstream fields(text.substr(end + 1));
    std::string field;
    for (int index = 3; index <= 22 && fields >> field; ++index) {
        if (index == 22) return std::strtoull(field.c_str(), nullptr, 10);
    }
    return std::nullopt;
}

/// Whether settings trust their certificate as a root.
bool trustsAsRoot(const Foundation::PropertyList::Array& settings) {
    for (const auto& entry : settings) {
        const auto& constraint = *entry.get<CFDictionary>();  // the settings are checked when stored and read
        const auto result = constraint.find(kSecTrustSettingsResult);
        const auto* value = result == constraint.end() ? nullptr : result->second.get<int64_t>();
        if (value && *value != kSecTrustSettingsResultTrustRoot && *value != kSecTrustSettingsResultTrustAsRoot)
            return false;
    }
    return true;
}

/// Adds the certificates that trust settings make roots (see the header).
void addTrustedCertificates(X509_STORE* store) {
    std::set<std::vector<uint8_t>> decided;
    for (auto domain : {kSecTrustSettingsDomainUser, kSecTrustSettingsDomainAdmin, kSecTrustSettingsDomainSystem}) {
        std::vector<SecCertificateRef> certificates;
        if (SecTrustSettingsCopyCertificates(domain, &certificates) != errSecSuccess) continue;
        for (const auto& certificate : certificates) {
            Foundation::PropertyList::Array settings;
            if (!decided.insert(certificate->data()).second ||
                SecTrustSettingsCopyTrustSettings(certificate, domain, &settings) != errSecSuccess)
                continue;
            if (trustsAsRoot(settings)) X509_STORE_add_cert(store, certificate->x509());
        }
    }
}

/// The anchors: the CA certificates at OpenSSL's built-in locations and those
/// of the trust settings.
Store systemAnchors() {
    Store store(X509_STORE_new());
    if (!store) return store;
    X509_STORE_load_file(store.get(), X509_get_default_cert_file());
    X509_STORE_load_path(store.get(), X509_get_default_cert_dir());
    addTrustedCertificates(store.get());
    X509_STORE_set_purpose(store.get(), X509_PURPOSE_ANY);  // code signing is checked below
    ERR_clear_error();  // a location that is missing is no failure
    return store;
}

/// The first organizational unit of the certificate's subject, as UTF-8.
std::optional<std::string> organizationalUnitOf(X509* certificate) {
    const X509_NAME* subject = X509_get_subject_name(certificate);
    const int index = X509_NAME_get_index_by_NID(subject, NID_organizationalUnitName, -1);
    if (index < 0) return std::nullopt;
    unsigned char* text = nullptr;
    const int length = ASN1_STRING_to_UTF8(&text, X509_NAME_ENTRY_get_data(X509_NAME_get_entry(subject, index)));
    if (length < 0) return std::nullopt;
    std::string unit(reinterpret_cast<const char*>(text), static_cast<size_t>(length));
    OPENSSL_free(text);
    return unit;
}

/// The value of text when it is the one clause the stand-in reads.
std::optional<std::string> organizationalUnitClause(std::string_view text) {
    auto isSpace = [](char c) { return std::isspace(static_cast<unsigned char>(c)) != 0; };
    auto skipSpace = [&] {
        while (!text.empty() && isSpace(text.front())) text.remove_prefix(1);
    };
    auto take = [&](std::string_view word) {
        skipSpace();
        if (!text.starts_with(word)) return false;
        text.remove_prefix(word.size());
        return true;
    };
    if (!take("certificate") || text.empty() || !isSpace(text.front())) return std::nullopt;
    if (!take("leaf") || !take("[") || !take("subject.OU") || !take("]") || !take("=")) return std::nullopt;
    skipSpace();
    std::string value;
    if (text.starts_with('"')) {
        for (text.remove_prefix(1);; text.remove_prefix(1)) {
            if (text.empty()) return std::nullopt;
            if (text.front() == '"') break;
            if (text.front() == '\\') text.remove_prefix(1);
            if (text.empty()) return std::nullopt;
            value += text.front();
        }
        text.remove_prefix(1);
    } else {
        while (!text.empty() && (std::isalnum(static_cast<unsigned char>(text.front())) ||
                                 std::string_view("._-").find(text.front()) != std::string_view::npos)) {
            value += text.front();
            text.remove_prefix(1);
        }
        if (value.empty()) return std::nullopt;
    }
    skipSpace();
    if (!text.empty()) return std::nullopt;
    return value;
}

OSStatus checkSignature(const SecCode& code, const SecRequirementRef& requirement) {
    const std::string exe = "/proc/" + std::to_string(code.pid()) + "/exe";
    Kernel::FileDescriptor executable(::open(exe.c_str(), O_RDONLY | O_CLOEXEC));
    std::error_code error;
    const auto path = std::filesystem::read_symlink(exe, error);
    if (startTimeOf(code.pid()) != code.startTime()) return errSecCSGuestInvalid;
    if (!executable || error) return errSecCSSignatureNotVerifiable;

    Bio signatureFile(BIO_new_file((path.string() + ".p7s").c_str(), "rb"));
    if (!signatureFile) {
        ERR_clear_error();
        return errSecCSUnsigned;
    }
    Cms cms(d2i_CMS_bio(signatureFile.get(), nullptr));
    if (!cms || OBJ_obj2nid(CMS_get0_type(cms.get())) != NID_pkcs7_signed || CMS_is_detached(cms.get()) != 1 ||
        sk_CMS_SignerInfo_num(CMS_get0_SignerInfos(cms.get())) != 1) {
        ERR_clear_error();
        return errSecCSSignatureInvalid;
    }
    Store anchors = systemAnchors();
    Bio content(BIO_new_fd(executable.get(), BIO_NOCLOSE));
    if (!anchors || !content) return errSecAllocate;
    if (CMS_verify(cms.get(), nullptr, anchors.get(), content.get(), nullptr, CMS_BINARY) != 1) {
        ERR_clear_error();
        return errSecCSSignatureFailed;
    }
    std::unique_ptr<STACK_OF(X509), SignersFree> signers(CMS_get0_signers(cms.get()));
    X509* leaf = signers && sk_X509_num(signers.get()) == 1 ? sk_X509_value(signers.get(), 0) : nullptr;
    if (!leaf || !(X509_get_extension_flags(leaf) & EXFLAG_XKUSAGE) ||
        !(X509_get_extended_key_usage(leaf) & XKU_CODE_SIGN))
        return errSecCSSignatureFailed;
    if (requirement && organizationalUnitOf(leaf) != requirement->organizationalUnit()) return errSecCSReqFailed;
    return errSecSuccess;
}

}  // namespace

OSStatus SecRequirementCreateWithString(const std::string& text, SecCSFlags flags, SecRequirementRef* requirement) {
    if (!requirement) return errSecCSObjectRequired;
    if (flags != kSecCSDefaultFlags) return errSecCSInvalidFlags;
    auto unit = organizationalUnitClause(text);
    if (!unit) return errSecCSReqInvalid;
    *requirement = std::make_shared<const SecRequirement>(std::move(*unit));
    return errSecSuccess;
}

OSStatus SecCodeCopyGuestWithAttributes(const SecCodeRef& host, const CFDictionary& attributes, SecCSFlags flags,
                                        SecCodeRef* guest) {
    if (!guest) return errSecCSObjectRequired;
    if (flags != kSecCSDefaultFlags) return errSecCSInvalidFlags;
    if (host) return errSecCSNotAHost;
    const auto entry = attributes.find(kSecGuestAttributePid);
    if (entry == attributes.end() || attributes.size() != 1) return errSecCSUnsupportedGuestAttributes;
    const auto* pid = entry->second.get<int64_t>();
    if (!pid || *pid <= 0 || *pid > INT32_MAX) return errSecCSInvalidAttributeValues;
    const auto started = startTimeOf(static_cast<pid_t>(*pid));
    if (!started) return errSecCSNoSuchCode;
    *guest = std::make_shared<const SecCode>(static_cast<pid_t>(*pid), *started);
    return errSecSuccess;
}

OSStatus SecCodeCheckValidity(const SecCodeRef& code, SecCSFlags flags, const SecRequirementRef& requirement) {
    if (!code) return errSecCSObjectRequired;
    if (flags != kSecCSDefaultFlags) return errSecCSInvalidFlags;
    return checkSignature(*code, requirement);
}

}  // namespace Security
