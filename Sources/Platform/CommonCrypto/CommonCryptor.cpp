#include "CommonCrypto/CommonCryptor.h"

#include <openssl/crypto.h>
#include <openssl/evp.h>

#include <climits>
#include <cstring>
#include <memory>
#include <vector>

namespace CommonCrypto {

namespace {

struct ContextFree {
    void operator()(EVP_CIPHER_CTX* context) const { EVP_CIPHER_CTX_free(context); }
};

const EVP_CIPHER* cipherFor(size_t keyLength, bool ecb) {
    switch (keyLength) {
    case kCCKeySizeAES128: return ecb ? EVP_aes_128_ecb() : EVP_aes_128_cbc();
    case kCCKeySizeAES192: return ecb ? EVP_aes_192_ecb() : EVP_aes_192_cbc();
    case kCCKeySizeAES256: return ecb ? EVP_aes_256_ecb() : EVP_aes_256_cbc();
    default: return nullptr;
    }
}

}  // namespace

CCCryptorStatus CCCrypt(CCOperation op, CCAlgorithm alg, CCOptions options, const void* key, size_t keyLength,
                        const void* iv, const void* dataIn, size_t dataInLength, void* dataOut,
                        size_t dataOutAvailable, size_t* dataOutMoved) {
    if (dataOutMoved) *dataOutMoved = 0;
    if (alg != kCCAlgorithmAES) return kCCUnimplemented;
    if ((op != kCCEncrypt && op != kCCDecrypt) || (options & ~(kCCOptionPKCS7Padding | kCCOptionECBMode)) ||
        key == nullptr || (dataIn == nullptr && dataInLength > 0) || dataInLength > INT_MAX - kCCBlockSizeAES128)
        return kCCParamError;
    const EVP_CIPHER* cipher = cipherFor(keyLength, options & kCCOptionECBMode);
    if (!cipher) return kCCParamError;
    const bool padding = options & kCCOptionPKCS7Padding;
    const bool whole = dataInLength % kCCBlockSizeAES128 == 0;
    if (!whole && (op == kCCDecrypt || !padding)) return kCCAlignmentError;

    // What the call may write: decrypting never yields more than it reads.
    const size_t needed = op == kCCEncrypt && padding ? dataInLength - dataInLength % kCCBlockSizeAES128 +
                                                            kCCBlockSizeAES128
                                                      : dataInLength;
    if (dataOutAvailable < needed) {
        if (dataOutMoved) *dataOutMoved = needed;
        return kCCBufferTooSmall;
    }
    if (dataOut == nullptr && needed > 0) return kCCParamError;

    static const uint8_t zeroIV[kCCBlockSizeAES128] = {};
    std::unique_ptr<EVP_CIPHER_CTX, ContextFree> context(EVP_CIPHER_CTX_new());
    if (!context) return kCCMemoryFailure;
    if (EVP_CipherInit_ex2(context.get(), cipher, static_cast<const uint8_t*>(key),
                           static_cast<const uint8_t*>(iv ? iv : zeroIV), op == kCCEncrypt ? 1 : 0, nullptr) != 1 ||
        EVP_CIPHER_CTX_set_padding(context.get(), padding ? 1 : 0) != 1)
        return kCCParamError;

    // Into a buffer of our own, so that dataOut holds nothing of a failure.
    std::vector<uint8_t> output(needed + kCCBlockSizeAES128);
    int updated = 0, finished = 0;
    if (EVP_CipherUpdate(context.get(), output.data(), &updated, static_cast<const uint8_t*>(dataIn ? dataIn : zeroIV),
                         static_cast<int>(dataInLength)) != 1)
        return kCCParamError;
    if (EVP_CipherFinal_ex(context.get(), output.data() + updated, &finished) != 1) {
        OPENSSL_cleanse(output.data(), output.size());
        return op == kCCDecrypt ? kCCDecodeError : kCCParamError;
    }
    const size_t produced = static_cast<size_t>(updated) + static_cast<size_t>(finished);
    if (produced > 0) std::memcpy(dataOut, output.data(), produced);
    OPENSSL_cleanse(output.data(), output.size());
    if (dataOutMoved) *dataOutMoved = produced;
    return kCCSuccess;
}

}  // namespace CommonCrypto
