#include "Tovik/DataAES.h"

#include "CommonCrypto/CommonCryptor.h"
#include "Security/SecRandom.h"

namespace Tovik {

namespace {

using namespace CommonCrypto;

constexpr size_t ivSize = kCCBlockSizeAES128;

void checkKey(const std::vector<uint8_t>& key) {
    if (key.size() != kCCKeySizeAES128 && key.size() != kCCKeySizeAES192 && key.size() != kCCKeySizeAES256)
        throw AESError(AESError::Kind::KeyError, "Invalid key length", static_cast<int64_t>(key.size()));
}

}  // namespace

std::vector<uint8_t> aesEncrypt(const std::vector<uint8_t>& data, const std::vector<uint8_t>& key) {
    if (data.empty()) return {};
    checkKey(key);
    std::vector<uint8_t> output(data.size() + kCCBlockSizeAES128 + ivSize);
    if (const int status = Security::SecRandomCopyBytes(Security::kSecRandomDefault, ivSize, output.data()))
        throw AESError(AESError::Kind::IVError, "IV generation failed", status);
    size_t produced = 0;
    const CCCryptorStatus status =
        CCCrypt(kCCEncrypt, kCCAlgorithmAES, kCCOptionPKCS7Padding, key.data(), key.size(), output.data(),
                data.data(), data.size(), output.data() + ivSize, output.size() - ivSize, &produced);
    if (status != kCCSuccess) throw AESError(AESError::Kind::CryptorError, "Encryption failed", status);
    output.resize(ivSize + produced);
    return output;
}

std::vector<uint8_t> aesDecrypt(const std::vector<uint8_t>& data, const std::vector<uint8_t>& key) {
    if (data.empty()) return {};
    checkKey(key);
    if (data.size() < ivSize) throw AESError(AESError::Kind::CryptorError, "Decryption failed", kCCParamError);
    std::vector<uint8_t> output(data.size() - ivSize);
    size_t produced = 0;
    const CCCryptorStatus status =
        CCCrypt(kCCDecrypt, kCCAlgorithmAES, kCCOptionPKCS7Padding, key.data(), key.size(), data.data(),
                data.data() + ivSize, data.size() - ivSize, output.data(), output.size(), &produced);
    if (status != kCCSuccess) throw AESError(AESError::Kind::CryptorError, "Decryption failed", status);
    output.resize(produced);
    return output;
}

}  // namespace Tovik
