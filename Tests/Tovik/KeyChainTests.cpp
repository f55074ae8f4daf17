// KeyChain and SecItem over the Security calls. Tests that use keychains run
// in scripts/sandbox.sh, each in a fresh process, as root: items without an
// access group go to the sandbox's /Library/Keychains/System.keychain, items
// with one to the data-protection keychain in the sandbox's root home.
#include "Tovik/KeyChain.h"

#include <gtest/gtest.h>
#include <pwd.h>
#include <unistd.h>

#include <atomic>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <mutex>
#include <string>
#include <vector>

#include "Dispatch/DispatchQueue.h"
#include "Support/LogCapture.h"
#include "Support/MountNamespace.h"
#include "Support/TestSupport.h"
#include "Tovik/SecItem.h"

namespace fs = std::filesystem;
using namespace Security;
using Foundation::PropertyList;
using TestSupport::insideSandbox;
using TestSupport::ScopedLogCapture;
using TestSupport::TemporaryDirectory;
using Tovik::KeyChain;

namespace {

KeyChain::Data bytes(std::string_view text) { return {text.begin(), text.end()}; }

/// The item's modification date, read from the keychain; nothing without one.
std::optional<PropertyList> modified(const std::string& key) {
    CFDictionary query = KeyChain::baseQuery(key, std::nullopt, std::nullopt);
    query[kSecReturnAttributes] = true;
    CFTypeRef attributes;
    if (SecItemCopyMatching(query, &attributes) != errSecSuccess) return std::nullopt;
    return attributes->get<CFDictionary>()->at(kSecAttrModificationDate);
}

const std::string saveContext = "D: (KeyChain: save(key:value:service:accessGroup:)) ";

struct Record {
    std::string name;
    int count = 0;
    friend bool operator==(const Record&, const Record&) = default;
};
void to_json(nlohmann::ordered_json& json, const Record& record) {
    json["name"] = record.name;
    json["count"] = record.count;
}
void from_json(const nlohmann::json& json, Record& record) {
    json.at("name").get_to(record.name);
    json.at("count").get_to(record.count);
}

}  // namespace

TEST(KeyChainTests, SaveAddsOnceAndWritesOnlyChangedBytes) {
    TemporaryDirectory sandbox("sandbox");
    if (!insideSandbox(sandbox.path())) return;
    ScopedLogCapture capture;

    EXPECT_EQ(KeyChain::save("k", bytes("one")), errSecSuccess);
    const auto added = modified("k");
    ASSERT_TRUE(added);
    EXPECT_EQ(KeyChain::save("k", bytes("one")), errSecSuccess);
    EXPECT_EQ(modified("k"), added) << "equal bytes were written again";
    EXPECT_EQ(KeyChain::save("k", bytes("two")), errSecSuccess);
    EXPECT_NE(modified("k"), added);
    EXPECT_EQ(KeyChain::load("k"), bytes("two"));
    EXPECT_EQ(capture.recorder().lines(),
              (std::vector<std::string>{saveContext + "Keychain value for key k doesn't exist - adding",
                                        saveContext + "Keychain value for key k exists - updating",
                                        saveContext + "Keychain value for key k exists - updating"}));
}

TEST(KeyChainTests, ServicesMissingItemsAndDeletes) {
    TemporaryDirectory sandbox("sandbox");
    if (!insideSandbox(sandbox.path())) return;
    ScopedLogCapture capture(Tovik::LogLevel::info);

    EXPECT_EQ(KeyChain::defaultService(), "KeyChainTests");  // no bundle: the executable's name
    EXPECT_EQ(KeyChain::load("k"), std::nullopt);
    EXPECT_EQ(KeyChain::delete_("k"), errSecItemNotFound);
    EXPECT_EQ(KeyChain::loadObject<int>("k"), std::nullopt);
    EXPECT_TRUE(capture.recorder().lines().empty()) << "a missing item is no failure";

    ASSERT_EQ(KeyChain::save("k", bytes("v")), errSecSuccess);
    EXPECT_EQ(KeyChain::load("k", KeyChain::defaultService()), bytes("v"));
    EXPECT_EQ(KeyChain::load("k", "other"), std::nullopt);
    ASSERT_EQ(KeyChain::save("k", bytes("w"), "other"), errSecSuccess);
    EXPECT_EQ(KeyChain::delete_("k"), errSecSuccess);
    EXPECT_EQ(KeyChain::load("k"), std::nullopt);
    EXPECT_EQ(KeyChain::load("k", "other"), bytes("w"));
    EXPECT_TRUE(capture.recorder().lines().empty());
}

TEST(KeyChainTests, AccessGroupsUseTheDataProtectionKeychain) {
    TemporaryDirectory sandbox("sandbox");
    if (!insideSandbox(sandbox.path())) return;

    EXPECT_EQ(KeyChain::baseQuery("k", "s", std::nullopt),
              (CFDictionary{{kSecClass, kSecClassGenericPassword}, {kSecAttrService, "s"}, {kSecAttrAccount, "k"}}));
    EXPECT_EQ(KeyChain::baseQuery("k", "s", "G"),
              (CFDictionary{{kSecClass, kSecClassGenericPassword},
                            {kSecAttrService, "s"},
                            {kSecAttrAccount, "k"},
                            {kSecAttrAccessGroup, "G"},
                            {kSecUseDataProtectionKeychain, true}}));

    ASSERT_EQ(KeyChain::save("k", bytes("g"), "s", "G"), errSecSuccess);
    ASSERT_EQ(KeyChain::save("k", bytes("f"), "s"), errSecSuccess);
    EXPECT_EQ(KeyChain::load("k", "s", "G"), bytes("g"));
    EXPECT_EQ(KeyChain::load("k", "s", "H"), std::nullopt);
    EXPECT_EQ(KeyChain::load("k", "s"), bytes("f"));
    EXPECT_TRUE(fs::exists(fs::path(getpwuid(0)->pw_dir) / "Library/Keychains/keychain-2.db"));
    EXPECT_EQ(KeyChain::delete_("k", "s", "G"), errSecSuccess);
    EXPECT_EQ(KeyChain::load("k", "s", "G"), std::nullopt);
    EXPECT_EQ(KeyChain::load("k", "s"), bytes("f"));
}

TEST(KeyChainTests, ObjectsTravelAsJson) {
    TemporaryDirectory sandbox("sandbox");
    if (!insideSandbox(sandbox.path())) return;
    ScopedLogCapture capture;

    ASSERT_EQ(KeyChain::saveObject(Record{"x", 2}, "record"), errSecSuccess);
    EXPECT_EQ(KeyChain::load("record"), bytes(R"({"name":"x","count":2})"));  // compact, in to_json's order
    EXPECT_EQ(KeyChain::loadObject<Record>("record"), (Record{"x", 2}));

    ASSERT_EQ(KeyChain::save("text", bytes("not json")), errSecSuccess);
    EXPECT_EQ(KeyChain::loadObject<Record>("text"), std::nullopt);
    EXPECT_EQ(KeyChain::loadObject<int>("record"), std::nullopt);
    EXPECT_EQ(KeyChain::load("text"), bytes("not json"));

    EXPECT_EQ(KeyChain::saveObject(std::string("\xff"), "bad"), KeyChain::encodingFailedStatus);
    EXPECT_EQ(KeyChain::encodingFailedStatus, -67673);
    EXPECT_EQ(KeyChain::load("bad"), std::nullopt);

    std::vector<std::string> errors;
    for (const auto& line : capture.recorder().lines())
        if (line.rfind("E: ", 0) == 0) errors.push_back(line);
    ASSERT_EQ(errors.size(), 3u);
    const std::string decode = "E: (KeyChain: loadObject(key:service:accessGroup:)) Failed to decode data for key ";
    EXPECT_EQ(errors[0].rfind(decode + "'text'. [json.exception.parse_error.101]", 0), 0u) << errors[0];
    EXPECT_EQ(errors[1].rfind(decode + "'record'. [json.exception.type_error.302]", 0), 0u) << errors[1];
    EXPECT_EQ(errors[2].rfind("E: (KeyChain: saveObject(_:key:service:accessGroup:)) Failed to encode value \xff for "
                              "key 'bad'. [json.exception.type_error.316]",
                              0),
              0u)
        << errors[2];
}

TEST(KeyChainTests, FailuresAreLoggedWithTheirReason) {
    TemporaryDirectory sandbox("sandbox");
    if (!insideSandbox(sandbox.path())) return;
    fs::create_directories("/Library/Keychains");
    TestSupport::writeFile("/Library/Keychains/System.keychain", std::string(4096, 'x'));
    ScopedLogCapture capture;

    EXPECT_EQ(KeyChain::load("k"), std::nullopt);
    EXPECT_EQ(KeyChain::save("k", bytes("v")), errSecInvalidKeychain);
    EXPECT_EQ(KeyChain::delete_("k"), errSecInvalidKeychain);
    EXPECT_EQ(KeyChain::keychain(kSecPreferencesDomainSystem)->path(), "/Library/Keychains/System.keychain");
    EXPECT_EQ(KeyChain::keychain(kSecPreferencesDomainCommon), nullptr);
    EXPECT_EQ(KeyChain::keychain(SecPreferencesDomain(9)), nullptr);
    EXPECT_EQ(capture.recorder().lines(),
              (std::vector<std::string>{"E: (KeyChain: load(key:service:accessGroup:)) Failed to find k in Keychain. "
                                        "The specified keychain is not a valid keychain file.",
                                        "E: (KeyChain: keychain(in:)) Failed searching for keychain in 9. "
                                        "The specified preferences domain is not valid."}));
    EXPECT_EQ(KeyChain::reason(12345), "12345");
}

TEST(KeyChainTests, CompletionsRunOnTheUserInitiatedQueue) {
    TemporaryDirectory sandbox("sandbox");
    if (!insideSandbox(sandbox.path())) return;
    std::mutex mutex;
    std::vector<std::string> seen;  // guarded by mutex
    std::atomic<bool> done = false;
    auto note = [&](const std::string& what) {
        std::lock_guard guard(mutex);
        seen.push_back(Dispatch::DispatchQueue::currentLabel() + " " + what);
    };
    KeyChain::save("k", bytes("v"), std::nullopt, std::nullopt, [&](KeyChain::OSStatus status) {
        note("saved " + std::to_string(status));
        KeyChain::load("k", std::nullopt, std::nullopt, [&](std::optional<KeyChain::Data> data) {
            note("loaded " + (data ? std::string(data->begin(), data->end()) : "nothing"));
            KeyChain::delete_("k", std::nullopt, std::nullopt, [&](KeyChain::OSStatus status) {
                note("deleted " + std::to_string(status));
                done = true;
            });
        });
    });
    ASSERT_TRUE(TestSupport::waitUntil([&] { return done.load(); }));
    std::lock_guard guard(mutex);
    const std::string queue = "com.apple.root.user-initiated-qos";
    EXPECT_EQ(seen, (std::vector<std::string>{queue + " saved 0", queue + " loaded v", queue + " deleted 0"}));
}

TEST(KeyChainTests, SecItemFindsObjectsOrTheFailingStatus) {
    TemporaryDirectory sandbox("sandbox");
    if (!insideSandbox(sandbox.path())) return;
    using Tovik::SecItem;
    const CFDictionary query{{kSecClass, kSecClassGenericPassword}, {kSecAttrAccount, "a"}};
    CFDictionary withData = query;
    withData[kSecReturnData] = true;

    EXPECT_EQ(SecItem::find(withData).error(), errSecItemNotFound);
    CFDictionary added = query;
    added[kSecValueData] = bytes("1");
    EXPECT_EQ(SecItem::add(added), errSecSuccess);
    EXPECT_EQ(SecItem::add(added), errSecDuplicateItem);
    const auto found = SecItem::find(withData);
    ASSERT_TRUE(found.succeeded());
    EXPECT_EQ(*found.value(), PropertyList(bytes("1")));
    EXPECT_EQ(SecItem::find(query).error(), errSecParam) << "found, but no object asked for";
    EXPECT_EQ(SecItem::update(query, {{kSecValueData, bytes("2")}}), errSecSuccess);
    EXPECT_EQ(*SecItem::find(withData).value(), PropertyList(bytes("2")));
    EXPECT_EQ(SecItem::delete_(query), errSecSuccess);
    EXPECT_EQ(SecItem::delete_(query), errSecItemNotFound);
}

// The service default inside a bundle: this program, linked as
// "<bundle>/Contents/MacOS/KeyChainTests" beside an Info.plist, runs one test
// that reports its default service.
TEST(KeyChainTests, DefaultServiceIsTheEnclosingBundlesIdentifier) {
    if (getenv("KEYCHAIN_TESTS_REPORT_SERVICE")) {
        std::printf("service=%s\n", KeyChain::defaultService().c_str());
        return;
    }
    // Beside the build tree, so that a hard link to this program can be made.
    const fs::path bundle = fs::path(TOVIK_BINARY_DIR) / ("KeyChainTests-" + std::to_string(getpid()) + ".app");
    fs::create_directories(bundle / "Contents/MacOS");
    TestSupport::writeFile(bundle / "Contents/Info.plist",
                           "<?xml version=\"1.0\" encoding=\"UTF-8\"?><plist version=\"1.0\"><dict>"
                           "<key>CFBundleIdentifier</key><string>com.velmora.keychain-test</string></dict></plist>");
    fs::create_hard_link(fs::read_symlink("/proc/self/exe"), bundle / "Contents/MacOS/KeyChainTests");
    const std::string output = (bundle / "output").string();
    const std::string command = "KEYCHAIN_TESTS_REPORT_SERVICE=1 '" + (bundle / "Contents/MacOS/KeyChainTests").string() +
                                "' --gtest_filter=KeyChainTests.DefaultServiceIsTheEnclosingBundlesIdentifier > '" +
                                output + "' 2>&1";
    const int status = std::system(command.c_str());
    const std::string text = TestSupport::readFile(output);
    fs::remove_all(bundle);
    EXPECT_EQ(status, 0) << text;
    EXPECT_NE(text.find("service=com.velmora.keychain-test\n"), std::string::npos) << text;
}
