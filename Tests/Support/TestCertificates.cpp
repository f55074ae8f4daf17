#include "Support/TestCertificates.h"

#include <gtest/gtest.h>
#include <openssl/evp.h>
#include <openssl/x509.h>

#include <memory>

namespace TestSupport {

std::vector<uint8_t> selfSignedCertificate(const std::string& commonName, long serial) {
    std::unique_ptr<EVP_PKEY, decltype(&EVP_PKEY_free)> key(EVP_EC_gen("P-256"), EVP_PKEY_free);
    std::unique_ptr<X509, decltype(&X509_free)> certificate(X509_new(), X509_free);
    bool made = key && certificate && X509_set_version(certificate.get(), X509_VERSION_3) == 1 &&
                ASN1_INTEGER_set(X509_get_serialNumber(certificate.get()), serial) == 1 &&
                X509_gmtime_adj(X509_getm_notBefore(certificate.get()), 0) &&
                X509_gmtime_adj(X509_getm_notAfter(certificate.get()), 24 * 60 * 60);
    X509_NAME* name = X509_get_subject_name(certificate.get());
    made = made &&
           X509_NAME_add_entry_by_txt(name, "CN", MBSTRING_UTF8,
                                      reinterpret_cast<const unsigned char*>(commonName.c_str()), -1, -1, 0) == 1 &&
           X509_set_issuer_name(certificate.get(), name) == 1 && X509_set_pubkey(certificate.get(), key.get()) == 1 &&
           X509_sign(certificate.get(), key.get(), EVP_sha256()) > 0;
    unsigned char* der = nullptr;
    const int length = made ? i2d_X509(certificate.get(), &der) : -1;
    if (length <= 0) {
        ADD_FAILURE() << "OpenSSL could not make a certificate for " << commonName;
        return {};
    }
    std::vector<uint8_t> bytes(der, der + length);
    OPENSSL_free(der);
    return bytes;
}

}  // namespace TestSupport
