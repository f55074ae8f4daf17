// SecureDefaults over user defaults in a temporary folder, with the shadow
// copy in a SecureStorage whose key is kept in memory (no keychain).
#include "Tovik/SecureDefaults.h"

#include <gtest/gtest.h>

#include "Support/LogCapture.h"
#include "Support/MemoryKeyChainData.h"
#include "Support/TestSupport.h"
#include "Tovik/SecureStorage.h"

namespace fs = std::filesystem;
using Foundation::PropertyList;
using Foundation::UserDefaults;
using TestSupport::ScopedLogCapture;
using Tovik::DefaultsCorruptionReason;
using Tovik::SecureDefaults;

namespace {

const std::string domain = "com.velmora.test";

class GuardedDefaults : public SecureDefaults {
protected:
    using SecureDefaults::SecureDefaults;
    const std::set<std::string>& allDefaultNames() const override {
        static const std::set<std::string> names{"Token", "Enabled", "Count"};
        return names;
    }
};

class SecureDefaultsTests : public ::testing::Test {
protected:
    SecureDefaultsTests() {
        defs_.setVolatileDomain({}, UserDefaults::argumentDomain);  // not the test runner's options
        secure_->setCorruptionHandler([this](DefaultsCorruptionReason reason) { reasons_.push_back(int(reason)); });
    }

    /// Error lines logged so far.
    std::vector<std::string> errors() const {
        std::vector<std::string> lines;
        for (const auto& entry : log_.recorder().entries())
            if (entry.level == Tovik::LogLevel::error) lines.push_back(entry.text);
        return lines;
    }

    static std::string changed(const std::string& key) {
        return "E: (SecureDefaults: validate(key:block:)) Default " + key + " was changed in defaults.plist";
    }

    TestSupport::TemporaryDirectory dir_;
    fs::path preferences_ = dir_ / "Preferences";
    fs::path managed_ = dir_ / "Managed Preferences";
    UserDefaults defs_{domain, preferences_, managed_};
    UserDefaults outside_{domain, preferences_, managed_};  // another process editing the file
    ScopedLogCapture log_;
    std::unique_ptr<GuardedDefaults> secure_ = SecureDefaults::make<GuardedDefaults>(
        defs_, domain,
        Tovik::SecureStorage::create(std::make_shared<TestSupport::MemoryKeyChainData>(), dir_ / "shadow", 0));
    std::vector<int> reasons_;
};

}  // namespace

TEST_F(SecureDefaultsTests, AnOutsideEditOfAProtectedKeyIsReportedOnceAndRead) {
    secure_->set("a", "Token");
    EXPECT_EQ(secure_->object("Token"), PropertyList("a"));

    ASSERT_TRUE(outside_.set(PropertyList("b"), "Token"));
    EXPECT_EQ(secure_->object("Token"), PropertyList("b"));
    EXPECT_EQ(secure_->string("Token"), "b");
    EXPECT_EQ(errors(), std::vector{changed("Token")});
    EXPECT_EQ(reasons_, std::vector{2});
    EXPECT_EQ(secure_->dictionaryRepresentation(), (PropertyList::Dictionary{{"Token", "b"}}));

    // Numbers compare by value, whatever their type; a registered default
    // the file lacks is no edit; keys outside the protected set are never
    // shadowed or compared.
    secure_->set(true, "Enabled");
    ASSERT_TRUE(outside_.set(PropertyList(1), "Enabled"));
    defs_.registerDefaults({{"Count", 5}});
    secure_->set("x", "Plain");
    ASSERT_TRUE(outside_.set(PropertyList("y"), "Plain"));
    EXPECT_TRUE(secure_->bool_("Enabled"));
    EXPECT_EQ(secure_->integer("Count"), 5);
    EXPECT_EQ(secure_->string("Plain"), "y");
    EXPECT_EQ(errors().size(), 1u);
    EXPECT_EQ(reasons_.size(), 1u);
    EXPECT_FALSE(secure_->dictionaryRepresentation().contains("Plain"));

    EXPECT_EQ(Tovik::defaultsCorruptionReason(2), DefaultsCorruptionReason::changedInDefaults);
    EXPECT_FALSE(Tovik::defaultsCorruptionReason(0));
    EXPECT_FALSE(Tovik::defaultsCorruptionReason(3));
}

TEST_F(SecureDefaultsTests, LaunchArgumentsForcedKeysAndSkipValidatingAreNeverCompared) {
    secure_->set("a", "Token");
    ASSERT_TRUE(outside_.set(PropertyList("b"), "Token"));

    defs_.setVolatileDomain({{"Token", "argument"}}, UserDefaults::argumentDomain);
    EXPECT_EQ(secure_->object("Token"), PropertyList("argument"));
    defs_.setVolatileDomain({}, UserDefaults::argumentDomain);

    fs::create_directories(managed_);
    TestSupport::writeFile(managed_ / (domain + ".plist"),
                           PropertyList(PropertyList::Dictionary{{"Token", "forced"}}).data());
    EXPECT_EQ(secure_->object("Token"), PropertyList("forced"));
    fs::remove(managed_ / (domain + ".plist"));

    secure_->setSkipValidating(true);
    secure_->set("c", "Token");
    EXPECT_EQ(secure_->object("Token"), PropertyList("c"));
    EXPECT_EQ(secure_->dictionaryRepresentation().at("Token"), PropertyList("a"));  // not shadowed
    EXPECT_TRUE(errors().empty());
    EXPECT_TRUE(reasons_.empty());

    // The edit was not forgotten, only not looked for.
    secure_->setSkipValidating(false);
    EXPECT_EQ(secure_->object("Token"), PropertyList("c"));
    EXPECT_EQ(reasons_, std::vector{2});
}

TEST_F(SecureDefaultsTests, TypedReadsConvert) {
    const std::pair<PropertyList, bool> truths[] = {{"YES", true}, {"1", true}, {"NO", false}, {"yes", false},
                                                    {2, true},     {0.0, false}};
    for (const auto& [value, truth] : truths) {
        secure_->set(value, "Enabled");
        EXPECT_EQ(secure_->bool_("Enabled"), truth) << value.data();
    }
    secure_->set(" 42 apples", "Count");
    EXPECT_EQ(secure_->integer("Count"), 42);
    secure_->set("-2.5e1", "Count");
    EXPECT_EQ(secure_->double_("Count"), -25.0);
    EXPECT_EQ(secure_->integer("Count"), -2);
    secure_->set("apples", "Count");
    EXPECT_EQ(secure_->integer("Count"), 0);
    secure_->set(7.5, "Count");
    EXPECT_EQ(secure_->string("Count"), "7.5");
    EXPECT_EQ(secure_->integer("Count"), 7);
    secure_->set(PropertyList::Array{"a", 1}, "Count");
    EXPECT_TRUE(secure_->array("Count"));
    EXPECT_FALSE(secure_->stringArray("Count"));
    EXPECT_FALSE(secure_->string("Count"));
    EXPECT_TRUE(errors().empty());
}

TEST_F(SecureDefaultsTests, ObserversHearOutsideChangesAndOwnWritesOnce) {
    std::vector<bool> heard;  // isPrior of each notification
    auto observation = secure_->addObserver(
        "Token", Foundation::observePrior,
        [&](const std::string&, const void* object, const Foundation::KeyValueChange& change) {
            EXPECT_EQ(object, secure_.get());
            heard.push_back(change.isPrior);
        });

    secure_->set("a", "Token");
    EXPECT_EQ(heard, (std::vector{true, false}));

    ASSERT_TRUE(outside_.set(PropertyList("b"), "Token"));
    EXPECT_TRUE(secure_->synchronize());
    EXPECT_EQ(heard, (std::vector{true, false, true, false}));
}

TEST_F(SecureDefaultsTests, AFailedWriteIsNoEdit) {
    TestSupport::writeFile(dir_ / "file", "not a folder");
    UserDefaults broken(domain, dir_ / "file", managed_);
    auto secure = SecureDefaults::make<GuardedDefaults>(
        broken, domain,
        Tovik::SecureStorage::create(std::make_shared<TestSupport::MemoryKeyChainData>(), dir_ / "shadow2", 0));
    secure->set("a", "Token");
    EXPECT_FALSE(secure->object("Token"));
    EXPECT_EQ(errors().size(), 1u);  // the failed write only
    EXPECT_TRUE(secure->dictionaryRepresentation().empty());
}
