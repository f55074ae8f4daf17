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
