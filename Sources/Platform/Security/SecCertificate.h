// Certificates: X.509 certificates made from their DER bytes, as the
// platform's SecCertificateRef.
//
// In query dictionaries (SecItem.h) a certificate stands for itself by its DER
// bytes, as data: kSecValueRef = SecCertificateCopyData(certificate), as a
// keychain stands for itself by its path.
//
// References are shared and immutable: every function is thread-safe.
#pragma once

#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <vector>

struct x509_st;  // OpenSSL's X509

namespace Security {

/// One parsed certificate.
class SecCertificate {
public:
    /// Takes over one reference of x509 and keeps its DER bytes.
    SecCertificate(x509_st* x509, std::vector<uint8_t> data);
    ~SecCertificate();
    SecCertificate(const SecCertificate&) = delete;
    SecCertificate& operator=(const SecCertificate&) = delete;

    /// The parsed certificate, owned by this object (never null).
    x509_st* x509() const { return x509_; }
    /// Its DER bytes, exactly as given.
    const std::vector<uint8_t>& data() const { return data_; }

private:
    x509_st* x509_;
    std::vector<uint8_t> data_;
};

/// Shared: copies refer to the same certificate. Null means none.
using SecCertificateRef = std::shared_ptr<const SecCertificate>;

/// The certificate whose DER encoding is data (nothing may follow it); null
/// when data is not one.
SecCertificateRef SecCertificateCreateWithData(const std::vector<uint8_t>& data);

/// The certificate's DER bytes; empty for a null certificate.
std::vector<uint8_t> SecCertificateCopyData(const SecCertificateRef& certificate);

/// A short name for the certificate, as the platform shows it: the subject's
/// last common name, else its last organizational unit, organization or
/// e-mail address, else the whole subject in one line. Nothing for a null
/// certificate.
std::optional<std::string> SecCertificateCopySubjectSummary(const SecCertificateRef& certificate);

/// How the platform prints a certificate: "<cert(0x...) s: <subject summary>
/// i: <issuer summary>>"; "<null>" for a null certificate.
std::string CFCopyDescription(const SecCertificateRef& certificate);

}  // namespace Security
