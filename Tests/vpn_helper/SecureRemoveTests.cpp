#include "vpn_helper/SecureRemove.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <pthread.h>
#include <string.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <filesystem>
#include <functional>
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

// Runs work on a thread whose stack is far too small for a walk that recurses per level.
void runOnSmallStack(std::function<void()> work) {
    pthread_attr_t attributes;
    pthread_attr_init(&attributes);
    pthread_attr_setstacksize(&attributes, 256 * 1024);
    pthread_t thread;
    auto body = [](void* argument) -> void* {
        (*static_cast<std::function<void()>*>(argument))();
        return nullptr;
    };
    ASSERT_EQ(pthread_create(&thread, &attributes, body, &work), 0);
    pthread_join(thread, nullptr);
    pthread_attr_destroy(&attributes);
}

// Paths this deep exceed PATH_MAX: the tree is built by descriptor. Descriptors
// are limited the way a service's are, only more.
TEST_F(SecureRemoveTest, DeletesTreesOfAnyDepthWithFewDescriptorsAndLittleStack) {
    int fd = open(target.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    for (int level = 0; level < 5000; ++level) {
        if (level % 500 == 0) {
            close(openat(fd, "file", O_CREAT | O_WRONLY | O_CLOEXEC, 0644));
            ASSERT_EQ(mkdirat(fd, "empty", 0755), 0);
        }
        ASSERT_EQ(mkdirat(fd, "d", 0755), 0);
        int child = openat(fd, "d", O_RDONLY | O_DIRECTORY | O_CLOEXEC);
        close(fd);
        fd = child;
        ASSERT_GE(fd, 0);
    }
    close(fd);

    rlimit saved;
    ASSERT_EQ(getrlimit(RLIMIT_NOFILE, &saved), 0);
    rlimit lowered = saved;
    lowered.rlim_cur = 64;
    ASSERT_EQ(setrlimit(RLIMIT_NOFILE, &lowered), 0);
    bool removed = false;
    int error = 0;
    runOnSmallStack([&] {
        removed = secureRemoveItem(target.string());
        error = errno;
    });
    ASSERT_EQ(setrlimit(RLIMIT_NOFILE, &saved), 0);
    EXPECT_TRUE(removed) << strerror(error);
    EXPECT_FALSE(fs::exists(fs::symlink_status(target)));
    expectCanaryWhole();
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

// A folder the walk closed on its way down is moved out of the tree before the
// walk climbs back through it: its ".." is now the canary's folder, where the
// walk must not go on.
TEST_F(SecureRemoveTest, FolderMovedOutDuringDeletionEndsTheWalk) {
    int stopped = 0;
    for (int round = 0; round < 50 && stopped == 0 && !HasFailure(); ++round) {
        fs::path bottom = target / "moved";
        for (int level = 0; level < 200; ++level) bottom /= "d";
        fs::create_directories(bottom);
        writeFile(bottom / "last", "x");
        int bottomFd = open(bottom.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
        std::atomic<bool> done{false};
        std::thread attacker([&] {
            // Once the bottom folder is emptied, the walk is 200 levels down.
            while (!done.load() && faccessat(bottomFd, "last", F_OK, 0) == 0) {
            }
            rename((target / "moved").c_str(), (dir_ / "moved").c_str());
        });
        bool removed = secureRemoveItem(target.string());
        int error = errno;
        done = true;
        attacker.join();
        close(bottomFd);
        expectCanaryWhole();
        if (!removed) {
            EXPECT_EQ(error, ESTALE) << strerror(error);
            ++stopped;
        }
        fs::remove_all(target);
        fs::remove_all(dir_ / "moved");
    }
    EXPECT_GT(stopped, 0) << "the folder was never moved while the walk was below it";
}

}  // namespace
