// Result codes of the Security calls and their texts.
//
// Every call of this library reports success or failure as an OSStatus with
// the platform's values; the texts are the platform's own.
#pragma once

#include <cstdint>
#include <optional>
#include <string>

namespace Security {

using OSStatus = int32_t;

inline constexpr OSStatus errSecSuccess = 0;
inline constexpr OSStatus errSecUnimplemented = -4;
inline constexpr OSStatus errSecDiskFull = -34;
inline constexpr OSStatus errSecIO = -36;
inline constexpr OSStatus errSecParam = -50;
inline constexpr OSStatus errSecWrPerm = -61;
inline constexpr OSStatus errSecAllocate = -108;
inline constexpr OSStatus errSecNotAvailable = -25291;
inline constexpr OSStatus errSecReadOnly = -25292;
inline constexpr OSStatus errSecAuthFailed = -25293;
inline constexpr OSStatus errSecNoSuchKeychain = -25294;
inline constexpr OSStatus errSecInvalidKeychain = -25295;
inline constexpr OSStatus errSecDuplicateKeychain = -25296;
inline constexpr OSStatus errSecDuplicateItem = -25299;
inline constexpr OSStatus errSecItemNotFound = -25300;
inline constexpr OSStatus errSecDataTooLarge = -25302;
inline constexpr OSStatus errSecNoSuchClass = -25306;
inline constexpr OSStatus errSecInteractionNotAllowed = -25308;
inline constexpr OSStatus errSecWrongSecVersion = -25310;
inline constexpr OSStatus errSecInvalidPrefsDomain = -25319;
inline constexpr OSStatus errSecInvalidTrustSettings = -25262;
inline constexpr OSStatus errSecNoTrustSettings = -25263;
inline constexpr OSStatus errSecDecode = -26275;
inline constexpr OSStatus errSecMissingEntitlement = -34018;
inline constexpr OSStatus errSecInvalidData = -67673;

/// The platform's text for status, e.g. "The specified item could not be
/// found in the keychain." for errSecItemNotFound; nothing for a status
/// without one. `reserved` must be null. Thread-safe.
std::optional<std::string> SecCopyErrorMessageString(OSStatus status, void* reserved = nullptr);

}  // namespace Security
