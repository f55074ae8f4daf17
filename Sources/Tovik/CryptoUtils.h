// AES-128-CBC with PKCS#7 padding keyed by the first 16 bytes of the key
// material, which also serve as the IV (the output carries no IV), and a
// check that another process is signed by a given developer team.
//
// No state: every member is static and callable from any thread. Failures
// are absent results or false; nothing is logged or thrown.
#pragma once

#include <sys/types.h>

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

namespace Tovik {

class CryptoUtils {
public:
    using Data = std::vector<uint8_t>;

    CryptoUtils() = delete;

    /// Key material: the key text's UTF-8 bytes, or keyData. Absent when the
    /// material is shorter than 16 bytes or the cipher fails (for decryption:
    /// input that is not whole blocks, or padding that is wrong, which is
    /// what a wrong key mostly gives).
    static std::optional<Data> aesEncrypt(const Data& data, const std::string& key);
    static std::optional<Data> aesEncrypt(const Data& data, const Data& keyData);
    static std::optional<Data> aesDecrypt(const Data& data, const std::string& key);
    static std::optional<Data> aesDecrypt(const Data& data, const Data& keyData);

    /// Whether the process pid runs code whose signature is valid and whose
    /// signer's leaf certificate has the subject OU teamIdentifier (see
    /// Security/SecCode.h for what a signature is here). False for an empty
    /// team identifier, without looking the process up.
    static bool validateCodeSign(pid_t pid, const std::string& teamIdentifier);
};

}  // namespace Tovik
