// The Security calls over keychain files. Tests that use keychains run in
// scripts/sandbox.sh, each in a fresh process (no open connections) with a
// /Library and a root's home of its own, as root unless they say otherwise.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <pwd.h>
#include <signal.h>
#include <sqlite3.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <cstdio>
#include <filesystem>
#include <functional>
#include <string>
#include <thread>
#include <vector>

#include "Security/SecBase.h"
#include "Security/SecCertificate.h"
#include "Security/SecItem.h"
#include "Security/SecKeychain.h"
#include "Security/SecRandom.h"
#include "Security/SecTrustSettings.h"
#include "Support/MountNamespace.h"
#include "Support/TestCertificates.h"
#include "Support/TestSupport.h"

namespace fs = std::filesystem;
using namespace Security;
using Foundation::PropertyList;
using TestSupport::insideSandbox;
using TestSupport::TemporaryDirectory;

namespace {

const fs::path systemKeychain = "/Library/Keychains/System.keychain";

PropertyList::Data bytes(std::string_view text) { return {text.begin(), text.end()}; }

/// A generic-password query for service and account (left out when empty),
/// with more entries.
CFDictionary item(const std::string& service, const std::string& account, const CFDictionary& more = {}) {
    CFDictionary query{{kSecClass, kSecClassGenericPassword}};
    if (!service.empty()) query[kSecAttrService] = service;
    if (!account.empty()) query[kSecAttrAccount] = account;
    for (const auto& [key, value] : more) query[key] = value;
    return query;
}

struct FileFacts {
    mode_t mode = 0;
    uid_t owner = 0;
};
FileFacts factsOf(const fs::path& path) {
    struct stat info {};
    if (::stat(path.c_str(), &info) != 0) return {};
    return {info.st_mode & 07777, info.st_uid};
}

/// Whether the SQLite header of the file says WAL (bytes 18 and 19 are 2).
bool inWalMode(const fs::path& path) {
    const std::string header = TestSupport::readFile(path).substr(0, 20);
    return header.size() == 20 && header[18] == 2 && header[19] == 2;
}

enum class Call { add, copy, update, remove };

OSStatus call(Call which, const CFDictionary& query, const CFDictionary& changes, CFTypeRef* result) {
    switch (which) {
    case Call::add: return SecItemAdd(query, result);
    case Call::copy: return SecItemCopyMatching(query, result);
    case Call::update: return SecItemUpdate(query, changes);
    case Call::remove: return SecItemDelete(query);
    }
    return errSecUnimplemented;
}

struct Step {
    const char* what;
    Call call;
    CFDictionary query;
    OSStatus status;
    CFTypeRef result = std::nullopt;  // expected from a copy that succeeds
    CFDictionary changes = {};
};

void runSteps(const std::vector<Step>& steps) {
    for (const Step& step : steps) {
        CFTypeRef result;
        EXPECT_EQ(call(step.call, step.query, step.changes, &result), step.status) << step.what;
        if (step.call == Call::copy && step.status == errSecSuccess) {
            EXPECT_EQ(result, step.result) << step.what;
        }
    }
}

}  // namespace

TEST(SecurityTests, ItemCallsAnswerWithThePlatformsStatuses) {
    TemporaryDirectory sandbox("sandbox");
    if (!insideSandbox(sandbox.path())) return;
    const CFDictionary data{{kSecReturnData, true}};
    const CFDictionary all{{kSecReturnData, true}, {kSecMatchLimit, kSecMatchLimitAll}};
    const CFDictionary protectedG{{kSecUseDataProtectionKeychain, true}, {kSecAttrAccessGroup, "G"}};
    auto with = [](CFDictionary a, const CFDictionary& b) {
        for (const auto& [key, value] : b) a[key] = value;
        return a;
    };
    using enum Call;
    runSteps({
        {"nothing to find yet", copy, item("s", "a", data), errSecItemNotFound},
        {"nothing to update yet", update, item("s", "a"), errSecItemNotFound, {}, {{kSecAttrLabel, "x"}}},
        {"nothing to delete yet", remove, item("s", "a"), errSecItemNotFound},
        {"add s/a", add, item("s", "a", {{kSecValueData, bytes("1")}, {kSecAttrLabel, "L"}}), errSecSuccess},
        {"add s/a again", add, item("s", "a", {{kSecValueData, bytes("2")}}), errSecDuplicateItem},
        {"add s/b without data", add, item("s", "b"), errSecSuccess},
        {"add t/a", add, item("t", "a", {{kSecValueData, bytes("3")}}), errSecSuccess},
        {"the first add's data stays", copy, item("s", "a", data), errSecSuccess, bytes("1")},
        {"limit one is the default; by service first", copy, item("", "a", data), errSecSuccess, bytes("1")},
        {"limit all gives an array", copy, item("s", "", all), errSecSuccess,
         PropertyList::Array{bytes("1"), bytes("")}},
        {"a number limit other than one gives an array", copy, item("", "", with(data, {{kSecMatchLimit, 2}})),
         errSecSuccess, PropertyList::Array{bytes("1"), bytes("")}},
        {"by label", copy, item("", "", with(data, {{kSecAttrLabel, "L"}})), errSecSuccess, bytes("1")},
        {"found, nothing asked back", copy, item("s", "a"), errSecSuccess, std::nullopt},
        {"update s/a", update, item("s", "a"), errSecSuccess, {}, {{kSecValueData, bytes("4")}}},
        {"updated", copy, item("s", "a", data), errSecSuccess, bytes("4")},
        {"t/a may not become s/a", update, item("t", "a"), errSecDuplicateItem, {}, {{kSecAttrService, "s"}}},
        {"t/a kept", copy, item("t", "a", data), errSecSuccess, bytes("3")},
        {"update every match", update, item("s", "", {{kSecMatchLimit, kSecMatchLimitOne}}), errSecSuccess, {},
         {{kSecAttrLabel, "M"}}},
        {"both updated", copy, item("", "", with(all, {{kSecAttrLabel, "M"}})), errSecSuccess,
         PropertyList::Array{bytes("4"), bytes("")}},
        {"nothing to update with", update, item("s", "a"), errSecParam},
        {"no class in an update", update, item("s", "a"), errSecParam, {}, {{kSecClass, kSecClassGenericPassword}}},
        {"no class", add, {{kSecAttrService, "s"}}, errSecParam},
        {"a certificate needs its ref", add, {{kSecClass, kSecClassCertificate}}, errSecParam},
        {"keys are not kept", add, {{kSecClass, kSecClassKey}}, errSecUnimplemented},
        {"no such class", add, {{kSecClass, "nope"}}, errSecNoSuchClass},
        {"a service that is no string", add, {{kSecClass, kSecClassGenericPassword}, {kSecAttrService, 7}},
         errSecParam},
        {"data that is no data", add, item("s", "z", {{kSecValueData, "text"}}), errSecParam},
        {"data in a search", copy, item("s", "a", {{kSecValueData, bytes("4")}}), errSecParam},
        {"limit zero", copy, item("s", "a", {{kSecMatchLimit, 0}}), errSecParam},
        {"return flag that is no boolean", copy, item("s", "a", {{kSecReturnData, "yes"}}), errSecParam},
        {"unknown key", add, item("s", "z", {{"xyz", 1}}), errSecParam},
        {"data protection and a keychain", add, item("s", "z", with(protectedG, {{kSecUseKeychain, "/x"}})),
         errSecParam},
        {"search list that is no array", copy, item("s", "a", {{kSecMatchSearchList, "/x"}}), errSecParam},
        {"add to group G", add, item("s", "a", with(protectedG, {{kSecValueData, bytes("g")}})), errSecSuccess},
        {"again to group G", add, item("s", "a", protectedG), errSecDuplicateItem},
        {"add to group H", add,
         item("s", "a", {{kSecUseDataProtectionKeychain, true}, {kSecAttrAccessGroup, "H"}, {kSecValueData, bytes("h")}}),
         errSecSuccess},
        {"group G", copy, item("s", "a", with(data, protectedG)), errSecSuccess, bytes("g")},
        {"no group: every group", copy, item("s", "a", with(all, {{kSecUseDataProtectionKeychain, true}})),
         errSecSuccess, PropertyList::Array{bytes("g"), bytes("h")}},
        {"groups are not in the file keychain", copy, item("s", "", with(data, {{kSecAttrAccessGroup, "G"}})),
         errSecItemNotFound},
        {"delete both groups", remove, item("s", "a", {{kSecUseDataProtectionKeychain, true}}), errSecSuccess},
        {"groups gone", copy, item("s", "a", with(data, {{kSecUseDataProtectionKeychain, true}})),
         errSecItemNotFound},
        {"the file keychain kept s/a", copy, item("s", "a", data), errSecSuccess, bytes("4")},
        {"search a named keychain", copy,
         item("s", "a", with(data, {{kSecMatchSearchList, PropertyList::Array{systemKeychain.string()}}})),
         errSecSuccess, bytes("4")},
        {"search a keychain that does not exist", copy,
         item("s", "a", {{kSecMatchSearchList, PropertyList::Array{"/tmp/none.keychain-db"}}}),
         errSecNoSuchKeychain},
        {"add to a keychain that does not exist", add, item("s", "z", {{kSecUseKeychain, "/tmp/none.keychain-db"}}),
         errSecNoSuchKeychain},
        {"delete deletes every match", remove, item("s", ""), errSecSuccess},
        {"s gone", copy, item("s", "", data), errSecItemNotFound},
        {"delete again", remove, item("s", ""), errSecItemNotFound},
        {"t/a stays", copy, item("t", "a", data), errSecSuccess, bytes("3")},
    });

    // Attributes, and what an add returns when asked.
    CFTypeRef added;
    ASSERT_EQ(SecItemAdd(item("u", "a", {{kSecAttrLabel, "L"}, {kSecValueData, bytes("5")}, {kSecReturnAttributes, true}}),
                         &added),
              errSecSuccess);
    ASSERT_TRUE(added && added->get<CFDictionary>());
    CFDictionary attributes = *added->get<CFDictionary>();
    ASSERT_TRUE(attributes.count(kSecAttrCreationDate) && attributes.count(kSecAttrModificationDate));
    EXPECT_EQ(attributes[kSecAttrCreationDate], attributes[kSecAttrModificationDate]);
    attributes.erase(kSecAttrCreationDate);
    attributes.erase(kSecAttrModificationDate);
    EXPECT_EQ(attributes, (CFDictionary{{kSecClass, kSecClassGenericPassword},
                                        {kSecAttrService, "u"},
                                        {kSecAttrAccount, "a"},
                                        {kSecAttrLabel, "L"}}));
    CFTypeRef found;
    ASSERT_EQ(SecItemCopyMatching(item("u", "a", {{kSecReturnAttributes, true}, {kSecReturnData, true}}), &found),
              errSecSuccess);
    EXPECT_EQ(found->get<CFDictionary>()->at(kSecValueData), bytes("5"));

    // The files: made on first use, 0600, root's, in WAL mode.
    const fs::path dataProtection = fs::path(getpwuid(0)->pw_dir) / "Library/Keychains/keychain-2.db";
    EXPECT_EQ(factsOf(systemKeychain).mode, 0600u);
    EXPECT_EQ(factsOf(systemKeychain.parent_path()).mode, 0755u);
    EXPECT_EQ(factsOf(dataProtection).mode, 0600u);
    EXPECT_EQ(factsOf(dataProtection.parent_path()).mode, 0700u);
    EXPECT_EQ(factsOf(dataProtection).owner, 0u);
    EXPECT_TRUE(inWalMode(systemKeychain));
    EXPECT_TRUE(inWalMode(dataProtection));
}

TEST(SecurityTests, CertificateItemsAndTrustSettings) {
    TemporaryDirectory sandbox("sandbox");
    if (!insideSandbox(sandbox.path())) return;
    const PropertyList::Data one = TestSupport::selfSignedCertificate("One", 1),
                             two = TestSupport::selfSignedCertificate("Two", 2),
                             three = TestSupport::selfSignedCertificate("Three", 3);
    PropertyList::Data trailing = one;
    trailing.push_back(0);
    EXPECT_EQ(SecCertificateCreateWithData(bytes("no certificate")), nullptr);
    EXPECT_EQ(SecCertificateCreateWithData(trailing), nullptr);
    const SecCertificateRef first = SecCertificateCreateWithData(one);
    ASSERT_TRUE(first);
    EXPECT_EQ(SecCertificateCopyData(first), one);
    EXPECT_EQ(SecCertificateCopySubjectSummary(first), "One");

    // A keychain of the first schema (certificate and trust-settings tables
    // that were never used) as the system keychain: brought up to date, its
    // items kept.
    fs::create_directories(systemKeychain.parent_path());
    fs::copy_file(TOVIK_SOURCE_DIR "/Tests/Fuzz/corpus/KeychainFile/two-items", systemKeychain);
    EXPECT_EQ(SecItemCopyMatching(item("com.velmora.mac.vpn", "token"), nullptr), errSecSuccess);

    const fs::path other = sandbox / "other.keychain-db";
    TestSupport::writeFile(other, "");
    auto certificate = [](const PropertyList::Data& der, CFDictionary more = {}) {
        more[kSecClass] = kSecClassCertificate;
        more[kSecValueRef] = der;
        return more;
    };
    auto labelled = [](const std::string& label, CFDictionary more = {}) {
        more[kSecClass] = kSecClassCertificate;
        more[kSecAttrLabel] = label;
        return more;
    };
    const CFDictionary all{{kSecReturnData, true}, {kSecMatchLimit, kSecMatchLimitAll}};
    using enum Call;
    runSteps({
        {"add One as L", add, certificate(one, {{kSecAttrLabel, "L"}}), errSecSuccess},
        {"One again, under another label", add, certificate(one, {{kSecAttrLabel, "M"}}), errSecDuplicateItem},
        {"add Two as L", add, certificate(two, {{kSecAttrLabel, "L"}}), errSecSuccess},
        {"add Three to another keychain", add, certificate(three, {{kSecUseKeychain, other.string()}}),
         errSecSuccess},
        {"labelled with its subject summary there", copy,
         labelled("Three", {{kSecReturnRef, true}, {kSecMatchSearchList, PropertyList::Array{other.string()}}}),
         errSecSuccess, three},
        {"not in the default keychains", copy, labelled("Three"), errSecItemNotFound},
        {"found by the certificate", copy, certificate(two, {{kSecReturnData, true}}), errSecSuccess, two},
        {"every L", copy, labelled("L", all), errSecSuccess, PropertyList::Array{one, two}},
        {"a certificate has no data", add, certificate(three, {{kSecValueData, bytes("x")}}), errSecParam},
        {"a ref that is no certificate", add, certificate(bytes("x")), errSecParam},
        {"no service for a certificate", copy, labelled("L", {{kSecAttrService, "s"}}), errSecParam},
        {"no updates of certificates", update, labelled("L"), errSecUnimplemented, {}, {{kSecAttrLabel, "N"}}},
        {"delete every L", remove, labelled("L", {{kSecMatchLimit, kSecMatchLimitAll}}), errSecSuccess},
        {"L gone", copy, labelled("L"), errSecItemNotFound},
        {"nothing left to delete", remove, labelled("L"), errSecItemNotFound},
        {"the passwords stay", copy, item("vpn_helper", "storage"), errSecSuccess},
    });
    CFTypeRef found;
    ASSERT_EQ(SecItemCopyMatching(labelled("Three", {{kSecReturnAttributes, true},
                                                     {kSecMatchSearchList, PropertyList::Array{other.string()}}}),
                                  &found),
              errSecSuccess);
    const CFDictionary& attributes = *found->get<CFDictionary>();
    EXPECT_EQ(attributes.at(kSecClass), kSecClassCertificate);
    EXPECT_EQ(attributes.at(kSecAttrCertificateType), 3);

    // Trust settings: per domain (root's user and admin domains share the
    // system keychain), replaced by each set.
    PropertyList::Array settings{PropertyList("untouched")};
    EXPECT_EQ(SecTrustSettingsCopyTrustSettings(first, kSecTrustSettingsDomainUser, &settings), errSecItemNotFound);
    EXPECT_EQ(settings, PropertyList::Array{PropertyList("untouched")});
    ASSERT_EQ(SecTrustSettingsSetTrustSettings(first, kSecTrustSettingsDomainUser, std::nullopt), errSecSuccess);
    EXPECT_EQ(SecTrustSettingsCopyTrustSettings(first, kSecTrustSettingsDomainUser, &settings), errSecSuccess);
    EXPECT_EQ(settings, PropertyList::Array{});
    EXPECT_EQ(SecTrustSettingsCopyTrustSettings(first, kSecTrustSettingsDomainAdmin, &settings), errSecItemNotFound);
    const CFDictionary deny{{kSecTrustSettingsResult, int(kSecTrustSettingsResultDeny)},
                            {kSecTrustSettingsPolicyString, "example.com"}};
    ASSERT_EQ(SecTrustSettingsSetTrustSettings(first, kSecTrustSettingsDomainUser, PropertyList(deny)), errSecSuccess);
    EXPECT_EQ(SecTrustSettingsCopyTrustSettings(first, kSecTrustSettingsDomainUser, &settings), errSecSuccess);
    EXPECT_EQ(settings, PropertyList::Array{deny});
    for (const PropertyList& wrong : {PropertyList(CFDictionary{{kSecTrustSettingsResult, 0}}),
                                      PropertyList(CFDictionary{{kSecTrustSettingsResult, "1"}}),
                                      PropertyList(CFDictionary{{"kSecTrustSettingsWhatever", 1}}),
                                      PropertyList(PropertyList::Array{"not a dictionary"})}) {
        EXPECT_EQ(SecTrustSettingsSetTrustSettings(first, kSecTrustSettingsDomainAdmin, wrong), errSecParam);
    }
    EXPECT_EQ(SecTrustSettingsSetTrustSettings(nullptr, kSecTrustSettingsDomainAdmin, std::nullopt), errSecParam);
    EXPECT_EQ(SecTrustSettingsSetTrustSettings(first, SecTrustSettingsDomain(3), std::nullopt), errSecParam);

    // The certificates that have settings are those of the domain's keychain.
    std::vector<SecCertificateRef> withSettings;
    EXPECT_EQ(SecTrustSettingsCopyCertificates(kSecTrustSettingsDomainUser, &withSettings), errSecNoTrustSettings);
    ASSERT_EQ(SecItemAdd(certificate(one), nullptr), errSecSuccess);
    ASSERT_EQ(SecTrustSettingsCopyCertificates(kSecTrustSettingsDomainUser, &withSettings), errSecSuccess);
    ASSERT_EQ(withSettings.size(), 1u);
    EXPECT_EQ(SecCertificateCopyData(withSettings.front()), one);
    EXPECT_EQ(SecTrustSettingsCopyCertificates(kSecTrustSettingsDomainAdmin, &withSettings), errSecNoTrustSettings);
}

TEST(SecurityTests, SearchListsAndTheEffectiveUsersOwnKeychain) {
    TemporaryDirectory sandbox("sandbox");
    {
        const fs::path home = sandbox / "tester";
        std::string binds = TestSupport::userDatabaseBinds(sandbox.path(), "/root");
        TestSupport::writeFile(sandbox / "passwd", TestSupport::readFile(sandbox / "passwd") + "tester:x:4242:4242::" +
                                                       home.string() + ":/bin/sh\n");
        fs::create_directories(home);
        ASSERT_EQ(::chown(home.c_str(), 4242, 4242), 0);
        fs::permissions(sandbox.path(), fs::perms::owner_all | fs::perms::group_exec | fs::perms::others_exec);
        if (!insideSandbox(sandbox.path(), {binds})) return;
    }
    ASSERT_NE(getpwuid(4242), nullptr);
    const fs::path home = getpwuid(4242)->pw_dir;
    setenv("HOME", "/nonexistent", 1);

    auto paths = [](SecPreferencesDomain domain, OSStatus expected) {
        std::vector<SecKeychainRef> list;
        EXPECT_EQ(SecKeychainCopyDomainSearchList(domain, &list), expected) << domain;
        std::vector<fs::path> result;
        for (const auto& keychain : list) result.push_back(keychain->path());
        return result;
    };
    const std::vector<fs::path> system{systemKeychain}, none;
    EXPECT_EQ(paths(kSecPreferencesDomainUser, errSecSuccess), system);  // root's login keychain
    EXPECT_EQ(paths(kSecPreferencesDomainSystem, errSecSuccess), system);
    EXPECT_EQ(paths(kSecPreferencesDomainCommon, errSecSuccess), none);
    EXPECT_EQ(paths(kSecPreferencesDomainDynamic, errSecSuccess), none);
    EXPECT_EQ(paths(SecPreferencesDomain(7), errSecInvalidPrefsDomain), none);
    ASSERT_EQ(SecItemAdd(item("s", "root", {{kSecValueData, bytes("r")}}), nullptr), errSecSuccess);

    // Another effective user: its own login keychain, found through the user
    // database, not $HOME; the system keychain, which it may not open, is
    // passed over in searches.
    ASSERT_EQ(::seteuid(4242), 0);
    const fs::path login = home / "Library/Keychains/login.keychain-db";
    EXPECT_EQ(paths(kSecPreferencesDomainUser, errSecSuccess), std::vector<fs::path>{login});
    EXPECT_EQ(SecItemAdd(item("s", "tester", {{kSecValueData, bytes("t")}}), nullptr), errSecSuccess);
    CFTypeRef found;
    EXPECT_EQ(SecItemCopyMatching(item("s", "", {{kSecReturnData, true}, {kSecMatchLimit, kSecMatchLimitAll}}), &found),
              errSecSuccess);
    EXPECT_EQ(found, PropertyList(PropertyList::Array{bytes("t")}));
    EXPECT_EQ(SecItemAdd(item("s", "x", {{kSecUseKeychain, systemKeychain.string()}}), nullptr), errSecNotAvailable);
    ASSERT_EQ(::seteuid(0), 0);
    EXPECT_EQ(factsOf(login).owner, 4242u);
    EXPECT_EQ(factsOf(login).mode, 0600u);
    EXPECT_EQ(factsOf(home / "Library").mode, 0700u);
    EXPECT_EQ(factsOf(home / "Library/Keychains").mode, 0700u);
}

TEST(SecurityTests, FilesThatAreNoKeychainGiveAStatus) {
    TemporaryDirectory sandbox("sandbox");
    if (!insideSandbox(sandbox.path())) return;
    const CFDictionary query = item("s", "a", {{kSecReturnData, true}});

    // A system keychain replaced by a file that is not a database fails every
    // call, never the caller; once a good file is put in its place it is used.
    std::string garbage(8192, '\0');
    for (size_t i = 0; i < garbage.size(); ++i) garbage[i] = char(i * 7919 % 251);
    auto replaceSystemKeychain = [](const std::string& bytes) {
        TestSupport::writeFile(systemKeychain.parent_path() / "new", bytes);
        fs::rename(systemKeychain.parent_path() / "new", systemKeychain);
        fs::remove(systemKeychain.string() + "-wal");  // the old file's
        fs::remove(systemKeychain.string() + "-shm");
    };
    ASSERT_EQ(SecItemAdd(item("s", "a", {{kSecValueData, bytes("0")}}), nullptr), errSecSuccess);
    replaceSystemKeychain(garbage);
    EXPECT_EQ(SecItemCopyMatching(query, nullptr), errSecInvalidKeychain);
    EXPECT_EQ(SecItemAdd(item("s", "a"), nullptr), errSecInvalidKeychain);
    EXPECT_EQ(SecItemUpdate(item("s", "a"), {{kSecAttrLabel, "x"}}), errSecInvalidKeychain);
    EXPECT_EQ(SecItemDelete(item("s", "a")), errSecInvalidKeychain);
    EXPECT_EQ(TestSupport::readFile(systemKeychain), garbage);
    replaceSystemKeychain("");
    EXPECT_EQ(SecItemCopyMatching(query, nullptr), errSecItemNotFound);
    ASSERT_EQ(SecItemAdd(item("s", "a", {{kSecValueData, bytes("1")}}), nullptr), errSecSuccess);

    // Damaged copies of that keychain's file, searched by name.
    const std::string good = TestSupport::readFile(systemKeychain);
    ASSERT_GT(good.size(), 4096u * 4);
    auto withVersion = [&](char version) {
        std::string copy = good;
        copy[63] = version;  // PRAGMA user_version, big-endian at 60
        return copy;
    };
    struct Case {
        const char* what;
        std::string bytes;
        OSStatus status;
    } cases[] = {
        {"garbage", garbage, errSecInvalidKeychain},
        {"an SQLite header, then garbage", std::string("SQLite format 3\0", 16) + garbage, errSecInvalidKeychain},
        {"the first half of a keychain", good.substr(0, good.size() / 2), errSecInvalidKeychain},
        {"a database with other tables", withVersion(0), errSecInvalidKeychain},
        {"a later schema", withVersion(3), errSecWrongSecVersion},
        {"an empty file is a new keychain", "", errSecItemNotFound},
    };
    int index = 0;
    for (const Case& c : cases) {
        const fs::path file = sandbox / ("copy" + std::to_string(index++) + ".keychain-db");
        TestSupport::writeFile(file, c.bytes);
        const CFDictionary named{{kSecMatchSearchList, PropertyList::Array{file.string()}}};
        CFDictionary search = query;
        search[kSecMatchSearchList] = PropertyList::Array{file.string()};
        EXPECT_EQ(SecItemCopyMatching(search, nullptr), c.status) << c.what;
        EXPECT_EQ(SecItemDelete(item("s", "a", named)), c.status) << c.what;
        if (c.status != errSecItemNotFound) {
            EXPECT_EQ(SecItemAdd(item("s", "b", {{kSecUseKeychain, file.string()}}), nullptr), c.status) << c.what;
            EXPECT_EQ(TestSupport::readFile(file), c.bytes) << c.what;
        }
    }
    fs::create_directories(sandbox / "folder.keychain-db");
    EXPECT_EQ(SecItemCopyMatching(item("s", "a", {{kSecMatchSearchList, PropertyList::Array{(sandbox / "folder.keychain-db").string()}}}),
                                  nullptr),
              errSecInvalidKeychain);
}

TEST(SecurityTests, TwoProcessesOfTwoThreadsWriteOneKeychainAtOnce) {
    TemporaryDirectory sandbox("sandbox");
    if (!insideSandbox(sandbox.path())) return;
    constexpr int rounds = 60;
    ASSERT_EQ(SecItemAdd(item("shared", "a", {{kSecValueData, bytes("0")}}), nullptr), errSecSuccess);

    // Each child, on two threads, adds its own items to the system keychain
    // and to the data-protection keychain (which the children make at once)
    // and keeps rewriting and reading one shared item. Its exit status counts
    // failures.
    int go[2];
    ASSERT_EQ(::pipe(go), 0);
    std::vector<pid_t> children;
    for (int child = 0; child < 2; ++child) {
        pid_t pid = ::fork();
        ASSERT_GE(pid, 0);
        if (pid == 0) {
            ::close(go[1]);
            char byte;
            (void)!::read(go[0], &byte, 1);
            std::atomic<int> failures = 0;
            auto work = [&](int thread) {
                const std::string own = "child" + std::to_string(child);
                for (int i = 0; i < rounds; ++i) {
                    const std::string account = std::to_string(thread) + "." + std::to_string(i);
                    const PropertyList::Data value = bytes(own + ":" + account);
                    failures += SecItemAdd(item(own, account, {{kSecValueData, value}}), nullptr) != 0;
                    failures += SecItemAdd(item(own, account, {{kSecUseDataProtectionKeychain, true}}), nullptr) != 0;
                    failures += SecItemUpdate(item("shared", "a"), {{kSecValueData, value}}) != 0;
                    failures += SecItemCopyMatching(item("shared", "a", {{kSecReturnData, true}}), nullptr) != 0;
                }
            };
            std::thread other(work, 1);
            work(0);
            other.join();
            ::_exit(failures > 100 ? 100 : failures.load());
        }
        children.push_back(pid);
    }
    ::close(go[0]);
    ::close(go[1]);  // both start now

    for (pid_t child : children) {
        int status = -1;
        const bool ended = TestSupport::waitUntil(
            [&] { return ::waitpid(child, &status, WNOHANG) == child; }, std::chrono::seconds(120));
        if (!ended) ::kill(child, SIGKILL);
        ASSERT_TRUE(ended);
        EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0) << "wait status " << status;
    }
    for (const char* own : {"child0", "child1"}) {
        CFTypeRef found;
        const CFDictionary every{{kSecReturnData, true}, {kSecMatchLimit, kSecMatchLimitAll}};
        ASSERT_EQ(SecItemCopyMatching(item(own, "", every), &found), errSecSuccess);
        EXPECT_EQ(found->get<PropertyList::Array>()->size(), size_t(2 * rounds));
        CFDictionary protectedItems = item(own, "", every);
        protectedItems[kSecUseDataProtectionKeychain] = true;
        ASSERT_EQ(SecItemCopyMatching(protectedItems, &found), errSecSuccess);
        EXPECT_EQ(found->get<PropertyList::Array>()->size(), size_t(2 * rounds));
    }
}

TEST(SecurityTests, ANewKeychainIsSetUpWhileAnotherConnectionTakesItsWriteLock) {
    TemporaryDirectory sandbox("sandbox");
    if (!insideSandbox(sandbox.path())) return;
    // While this process makes empty files keychains, another connection keeps
    // taking and dropping each one's write lock (never waiting, so that it
    // takes it again as soon as it is free): the first add waits for it.
    for (int round = 0; round < 20; ++round) {
        const fs::path file = sandbox / ("new" + std::to_string(round) + ".keychain-db");
        TestSupport::writeFile(file, "");
        sqlite3* other = nullptr;
        ASSERT_EQ(sqlite3_open(file.c_str(), &other), SQLITE_OK);
        std::atomic<bool> done = false;
        std::thread writer([&] {
            while (!done) {
                sqlite3_exec(other, "BEGIN IMMEDIATE", nullptr, nullptr, nullptr);
                sqlite3_exec(other, "COMMIT", nullptr, nullptr, nullptr);
            }
        });
        EXPECT_EQ(SecItemAdd(item("s", "a", {{kSecUseKeychain, file.string()}}), nullptr), errSecSuccess) << round;
        done = true;
        writer.join();
        sqlite3_close(other);
    }
}

TEST(SecurityTests, MessagesAndRandomBytes) {
    const std::pair<OSStatus, const char*> texts[] = {
        {errSecItemNotFound, "The specified item could not be found in the keychain."},
        {errSecDuplicateItem, "The specified item already exists in the keychain."},
        {errSecParam, "One or more parameters passed to a function were not valid."},
        {errSecNotAvailable, "No keychain is available. You may need to restart your computer."},
        {errSecInvalidKeychain, "The specified keychain is not a valid keychain file."},
    };
    for (const auto& [status, text] : texts) EXPECT_EQ(SecCopyErrorMessageString(status, nullptr), text);
    EXPECT_EQ(SecCopyErrorMessageString(12345, nullptr), std::nullopt);

    unsigned char first[32] = {}, second[32] = {};
    EXPECT_EQ(SecRandomCopyBytes(kSecRandomDefault, sizeof first, first), errSecSuccess);
    EXPECT_EQ(SecRandomCopyBytes(kSecRandomDefault, sizeof second, second), errSecSuccess);
    EXPECT_NE(std::string(first, first + 32), std::string(second, second + 32));
    EXPECT_EQ(SecRandomCopyBytes(reinterpret_cast<SecRandomRef>(first), 1, second), errSecParam);
}
