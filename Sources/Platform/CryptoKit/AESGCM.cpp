#include "CryptoKit/AESGCM.h"

#include <openssl/crypto.h>
#include <openssl/evp.h>
#include <openssl/rand.h>

#include <algorithm>
#include <climits>
#include <memory>

namespace CryptoKit {

namespace {

using Kind = CryptoKitError::Kind;

struct ContextFree {
    void operator()(EVP_CIPHER_CTX* context) const { EVP_CIPHER_CTX_free(context); }
};
using Context = std::unique_ptr<EVP_CIPHER_CTX, ContextFree>;

/// The cipher for the key's size, fetched once per process.
const EVP_CIPHER* cipherFor(const SymmetricKey& key) {
    static const EVP_CIPHER* const ciphers[] = {EVP_CIPHER_fetch(nullptr, "AES-128-GCM", nullptr),
                                                EVP_CIPHER_fetch(nullptr, "AES-192-GCM", nullptr),
                                                EVP_CIPHER_fetch(nullptr, "AES-256-GCM", nullptr)};
    const EVP_CIPHER* cipher = nullptr;
    switch (key.bitCount()) {
    case 128: cipher = ciphers[0]; break;
    case 192: cipher = ciphers[1]; break;
    case 256: cipher = ciphers[2]; break;
    default: throw CryptoKitError(Kind::incorrectKeySize);
    }
    if (!cipher) throw CryptoKitError(Kind::underlyingCoreCryptoError);
    return cipher;
}

void check(bool succeeded, Kind kind = Kind::underlyingCoreCryptoError) {
    if (!succeeded) throw CryptoKitError(kind);
}

/// Runs the cipher over input into output (as long as input), in pieces
/// that fit its int lengths.
void update(EVP_CIPHER_CTX* context, std::span<const uint8_t> input, uint8_t* output) {
    while (!input.empty()) {
        const int piece = static_cast<int>(std::min<size_t>(input.size(), INT_MAX / 2));
        int written = 0;
        check(EVP_CipherUpdate(context, output, &written, input.data(), piece) == 1 && written == piece);
        input = input.subspan(static_cast<size_t>(piece));
        output += piece;
    }
}

}  // namespace

const char* CryptoKitError::what() const noexcept {
    switch (kind_) {
    case Kind::incorrectKeySize: return "CryptoKitError.incorrectKeySize";
    case Kind::incorrectParameterSize: return "CryptoKitError.incorrectParameterSize";
    case Kind::authenticationFailure: return "CryptoKitError.authenticationFailure";
    case Kind::underlyingCoreCryptoError: break;
    }
    return "CryptoKitError.underlyingCoreCryptoError";
}

SymmetricKey::SymmetricKey(Size size) : bytes_(static_cast<size_t>(size) / 8) {
    check(RAND_bytes(bytes_.data(), static_cast<int>(bytes_.size())) == 1);
}

SymmetricKey::~SymmetricKey() { OPENSSL_cleanse(bytes_.data(), bytes_.size()); }

namespace AES::GCM {

SealedBox::SealedBox(std::span<const uint8_t> combined) : combined_(combined.begin(), combined.end()) {
    check(combined_.size() >= nonceSize + tagSize, Kind::incorrectParameterSize);
}

SealedBox seal(std::span<const uint8_t> message, const SymmetricKey& key) {
    const EVP_CIPHER* cipher = cipherFor(key);
    std::vector<uint8_t> combined(nonceSize + message.size() + tagSize);
    check(RAND_bytes(combined.data(), static_cast<int>(nonceSize)) == 1);
    Context context(EVP_CIPHER_CTX_new());
    check(context && EVP_EncryptInit_ex2(context.get(), cipher, key.bytes().data(), combined.data(), nullptr) == 1);
    update(context.get(), message, combined.data() + nonceSize);
    int written = 0;
    check(EVP_EncryptFinal_ex(context.get(), combined.data() + nonceSize + message.size(), &written) == 1 &&
          written == 0);
    check(EVP_CIPHER_CTX_ctrl(context.get(), EVP_CTRL_AEAD_GET_TAG, static_cast<int>(tagSize),
                              combined.data() + nonceSize + message.size()) == 1);
    return SealedBox(combined);
}

std::vector<uint8_t> open(const SealedBox& box, const SymmetricKey& key) {
    const EVP_CIPHER* cipher = cipherFor(key);
    const auto ciphertext = box.ciphertext();
    std::vector<uint8_t> message(ciphertext.size());
    Context context(EVP_CIPHER_CTX_new());
    check(context && EVP_DecryptInit_ex2(context.get(), cipher, key.bytes().data(), box.nonce().data(), nullptr) == 1);
    update(context.get(), ciphertext, message.data());
    std::vector<uint8_t> tag(box.tag().begin(), box.tag().end());
    check(EVP_CIPHER_CTX_ctrl(context.get(), EVP_CTRL_AEAD_SET_TAG, static_cast<int>(tagSize), tag.data()) == 1);
    int written = 0;
    if (EVP_DecryptFinal_ex(context.get(), message.data() + message.size(), &written) != 1) {
        OPENSSL_cleanse(message.data(), message.size());
        throw CryptoKitError(Kind::authenticationFailure);
    }
    return message;
}

}  // namespace AES::GCM

}  // namespace CryptoKit
