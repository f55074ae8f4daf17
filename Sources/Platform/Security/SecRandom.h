// Cryptographically secure random bytes (OpenSSL's generator).
#pragma once

#include <cstddef>

namespace Security {

struct SecRandom;
using SecRandomRef = const SecRandom*;
/// The system's default generator, the only one there is.
inline constexpr SecRandomRef kSecRandomDefault = nullptr;

/// Fills bytes with count random bytes. errSecSuccess (0); errSecParam for
/// another generator than kSecRandomDefault or null bytes with a count; -1
/// when the generator fails (bytes then hold no secret). Thread-safe.
int SecRandomCopyBytes(SecRandomRef rnd, size_t count, void* bytes);

}  // namespace Security
