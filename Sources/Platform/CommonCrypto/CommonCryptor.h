// CommonCrypto's one-shot symmetric cipher call, CCCrypt, for AES in CBC
// (or ECB) mode with optional PKCS#7 padding.
//
// Only AES is provided; the other algorithms answer kCCUnimplemented. The
// call is thread-safe and keeps no state.
#pragma once

#include <cstddef>
#include <cstdint>

namespace CommonCrypto {

using CCCryptorStatus = int32_t;
inline constexpr CCCryptorStatus kCCSuccess = 0;
inline constexpr CCCryptorStatus kCCParamError = -4300;
inline constexpr CCCryptorStatus kCCBufferTooSmall = -4301;
inline constexpr CCCryptorStatus kCCMemoryFailure = -4302;
inline constexpr CCCryptorStatus kCCAlignmentError = -4303;
inline constexpr CCCryptorStatus kCCDecodeError = -4304;
inline constexpr CCCryptorStatus kCCUnimplemented = -4305;

using CCOperation = uint32_t;
inline constexpr CCOperation kCCEncrypt = 0;
inline constexpr CCOperation kCCDecrypt = 1;

using CCAlgorithm = uint32_t;
inline constexpr CCAlgorithm kCCAlgorithmAES = 0;
inline constexpr CCAlgorithm kCCAlgorithmAES128 = kCCAlgorithmAES;

using CCOptions = uint32_t;
inline constexpr CCOptions kCCOptionPKCS7Padding = 0x0001;
inline constexpr CCOptions kCCOptionECBMode = 0x0002;

inline constexpr size_t kCCKeySizeAES128 = 16;
inline constexpr size_t kCCKeySizeAES192 = 24;
inline constexpr size_t kCCKeySizeAES256 = 32;
inline constexpr size_t kCCBlockSizeAES128 = 16;

/// Encrypts or decrypts dataIn into dataOut in one call. The key length
/// picks AES-128, -192 or -256 (another length: kCCParamError); iv is one
/// block, all zeros when null, unused in ECB mode. *dataOutMoved (when not
/// null) receives the bytes written, or with kCCBufferTooSmall the bytes
/// needed. kCCAlignmentError for input that is not whole blocks where it must
/// be (without padding, or when decrypting), kCCDecodeError for decrypted
/// padding that is not PKCS#7. dataOut is left unchanged on failure.
CCCryptorStatus CCCrypt(CCOperation op, CCAlgorithm alg, CCOptions options, const void* key, size_t keyLength,
                        const void* iv, const void* dataIn, size_t dataInLength, void* dataOut,
                        size_t dataOutAvailable, size_t* dataOutMoved);

}  // namespace CommonCrypto
