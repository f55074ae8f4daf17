// The AES helpers (the byte-string AES-CBC with its IV in front, and
// CryptoUtils' AES-128-CBC) and CryptoUtils::validateCodeSign against
// programs signed by certificates made here with the openssl tool.
#include "Tovik/CryptoUtils.h"

#include <gtest/gtest.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdlib>
#include <filesystem>
#include <string>
#include <vector>

#include "CommonCrypto/CommonCryptor.h"
#include "Security/SecCertificate.h"
#include "Security/SecItem.h"
#include "Security/SecTrustSettings.h"
#include "Support/MountNamespace.h"
#include "Support/TestSupport.h"
#include "Tovik/DataAES.h"

namespace fs = std::filesystem;
using Tovik::AESError;
using Tovik::CryptoUtils;
using Data = std::vector<uint8_t>;

namespace {

Data bytes(std::string_view text) { return {text.begin(), text.end()}; }

Data fromHex(std::string_view hex) {
    Data data;
    for (size_t i = 0; i + 1 < hex.size(); i += 2)
        data.push_back(uint8_t(std::stoi(std::string(hex.substr(i, 2)), nullptr, 16)));
    return data;
}

/// The AESError that f throws; fails the test when it throws none.
template <class F>
std::optional<AESError> errorOf(F&& f) {
    try {
        f();
    } catch (const AESError& error) {
        return error;
    }
    ADD_FAILURE() << "no AESError";
    return std::nullopt;
}

}  // namespace

TEST(CryptoUtilsTests, DataAESRoundTripsWithItsIVInFront) {
    for (size_t keySize : {16, 24, 32}) {
        const Data key(keySize, 0x5a);
        for (size_t size : {1, 15, 16, 17, 1000}) {
            SCOPED_TRACE(testing::Message() << keySize << "-byte key, " << size << " bytes");
            const Data plain(size, uint8_t(size));
            const Data sealed = Tovik::aesEncrypt(plain, key);
            EXPECT_EQ(sealed.size(), 16 + (size / 16 + 1) * 16);
            EXPECT_NE(Tovik::aesEncrypt(plain, key), sealed) << "the IV is not random";
            EXPECT_EQ(Tovik::aesDecrypt(sealed, key), plain);
        }
    }
    const Data twentyBytes(20, 1);
    EXPECT_EQ(Tovik::aesEncrypt({}, twentyBytes), Data{});
    EXPECT_EQ(Tovik::aesDecrypt({}, twentyBytes), Data{});

    using Kind = AESError::Kind;
    struct Case {
        const char* name;
        std::optional<AESError> error;
        Kind kind;
        const char* message;
        int64_t value;
    } cases[] = {
        {"encrypt, 20-byte key", errorOf([&] { Tovik::aesEncrypt(bytes("x"), twentyBytes); }), Kind::KeyError,
         "Invalid key length", 20},
        {"decrypt, 20-byte key", errorOf([&] { Tovik::aesDecrypt(Data(32, 0), twentyBytes); }), Kind::KeyError,
         "Invalid key length", 20},
        {"shorter than the IV", errorOf([&] { Tovik::aesDecrypt(Data(10, 0), Data(16, 0)); }), Kind::CryptorError,
         "Decryption failed", CommonCrypto::kCCParamError},
        {"not whole blocks", errorOf([&] { Tovik::aesDecrypt(Data(21, 0), Data(16, 0)); }), Kind::CryptorError,
         "Decryption failed", CommonCrypto::kCCAlignmentError},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        ASSERT_TRUE(c.error);
        EXPECT_EQ(c.error->kind(), c.kind);
        EXPECT_STREQ(c.error->what(), c.message);
        EXPECT_EQ(c.error->value(), c.value);
    }
}

TEST(CryptoUtilsTests, KeyMaterialsFirstSixteenBytesAreKeyAndIV) {
    // openssl enc -aes-128-cbc -K <hex of "0123456789abcdef"> -iv <the same>
    const Data expected = fromHex("30e7cbb71cd9d18812e3ee5c3f294563");
    const std::string key = "0123456789abcdef and more";
    EXPECT_EQ(CryptoUtils::aesEncrypt(bytes("hello"), key), expected);
    EXPECT_EQ(CryptoUtils::aesEncrypt(bytes("hello"), bytes("0123456789abcdef")), expected);
    EXPECT_EQ(CryptoUtils::aesDecrypt(expected, key), bytes("hello"));
    EXPECT_EQ(CryptoUtils::aesDecrypt(expected, bytes(key)), bytes("hello"));
    EXPECT_EQ(CryptoUtils::aesDecrypt(expected, "fedcba9876543210"), std::nullopt);
    EXPECT_EQ(CryptoUtils::aesEncrypt(bytes("hello"), "fifteen bytes.."), std::nullopt);
    EXPECT_EQ(CryptoUtils::aesDecrypt(Data(5, 0), key), std::nullopt);
}

namespace {

/// Makes, in folder, a trusted root ("anchors/", hashed for OpenSSL) and an
/// untrusted one, leaf certificates of team QX4HL2ZC8M, and copies of
/// /bin/cat: signed by a code-signing leaf of the trusted root, by one of the
/// untrusted root, by a leaf without code signing, unsigned, and signed and
/// then changed.
bool makeSignedPrograms(const fs::path& folder) {
    const std::string script = R"(set -e
cd ")" + folder.string() + R"("
exec > openssl.log 2>&1
key=(-newkey ec -pkeyopt ec_paramgen_curve:P-256 -nodes)
root() { openssl req -x509 "${key[@]}" -keyout "$1.key" -out "$1.pem" -subj "/CN=$1" -days 2; }
leaf() {  # name root extensions
  printf "$3" > "$1.ext"
  openssl req "${key[@]}" -keyout "$1.key" -out "$1.csr" -subj "/CN=$1/OU=QX4HL2ZC8M/O=Velmora"
  openssl x509 -req -in "$1.csr" -CA "$2.pem" -CAkey "$2.key" -CAcreateserial -out "$1.pem" -days 2 \
    -extfile "$1.ext"
}
program() {  # name signer
  cp /bin/cat "$1"
  [ -z "$2" ] || openssl cms -sign -binary -in "$1" -signer "$2.pem" -inkey "$2.key" -outform DER -out "$1.p7s"
}
root trusted; root untrusted
leaf developer trusted "extendedKeyUsage=codeSigning\nkeyUsage=critical,digitalSignature\n"
leaf outsider untrusted "extendedKeyUsage=codeSigning\n"
leaf server trusted "extendedKeyUsage=serverAuth\n"
program signed developer; program outsiders outsider; program serverSigned server; program unsigned ""
program changed developer; printf x >> changed
mkdir anchors; cp trusted.pem anchors/; openssl rehash anchors
openssl x509 -in untrusted.pem -outform DER -out untrusted.der
)";
    fs::create_directories(folder);
    TestSupport::writeFile(folder / "make.sh", script);
    return std::system(("bash '" + (folder / "make.sh").string() + "'").c_str()) == 0;
}

/// A program that runs until its standard input closes.
class RunningProgram {
public:
    explicit RunningProgram(const fs::path& program) {
        int fds[2];
        if (::pipe(fds) != 0) return;
        posix_spawn_file_actions_t actions;
        posix_spawn_file_actions_init(&actions);
        posix_spawn_file_actions_adddup2(&actions, fds[0], 0);
        posix_spawn_file_actions_addclose(&actions, fds[1]);
        const std::string path = program.string();
        char* argv[] = {const_cast<char*>(path.c_str()), nullptr};
        if (posix_spawn(&pid_, path.c_str(), &actions, nullptr, argv, environ) != 0) pid_ = -1;
        posix_spawn_file_actions_destroy(&actions);
        ::close(fds[0]);
        input_ = fds[1];
    }
    ~RunningProgram() { stop(); }
    pid_t pid() const { return pid_; }
    void stop() {
        if (input_ >= 0) ::close(std::exchange(input_, -1));
        if (pid_ > 0) ::waitpid(std::exchange(pid_, -1), nullptr, 0);
    }

private:
    pid_t pid_ = -1;
    int input_ = -1;
};

}  // namespace

// The trusted root is the sandbox's only CA certificate: its /etc/ssl/certs
// is the folder that holds it.
TEST(CryptoUtilsTests, ValidatesSignaturesOfRunningPrograms) {
    TestSupport::TemporaryDirectory sandbox("sandbox");
    const char* made = getenv("CODE_SIGN_TEST_FOLDER");
    if (!made) {
        const fs::path folder = sandbox / "signing";
        ASSERT_TRUE(makeSignedPrograms(folder)) << TestSupport::readFile(folder / "openssl.log");
        TestSupport::insideSandbox(sandbox.path(), {"SANDBOX_BINDS=/etc/ssl/certs=" + (folder / "anchors").string(),
                                                    "CODE_SIGN_TEST_FOLDER=" + folder.string()});
        return;
    }
    const fs::path folder = made;
    struct Case {
        const char* program;
        const char* team;
        bool valid;
    } cases[] = {
        {"signed", "QX4HL2ZC8M", true},     {"signed", "QX4HL2ZC8N", false},  {"signed", "", false},
        {"outsiders", "QX4HL2ZC8M", false}, {"serverSigned", "QX4HL2ZC8M", false},
        {"unsigned", "QX4HL2ZC8M", false},  {"changed", "QX4HL2ZC8M", false},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(testing::Message() << c.program << " for '" << c.team << "'");
        RunningProgram program(folder / c.program);
        ASSERT_GT(program.pid(), 0);
        EXPECT_EQ(CryptoUtils::validateCodeSign(program.pid(), c.team), c.valid);
        const pid_t pid = program.pid();
        program.stop();
        EXPECT_FALSE(CryptoUtils::validateCodeSign(pid, c.team)) << "the process has ended";
    }

    // The untrusted root in the system keychain becomes a root through its
    // trust settings, unless they deny it.
    const std::string der = TestSupport::readFile(folder / "untrusted.der");
    const auto root = Security::SecCertificateCreateWithData(Data(der.begin(), der.end()));
    ASSERT_TRUE(root);
    ASSERT_EQ(Security::SecItemAdd({{Security::kSecClass, Security::kSecClassCertificate},
                                    {Security::kSecValueRef, Security::SecCertificateCopyData(root)}},
                                   nullptr),
              Security::errSecSuccess);
    const Security::CFDictionary deny{{Security::kSecTrustSettingsResult, int(Security::kSecTrustSettingsResultDeny)}};
    for (const bool trusted : {false, true}) {
        ASSERT_EQ(Security::SecTrustSettingsSetTrustSettings(
                      root, Security::kSecTrustSettingsDomainAdmin,
                      trusted ? std::nullopt : std::optional<Foundation::PropertyList>(deny)),
                  Security::errSecSuccess);
        RunningProgram program(folder / "outsiders");
        ASSERT_GT(program.pid(), 0);
        EXPECT_EQ(CryptoUtils::validateCodeSign(program.pid(), "QX4HL2ZC8M"), trusted);
    }
}
