// The folder values run in a private mount namespace whose /Library (and, for
// the group container, /etc/passwd) are temporary stand-ins, so each test gets
// a fresh process with unset one-time values and a machine-wide Library of its own.
#include "vpn_helper/Locations.h"

#include <gtest/gtest.h>
#include <pwd.h>
#include <stdlib.h>
#include <sys/stat.h>

#include "Support/MountNamespace.h"
#include "Support/LogCapture.h"
#include "Support/TestSupport.h"

namespace fs = std::filesystem;
using TestSupport::insideMountNamespace;
using TestSupport::ScopedLogCapture;
using TestSupport::TemporaryDirectory;
using VpnHelper::Locations;

namespace {

const std::string createFailure = "E: (Locations: create(url:title:attr:)) Cannot create ";

mode_t modeOf(const fs::path& path) {
    struct stat info {};
    return stat(path.c_str(), &info) == 0 ? info.st_mode & 07777 : 0;
}

// A user database whose root has its home folder at home, and, without home,
// one that has no entry for root at all (files only, no synthesised users).
struct UserDatabase {
    TemporaryDirectory dir{"userdb"};
    explicit UserDatabase(const std::optional<fs::path>& home) {
        std::string passwd = "daemon:x:1:1:daemon:/usr/sbin:/usr/sbin/nologin\n";
        if (home) passwd = "root:x:0:0:root:" + home->string() + ":/bin/bash\n" + passwd;
        TestSupport::writeFile(dir / "passwd", passwd);
        TestSupport::writeFile(dir / "nsswitch.conf", "passwd: files\ngroup: files\n");
    }
    std::vector<TestSupport::MountReplacement> replacements() const {
        return {{"/etc/passwd", dir / "passwd"}, {"/etc/nsswitch.conf", dir / "nsswitch.conf"}};
    }
};

}  // namespace

TEST(LocationsTests, CreateReportsWhyAMissingFolderCannotBeMade) {
    TemporaryDirectory dir;
    TestSupport::writeFile(dir / "file", "x");
    ScopedLogCapture capture;

    EXPECT_FALSE(Locations::create(dir / "file" / "sub", "Test", std::nullopt));
    EXPECT_EQ(capture.recorder().lines(),
              std::vector<std::string>{createFailure + "Test directory (" + (dir / "file" / "sub").string() +
                                       ") with error: Not a directory"});
    // Whatever already exists at the path is handed out without a word.
    EXPECT_EQ(Locations::create(dir / "file", "Other", std::nullopt), dir / "file");

    // Intermediate folders are made, and the attributes win over the umask.
    mode_t old = umask(077);
    auto made = Locations::create(dir / "a" / "b", "Test",
                                  VpnHelper::FileAttributes{{VpnHelper::FileAttributeKey::posixPermissions, 0751}});
    umask(old);
    ASSERT_EQ(made, dir / "a" / "b");
    EXPECT_EQ(modeOf(dir / "a" / "b"), 0751u);
    EXPECT_EQ(modeOf(dir / "a"), 0700u);
    EXPECT_EQ(capture.recorder().lines().size(), 1u);
}

TEST(LocationsTests, SharedFoldersAreMadeInTheLocalLibrary) {
    TemporaryDirectory library("library");
    if (!insideMountNamespace({{"/Library", library.path()}})) {
        EXPECT_EQ(modeOf(library / "Logs/com.velmora.mac.vpn"), 0755u);
        EXPECT_TRUE(fs::is_directory(library / "Application Support/Velmora Software/com.velmora.mac.vpn"));
        return;
    }
    ScopedLogCapture capture;
    umask(077);

    auto logs = Locations::sharedLogsFolder();
    ASSERT_EQ(logs, fs::path("/Library/Logs/com.velmora.mac.vpn"));
    EXPECT_EQ(modeOf(*logs), 0755u);

    const fs::path shared = "/Library/Application Support/Velmora Software/com.velmora.mac.vpn";
    EXPECT_EQ(Locations::sharedFolder(), shared);
    EXPECT_EQ(Locations::sharedFolder(), shared);
    EXPECT_TRUE(fs::is_directory(shared));
    EXPECT_TRUE(capture.recorder().lines().empty());
}

TEST(LocationsTests, ExistingFoldersAreReturnedEvenWhenTheyCannotBeUpdated) {
    TemporaryDirectory library("library");
    fs::create_directories(library / "Logs/com.velmora.mac.vpn");
    fs::permissions(library / "Logs/com.velmora.mac.vpn", fs::perms::owner_all);
    if (!insideMountNamespace({{"/Library", library.path(), true}})) return;
    ScopedLogCapture capture;

    // chmod to 0755 fails on the read-only Library; the folder existed.
    EXPECT_EQ(Locations::sharedLogsFolder(), fs::path("/Library/Logs/com.velmora.mac.vpn"));
    EXPECT_EQ(modeOf("/Library/Logs/com.velmora.mac.vpn"), 0700u);
    EXPECT_TRUE(capture.recorder().lines().empty());

    EXPECT_FALSE(Locations::sharedFolder());
    EXPECT_EQ(capture.recorder().lines(),
              std::vector<std::string>{createFailure +
                                       "Shared data directory (/Library/Application Support/Velmora "
                                       "Software/com.velmora.mac.vpn) with error: Read-only file system"});
}

TEST(LocationsTests, WithoutALocalLibraryOnlyTheLogsFolderMakesOne) {
    if (!insideMountNamespace({})) return;
    if (fs::exists("/Library")) GTEST_SKIP() << "this machine has a /Library";
    ScopedLogCapture capture;

    EXPECT_FALSE(Locations::sharedFolder());
    EXPECT_FALSE(fs::exists("/Library"));
    EXPECT_EQ(Locations::sharedLogsFolder(), fs::path("/Library/Logs/com.velmora.mac.vpn"));
    EXPECT_TRUE(capture.recorder().lines().empty());
}

TEST(LocationsTests, GroupFoldersLiveInTheEffectiveUsersHomeAndAreResolvedOnce) {
    TemporaryDirectory home("home");
    UserDatabase users(home.path());
    if (!insideMountNamespace(users.replacements())) return;
    setenv("HOME", "/nonexistent", 1);  // the user database decides, not $HOME
    const fs::path group = fs::path(getpwuid(0)->pw_dir) / "Library/Group Containers/QX4HL2ZC8M.com.velmora.mac";
    ScopedLogCapture capture;

    EXPECT_EQ(Locations::groupLogsFolder(), group / "Library/Logs/com.velmora.mac.vpn");
    EXPECT_EQ(Locations::appGroupFolder(), group);
    EXPECT_EQ(Locations::tmpStorageFolder(), group / "Library/Application Support/com.velmora.mac.vpn/TmpStorage");
    EXPECT_EQ(Locations::groupDataFolder(), group / "Library/Application Support/com.velmora.mac.vpn");
    EXPECT_TRUE(fs::is_directory(group / "Library/Logs/com.velmora.mac.vpn"));
    EXPECT_TRUE(fs::is_directory(group / "Library/Application Support/com.velmora.mac.vpn/TmpStorage"));

    // Computed once: removing the folders does not bring them back.
    fs::remove_all(group);
    EXPECT_EQ(Locations::groupLogsFolder(), group / "Library/Logs/com.velmora.mac.vpn");
    EXPECT_FALSE(fs::exists(group));
    EXPECT_TRUE(capture.recorder().lines().empty());
}

TEST(LocationsTests, WithoutAGroupContainerTheFirstAccessLogsTwiceAndLaterOnesNever) {
    UserDatabase users(std::nullopt);
    if (!insideMountNamespace(users.replacements())) return;
    ASSERT_EQ(getpwuid(0), nullptr);
    ScopedLogCapture capture;

    EXPECT_FALSE(Locations::groupLogsFolder());
    EXPECT_EQ(capture.recorder().lines(),
              (std::vector<std::string>{"E: (Locations: Locations) Failed to get app group directory",
                                        "E: (Locations: Locations) Failed to get group logs directory"}));

    EXPECT_FALSE(Locations::groupLogsFolder());
    EXPECT_FALSE(Locations::appGroupFolder());
    EXPECT_FALSE(Locations::groupDataFolder());
    EXPECT_FALSE(Locations::tmpStorageFolder());
    EXPECT_EQ(capture.recorder().lines().size(), 2u);
}
