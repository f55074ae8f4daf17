#include "Foundation/UserDefaults.h"

#include <gtest/gtest.h>

#include <thread>

#include "Support/TestSupport.h"

namespace fs = std::filesystem;
using Foundation::PropertyList;
using Foundation::UserDefaults;

namespace {

class UserDefaultsTests : public ::testing::Test {
protected:
    TestSupport::TemporaryDirectory dir_;
    fs::path folder_ = dir_ / "Preferences";
};

}  // namespace

TEST_F(UserDefaultsTests, ValuesOfEveryTypeSurviveInThePropertyListFile) {
    PropertyList::Dictionary nested{{"list", PropertyList::Array{1, -2, "three"}},
                                    {"data", PropertyList::Data{0, 0xff, 0x1e}},
                                    {"when", PropertyList::Date(std::chrono::seconds(1700000000))}};
    {
        UserDefaults defaults("suite", folder_);
        ASSERT_TRUE(defaults.set(PropertyList(true), "flag"));
        ASSERT_TRUE(defaults.set(PropertyList(2.5), "real"));
        ASSERT_TRUE(defaults.set(PropertyList(nested), "nested"));
        ASSERT_TRUE(defaults.set(PropertyList("gone"), "removed"));
        ASSERT_TRUE(defaults.removeObject("removed"));
    }
    UserDefaults reopened("suite", folder_);
    EXPECT_EQ(reopened.object("flag"), PropertyList(true));
    EXPECT_NE(reopened.object("flag"), PropertyList(1));
    EXPECT_EQ(reopened.object("real"), PropertyList(2.5));
    EXPECT_EQ(reopened.object("nested"), PropertyList(nested));
    EXPECT_FALSE(reopened.object("removed"));
    // Only the finished file is left: the temporary one was renamed over it.
    EXPECT_EQ(std::distance(fs::directory_iterator(folder_), fs::directory_iterator()), 1);
}

TEST_F(UserDefaultsTests, ConcurrentWritersLoseNothingAndAFailedWriteKeepsTheFile) {
    UserDefaults defaults("suite", folder_);
    std::vector<std::thread> writers;
    for (int t = 0; t < 4; ++t) {
        writers.emplace_back([&, t] {
            for (int i = 0; i < 20; ++i)
                (void)defaults.set(PropertyList(i), "k" + std::to_string(t) + "-" + std::to_string(i));
        });
    }
    for (auto& writer : writers) writer.join();
    EXPECT_EQ(UserDefaults("suite", folder_).persistentDomain("suite")->size(), 80u);

    TestSupport::writeFile(dir_ / "file", "not a folder");
    UserDefaults broken("suite", dir_ / "file");
    EXPECT_FALSE(broken.set(PropertyList("value"), "key"));
    EXPECT_FALSE(broken.object("key"));
}

TEST_F(UserDefaultsTests, ForcedValuesWinThenArgumentsOwnGlobalAndRegistered) {
    const fs::path managed = dir_ / "Managed Preferences";
    UserDefaults defaults("suite", folder_, managed);
    defaults.registerDefaults({{"registration", "registration"}, {"global", "registration"}});
    ASSERT_TRUE(defaults.setPersistentDomain({{"global", "global"}, {"own", "global"}, {"AppleLanguages", "de"}},
                                             UserDefaults::globalDomain));
    ASSERT_TRUE(defaults.set(PropertyList("own"), "own"));
    ASSERT_TRUE(defaults.set(PropertyList("own"), "argument"));
    defaults.setVolatileDomain({{"argument", "argument"}, {"forced", "argument"}}, UserDefaults::argumentDomain);
    fs::create_directories(managed);
    TestSupport::writeFile(managed / "suite.plist", PropertyList(PropertyList::Dictionary{{"forced", "forced"}}).data());

    for (const char* key : {"forced", "argument", "own", "global", "registration"}) {
        EXPECT_EQ(defaults.object(key), PropertyList(key)) << key;
        EXPECT_EQ(defaults.objectIsForced(key), std::string(key) == "forced") << key;
    }
    EXPECT_TRUE(fs::exists(folder_ / ".GlobalPreferences.plist"));
    EXPECT_EQ(UserDefaults("other", folder_).object("AppleLanguages"), PropertyList("de"));

    // The administrator lifts the policy: seen at the next read.
    TestSupport::writeFile(managed / "suite.plist", PropertyList(PropertyList::Dictionary{}).data());
    EXPECT_FALSE(defaults.objectIsForced("forced"));
    EXPECT_EQ(defaults.object("forced"), PropertyList("argument"));
}

TEST_F(UserDefaultsTests, ObserversHearOwnWritesAroundTheWriteAndOutsideEditsWhenFound) {
    UserDefaults defaults("suite", folder_);
    struct Heard {
        bool prior;
        std::optional<PropertyList> oldValue, newValue, read;
    };
    std::vector<Heard> heard;
    auto observation = defaults.addObserver(
        "key", Foundation::observeNew | Foundation::observeOld | Foundation::observePrior,
        [&](const std::string& key, const void* object, const Foundation::KeyValueChange& change) {
            EXPECT_EQ(key, "key");
            EXPECT_EQ(object, &defaults);
            // Reading from the observer: the lock is not held, and a prior
            // notification comes before the value changes.
            heard.push_back({change.isPrior, change.oldValue, change.newValue, defaults.object("key")});
        });

    ASSERT_TRUE(defaults.set(PropertyList("a"), "key"));
    ASSERT_EQ(heard.size(), 2u);
    EXPECT_TRUE(heard[0].prior);
    EXPECT_EQ(heard[0].read, std::nullopt);
    EXPECT_FALSE(heard[1].prior);
    EXPECT_EQ(heard[1].oldValue, std::nullopt);
    EXPECT_EQ(heard[1].newValue, PropertyList("a"));
    EXPECT_EQ(heard[1].read, PropertyList("a"));

    UserDefaults other("suite", folder_);
    ASSERT_TRUE(other.set(PropertyList("b"), "key"));
    ASSERT_TRUE(other.set(PropertyList("unobserved"), "another key"));
    EXPECT_EQ(heard.size(), 2u);  // not before this object looks at the file
    defaults.synchronize();
    ASSERT_EQ(heard.size(), 4u);
    EXPECT_TRUE(heard[2].prior);
    EXPECT_EQ(heard[3].oldValue, PropertyList("a"));
    EXPECT_EQ(heard[3].newValue, PropertyList("b"));

    observation.remove();
    ASSERT_TRUE(defaults.set(PropertyList("c"), "key"));
    EXPECT_EQ(heard.size(), 4u);
}
