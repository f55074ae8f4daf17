// Authenticated encryption with AES-GCM, as CryptoKit offers it: symmetric
// keys, sealing a message under a key with a fresh random 12-byte nonce and
// no additional data, and the sealed box's combined form
//
//   nonce (12 bytes) | ciphertext (as long as the message) | tag (16 bytes)
//
// Failures are thrown as CryptoKitError, as CryptoKit throws them. Every
// function is thread-safe; keys and boxes are values.
#pragma once

#include <cstddef>
#include <cstdint>
#include <exception>
#include <span>
#include <vector>

namespace CryptoKit {

class CryptoKitError : public std::exception {
public:
    enum class Kind {
        incorrectKeySize,           ///< a key of another size than 128, 192 or 256 bits
        incorrectParameterSize,     ///< a combined box shorter than nonce and tag
        authenticationFailure,      ///< the tag does not match (wrong key, changed bytes)
        underlyingCoreCryptoError,  ///< the cipher or the random generator failed
    };

    explicit CryptoKitError(Kind kind) : kind_(kind) {}
    Kind kind() const { return kind_; }
    /// "CryptoKitError.<kind>", e.g. "CryptoKitError.authenticationFailure".
    const char* what() const noexcept override;

private:
    Kind kind_;
};

class SymmetricKey {
public:
    enum class Size : size_t { bits128 = 128, bits192 = 192, bits256 = 256 };

    /// A new key of random bytes; throws underlyingCoreCryptoError when the
    /// generator fails.
    explicit SymmetricKey(Size size);
    /// The key made of these bytes, whatever their number (sealing and
    /// opening check it).
    explicit SymmetricKey(std::span<const uint8_t> bytes) : bytes_(bytes.begin(), bytes.end()) {}
    SymmetricKey(const SymmetricKey&) = default;
    SymmetricKey& operator=(const SymmetricKey&) = default;
    /// Overwrites the bytes.
    ~SymmetricKey();

    size_t bitCount() const { return bytes_.size() * 8; }
    const std::vector<uint8_t>& bytes() const { return bytes_; }

private:
    std::vector<uint8_t> bytes_;
};

namespace AES::GCM {

inline constexpr size_t nonceSize = 12;
inline constexpr size_t tagSize = 16;

class SealedBox {
public:
    /// The box in its combined form; throws incorrectParameterSize when it
    /// is shorter than nonceSize + tagSize.
    explicit SealedBox(std::span<const uint8_t> combined);

    std::span<const uint8_t> nonce() const { return {combined_.data(), nonceSize}; }
    std::span<const uint8_t> ciphertext() const {
        return {combined_.data() + nonceSize, combined_.size() - nonceSize - tagSize};
    }
    std::span<const uint8_t> tag() const { return {combined_.data() + combined_.size() - tagSize, tagSize}; }
    const std::vector<uint8_t>& combined() const { return combined_; }

private:
    std::vector<uint8_t> combined_;
};

/// Seals message under key with a new random nonce. Throws incorrectKeySize
/// or underlyingCoreCryptoError.
SealedBox seal(std::span<const uint8_t> message, const SymmetricKey& key);
/// The message of box; throws incorrectKeySize, authenticationFailure or
/// underlyingCoreCryptoError.
std::vector<uint8_t> open(const SealedBox& box, const SymmetricKey& key);

}  // namespace AES::GCM

}  // namespace CryptoKit
