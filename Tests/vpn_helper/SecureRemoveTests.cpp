#include "vpn_helper/SecureRemove.h"

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <filesystem>
#include <thread>

#include "Support/TestSupport.h"

namespace fs = std::filesystem;
using TestSupport::writeFile;
using VpnHelper::secureRemoveItem;

namespace {

// A tree outside the folder being deleted; it must survive every test whole.
class SecureRemoveTest : public ::testing::Test {
protected:
    void SetUp() override {
        fs::create_directories(canary / "nested");
        writeFile(canary / "a.txt", "a");
        writeFile(canary / "nested" / "b.txt", "b");
        fs::create_directories(target);
    }
    void expectCanaryWhole() {
        EXPECT_TRUE(fs::is_regular_file(canary / "a.txt"));
        EXPECT_TRUE(fs::is_regular_file(canary / "nested" / "b.txt"));
    }

    TestSupport::TemporaryDirectory dir_{"secure-remove"};
    fs::path canary = dir_ / "canary";
    fs::path target = dir_ / "shared";
};

TEST_F(SecureRemoveTest, DeletesTheTreeAndLinksInItWithoutFollowingThem) {
    fs::create_directories(target / "x" / "y" / "z");
    writeFile(target / "x" / "y" / "z" / "deep.txt", "2");
    ASSERT_EQ(mkfifo((target / "x" / "pipe").c_str(), 0600), 0);
    fs::create_directory_symlink(canary, target / "dirlink");
    fs::create_symlink(canary / "a.txt", target / "filelink");
    fs::create_directory_symlink(canary / "nested", target / "x" / "deeplink");

    EXPECT_TRUE(secureRemoveItem(target.string()));
    EXPECT_FALSE(fs::exists(fs::symlink_status(target)));
    expectCanaryWhole();

    // An item that is itself a link is removed, not followed; a missing item counts as gone.
    fs::create_directory_symlink(canary, target);
    EXPECT_TRUE(secureRemoveItem(target.string()));
    EXPECT_FALSE(fs::exists(fs::symlink_status(target)));
    expectCanaryWhole();
    EXPECT_TRUE(secureRemoveItem((target / "deeper").string()));
}

// An attacker keeps swapping a subfolder for a link to the canary while the
// deletion runs; whichever it meets, the walk must never reach the canary.
TEST_F(SecureRemoveTest, SubfolderSwappedForLinkDuringDeletionNeverReachesCanary) {
    for (int round = 0; round < 200 && !HasFailure(); ++round) {
        for (int i = 0; i < 20; ++i) {
            fs::create_directories(target / ("d" + std::to_string(i)));
            writeFile(target / ("d" + std::to_string(i)) / "f", "x");
        }
        std::atomic<bool> stop{false};
        std::thread attacker([&] {
            std::string victim = (target / "d10").string();
            std::string staging = (dir_ / "staging").string();
            while (!stop.load()) {
                // Replace d10 with a link to the canary, then back with a folder.
                if (rename(victim.c_str(), staging.c_str()) == 0) {
                    symlink(canary.c_str(), victim.c_str());
                    std::error_code ignored;
                    fs::remove_all(staging, ignored);
                }
                unlink(victim.c_str());
                mkdir(victim.c_str(), 0755);
            }
        });
        secureRemoveItem(target.string());
        stop = true;
        attacker.join();
        expectCanaryWhole();
        std::error_code ignored;
        fs::remove_all(target, ignored);
        fs::remove_all(dir_ / "staging", ignored);
    }
}

}  // namespace
