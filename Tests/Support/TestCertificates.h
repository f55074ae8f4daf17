// Certificates made for tests with OpenSSL.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

namespace TestSupport {

/// The DER of a self-signed certificate (a fresh P-256 key) for commonName
/// with serial number serial, valid for a day. Fails the current test and
/// returns nothing when OpenSSL fails.
std::vector<uint8_t> selfSignedCertificate(const std::string& commonName, long serial = 1);

}  // namespace TestSupport
