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
    fs::path folder() const { return dir_ / "Preferences"; }
    TestSupport::TemporaryDirectory dir_;
};

}  // namespace

TEST_F(UserDefaultsTests, ValuesOfEveryTypeSurviveInThePropertyListFile) {
    PropertyList::Dictionary nested{{"list", PropertyList::Array{1, -2, "three"}},
                                    {"data", PropertyList::Data{0, 0xff, 0x1e}},
                                    {"when", PropertyList::Date(std::chrono::seconds(1700000000))}};
    {
        UserDefaults defaults("suite", folder());
        ASSERT_TRUE(defaults.set(PropertyList(true), "flag"));
        ASSERT_TRUE(defaults.set(PropertyList(2.5), "real"));
        ASSERT_TRUE(defaults.set(PropertyList(nested), "nested"));
        ASSERT_TRUE(defaults.set(PropertyList("gone"), "removed"));
        ASSERT_TRUE(defaults.removeObject("removed"));
    }
    UserDefaults reopened("suite", folder());
    EXPECT_EQ(reopened.object("flag"), PropertyList(true));
    EXPECT_EQ(reopened.object("real"), PropertyList(2.5));
    EXPECT_EQ(reopened.object("nested"), PropertyList(nested));
    EXPECT_FALSE(reopened.object("removed"));
    EXPECT_NE(PropertyList(1), PropertyList(true));
    // Only the finished file is left: the temporary one was renamed over it.
    EXPECT_EQ(std::distance(fs::directory_iterator(folder()), fs::directory_iterator()), 1);
    EXPECT_TRUE(PropertyList::fromData(TestSupport::readFile(folder() / "suite.plist")));
}

TEST_F(UserDefaultsTests, DomainsAreSearchedInOrderAndOutsideEditsAreSeen) {
    UserDefaults defaults("suite", folder());
    UserDefaults other("suite", folder());
    defaults.registerDefaults({{"key", PropertyList("registered")}});
    EXPECT_EQ(defaults.string("key"), "registered");

    ASSERT_TRUE(other.set(PropertyList("persistent"), "key"));
    EXPECT_EQ(defaults.string("key"), "persistent");
    ASSERT_TRUE(other.setPersistentDomain({{"key", PropertyList("replaced")}}, "suite"));
    EXPECT_EQ(defaults.string("key"), "replaced");
    EXPECT_EQ(defaults.persistentDomain("suite")->size(), 1u);
    EXPECT_FALSE(defaults.persistentDomain("unknown"));

    defaults.setVolatileDomain({{"key", PropertyList("argument")}}, UserDefaults::argumentDomain);
    EXPECT_EQ(defaults.string("key"), "argument");
    EXPECT_EQ(defaults.dictionaryRepresentation().at("key"), PropertyList("argument"));
}

TEST_F(UserDefaultsTests, AFailedWriteKeepsWhatTheFileHolds) {
    TestSupport::writeFile(folder(), "not a folder");
    UserDefaults defaults("suite", folder());
    EXPECT_FALSE(defaults.set(PropertyList("value"), "key"));
    EXPECT_FALSE(defaults.object("key"));
}

TEST_F(UserDefaultsTests, ConcurrentWritersLoseNothing) {
    UserDefaults defaults("suite", folder());
    std::vector<std::thread> writers;
    for (int t = 0; t < 4; ++t) {
        writers.emplace_back([&, t] {
            for (int i = 0; i < 20; ++i)
                (void)defaults.set(PropertyList(i), "k" + std::to_string(t) + "-" + std::to_string(i));
        });
    }
    for (auto& writer : writers) writer.join();
    EXPECT_EQ(UserDefaults("suite", folder()).persistentDomain("suite")->size(), 80u);
}
