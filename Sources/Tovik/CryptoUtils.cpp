#include "Tovik/CryptoUtils.h"

#include "CommonCrypto/CommonCryptor.h"
#include "Security/SecCode.h"

namespace Tovik {

namespace {

using namespace CommonCrypto;

std::optional<CryptoUtils::Data> crypt(CCOperation operation, const CryptoUtils::Data& data, const uint8_t* key,
                                       size_t keyLength) {
    if (keyLength < kCCKeySizeAES128) return std::nullopt;
    CryptoUtils::Data output(data.size() + kCCBlockSizeAES128);
    size_t produced = 0;
    if (CCCrypt(operation, kCCAlgorithmAES, kCCOptionPKCS7Padding, key, kCCKeySizeAES128, key, data.data(),
                data.size(), output.data(), output.size(), &produced) != kCCSuccess)
        return std::nullopt;
    output.resize(produced);
    return output;
}

const uint8_t* bytesOf(const std::string& text) { return reinterpret_cast<const uint8_t*>(text.data()); }

}  // namespace

std::optional<CryptoUtils::Data> CryptoUtils::aesEncrypt(const Data& data, const std::string& key) {
    return crypt(kCCEncrypt, data, bytesOf(key), key.size());
}

std::optional<CryptoUtils::Data> CryptoUtils::aesEncrypt(const Data& data, const Data& keyData) {
    return crypt(kCCEncrypt, data, keyData.data(), keyData.size());
}

std::optional<CryptoUtils::Data> CryptoUtils::aesDecrypt(const Data& data, const std::string& key) {
    return crypt(kCCDecrypt, data, bytesOf(key), key.size());
}

std::optional<CryptoUtils::Data> CryptoUtils::aesDecrypt(const Data& data, const Data& keyData) {
    return crypt(kCCDecrypt, data, keyData.data(), keyData.size());
}

bool CryptoUtils::validateCodeSign(pid_t pid, const std::string& teamIdentifier) {
    using namespace Security;
    if (teamIdentifier.empty()) return false;
    SecRequirementRef requirement;
    if (SecRequirementCreateWithString("certificate leaf[subject.OU] = " + teamIdentifier, kSecCSDefaultFlags,
                                       &requirement) != errSecSuccess)
        return false;
    SecCodeRef code;
    if (SecCodeCopyGuestWithAttributes(nullptr, {{kSecGuestAttributePid, pid}}, kSecCSDefaultFlags, &code) !=
        errSecSuccess)
        return false;
    return SecCodeCheckValidity(code, kSecCSDefaultFlags, requirement) == errSecSuccess;
}

}  // namespace Tovik
