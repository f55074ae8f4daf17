// AES-CBC with PKCS#7 padding over byte strings, the IV carried in front of
// the ciphertext:
//
//   aesEncrypt(data, key) = IV (16 random bytes) | AES-CBC(data)
//
// The key's length picks AES-128, -192 or -256 (16, 24 or 32 bytes). Empty
// input gives empty output, without an IV and whatever the key. Failures are
// thrown as AESError. Pure functions, callable from any thread.
#pragma once

#include <cstdint>
#include <exception>
#include <string>
#include <vector>

namespace Tovik {

class AESError : public std::exception {
public:
    enum class Kind {
        KeyError,      ///< "Invalid key length"; value: the key's length in bytes
        IVError,       ///< "IV generation failed"; value: the random generator's status
        CryptorError,  ///< "Encryption failed" or "Decryption failed"; value: the cipher's status
    };

    AESError(Kind kind, std::string message, int64_t value)
        : kind_(kind), message_(std::move(message)), value_(value) {}

    Kind kind() const { return kind_; }
    const std::string& message() const { return message_; }
    int64_t value() const { return value_; }
    /// The message.
    const char* what() const noexcept override { return message_.c_str(); }

private:
    Kind kind_;
    std::string message_;
    int64_t value_;
};

/// IV | ciphertext of data under key.
std::vector<uint8_t> aesEncrypt(const std::vector<uint8_t>& data, const std::vector<uint8_t>& key);
/// The plaintext of data (IV | ciphertext) under key. Input shorter than the
/// IV, or whose ciphertext is not whole blocks or not padded right, throws
/// CryptorError "Decryption failed".
std::vector<uint8_t> aesDecrypt(const std::vector<uint8_t>& data, const std::vector<uint8_t>& key);

}  // namespace Tovik
