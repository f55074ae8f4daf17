#include "Security/SecCertificate.h"

#include <openssl/err.h>
#include <openssl/evp.h>
#include <openssl/x509.h>

#include <cstdio>

#include "Security/KeychainDatabase.h"

namespace Security {

namespace {

std::optional<std::string> entryText(const X509_NAME* name, int index) {
    unsigned char* text = nullptr;
    const int length = ASN1_STRING_to_UTF8(&text, X509_NAME_ENTRY_get_data(X509_NAME_get_entry(name, index)));
    if (length < 0) {
        ERR_clear_error();
        return std::nullopt;
    }
    std::string result(reinterpret_cast<const char*>(text), static_cast<size_t>(length));
    OPENSSL_free(text);
    return result;
}

template <class T>
std::vector<uint8_t> derOf(const T* value, int (*encode)(const T*, unsigned char**)) {
    unsigned char* bytes = nullptr;
    const int length = encode(value, &bytes);
    if (length < 0) {
        ERR_clear_error();
        return {};
    }
    std::vector<uint8_t> result(bytes, bytes + length);
    OPENSSL_free(bytes);
    return result;
}

/// The name's last entry of the first kind it has, in the platform's order of
/// preference; else the whole name in one line.
std::string summaryOf(const X509_NAME* name) {
    for (int nid : {NID_commonName, NID_organizationalUnitName, NID_organizationName, NID_pkcs9_emailAddress}) {
        int last = -1;
        for (int index = -1; (index = X509_NAME_get_index_by_NID(name, nid, index)) >= 0;) last = index;
        if (last >= 0) {
            if (auto text = entryText(name, last)) return *text;
        }
    }
    char* line = X509_NAME_oneline(name, nullptr, 0);
    std::string result = line ? line : "";
    OPENSSL_free(line);
    return result;
}

}  // namespace

SecCertificate::SecCertificate(x509_st* x509, std::vector<uint8_t> data) : x509_(x509), data_(std::move(data)) {}

SecCertificate::~SecCertificate() { X509_free(x509_); }

SecCertificateRef SecCertificateCreateWithData(const std::vector<uint8_t>& data) {
    const unsigned char* next = data.data();
    X509* x509 = data.empty() ? nullptr : d2i_X509(nullptr, &next, static_cast<long>(data.size()));
    if (!x509 || next != data.data() + data.size()) {
        X509_free(x509);
        ERR_clear_error();
        return nullptr;
    }
    return std::make_shared<const SecCertificate>(x509, data);
}

std::vector<uint8_t> SecCertificateCopyData(const SecCertificateRef& certificate) {
    return certificate ? certificate->data() : std::vector<uint8_t>();
}

std::optional<std::string> SecCertificateCopySubjectSummary(const SecCertificateRef& certificate) {
    if (!certificate) return std::nullopt;
    return summaryOf(X509_get_subject_name(certificate->x509()));
}

std::string CFCopyDescription(const SecCertificateRef& certificate) {
    if (!certificate) return "<null>";
    char address[32];
    std::snprintf(address, sizeof address, "%p", static_cast<const void*>(certificate.get()));
    return std::string("<cert(") + address + ") s: " + summaryOf(X509_get_subject_name(certificate->x509())) +
           " i: " + summaryOf(X509_get_issuer_name(certificate->x509())) + ">";
}

namespace detail {

CertificateItem certificateItemOf(const SecCertificate& certificate) {
    CertificateItem item;
    X509* x509 = certificate.x509();
    item.type = X509_get_version(x509) + 1;
    item.issuer = derOf(X509_get_issuer_name(x509), i2d_X509_NAME);
    item.serialNumber = derOf(X509_get0_serialNumber(x509), i2d_ASN1_INTEGER);
    item.subject = derOf(X509_get_subject_name(x509), i2d_X509_NAME);
    item.data = certificate.data();
    unsigned char digest[EVP_MAX_MD_SIZE];
    unsigned int size = 0;
    if (EVP_Digest(item.data.data(), item.data.size(), digest, &size, EVP_sha1(), nullptr) == 1)
        item.hash.assign(digest, digest + size);
    return item;
}

}  // namespace detail

}  // namespace Security
