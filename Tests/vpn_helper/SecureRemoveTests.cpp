#include "vpn_helper/SecureRemove.h"

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <filesystem>
#include <thread>

#include "Support/TestSupport.h"

namespace fs = std::filesystem;
using TestSupport::TemporaryDirectory;
using TestSupport::writeFile;

namespace {

// A tree outside the folder being deleted; it must survive every test whole.
class SecureRemoveTest : public ::testing::Test {
protected:
    void SetUp() override {
        fs::create_directories(canary() / "nested");
        writeFile(canary() / "a.txt", "a");
        writeFile(canary() / "nested" / "b.txt", "b");
        fs::create_directories(target());
    }

    fs::path canary() const { return dir_ / "canary"; }
    fs::path target() const { return dir_ / "shared"; }

    void expectCanaryWhole() {
        EXPECT_TRUE(fs::is_regular_file(canary() / "a.txt"));
        EXPECT_TRUE(fs::is_regular_file(canary() / "nested" / "b.txt"));
    }

    TemporaryDirectory dir_{"secure-remove"};
};

TEST_F(SecureRemoveTest, DeletesNestedTreeWithFilesFoldersAndFifos) {
    fs::create_directories(target() / "x" / "y" / "z");
    writeFile(target() / "top.txt", "1");
    writeFile(target() / "x" / "y" / "z" / "deep.txt", "2");
    ASSERT_EQ(mkfifo((target() / "x" / "pipe").c_str(), 0600), 0);

    EXPECT_TRUE(VpnHelper::secureRemoveItem(target().string()));
    EXPECT_FALSE(fs::exists(fs::symlink_status(target())));
}

TEST_F(SecureRemoveTest, MissingItemCountsAsGone) {
    EXPECT_TRUE(VpnHelper::secureRemoveItem((dir_ / "absent").string()));
    EXPECT_TRUE(VpnHelper::secureRemoveItem((dir_ / "absent" / "deeper").string()));
}

TEST_F(SecureRemoveTest, LinksInsideAreRemovedNotFollowed) {
    fs::create_directory_symlink(canary(), target() / "dirlink");
    fs::create_symlink(canary() / "a.txt", target() / "filelink");
    fs::create_directories(target() / "sub");
    fs::create_directory_symlink(canary() / "nested", target() / "sub" / "deeplink");

    EXPECT_TRUE(VpnHelper::secureRemoveItem(target().string()));
    EXPECT_FALSE(fs::exists(fs::symlink_status(target())));
    expectCanaryWhole();
}

TEST_F(SecureRemoveTest, ItemThatIsALinkIsRemovedItself) {
    fs::remove(target());
    fs::create_directory_symlink(canary(), target());

    EXPECT_TRUE(VpnHelper::secureRemoveItem(target().string()));
    EXPECT_FALSE(fs::exists(fs::symlink_status(target())));
    expectCanaryWhole();
}

// An attacker keeps swapping a subfolder for a link to the canary while the
// deletion runs; whichever it meets, the walk must never reach the canary.
TEST_F(SecureRemoveTest, SubfolderSwappedForLinkDuringDeletionNeverReachesCanary) {
    for (int round = 0; round < 200; ++round) {
        fs::create_directories(target());
        for (int i = 0; i < 20; ++i) {
            fs::create_directories(target() / ("d" + std::to_string(i)));
            writeFile(target() / ("d" + std::to_string(i)) / "f", "x");
        }
        std::atomic<bool> stop{false};
        std::thread attacker([&] {
            std::string victim = (target() / "d10").string();
            std::string staging = (dir_ / "staging").string();
            while (!stop.load()) {
                // Replace d10 with a link to the canary, then back with a folder.
                if (rename(victim.c_str(), staging.c_str()) == 0) {
                    symlink(canary().c_str(), victim.c_str());
                    std::error_code ignored;
                    fs::remove_all(staging, ignored);
                }
                unlink(victim.c_str());
                mkdir(victim.c_str(), 0755);
            }
        });
        VpnHelper::secureRemoveItem(target().string());
        stop = true;
        attacker.join();
        expectCanaryWhole();
        std::error_code ignored;
        fs::remove_all(target(), ignored);
        fs::remove_all(dir_ / "staging", ignored);
        if (HasFailure()) break;
    }
}

}  // namespace
