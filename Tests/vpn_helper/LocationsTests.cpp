// The folder values run in scripts/sandbox.sh, each test in a fresh process
// (unset one-time values) with a /Library of its own and, for the group
// container, a user database of its own.
#include "vpn_helper/Locations.h"

#include <gtest/gtest.h>
#include <pwd.h>
#include <stdlib.h>
#include <sys/stat.h>

#include "Support/LogCapture.h"
#include "Support/MountNamespace.h"
#include "Support/TestSupport.h"

namespace fs = std::filesystem;
using TestSupport::insideSandbox;
using TestSupport::ScopedLogCapture;
using TestSupport::TemporaryDirectory;
using VpnHelper::Locations;

namespace {

const std::string createFailure = "E: (Locations: create(url:title:attr:)) Cannot create ";
const fs::path sharedLogs = "/Library/Logs/com.velmora.mac.vpn";
const fs::path shared = "/Library/Application Support/Velmora Software/com.velmora.mac.vpn";

mode_t modeOf(const fs::path& path) {
    struct stat info {};
    return stat(path.c_str(), &info) == 0 ? info.st_mode & 07777 : 0;
}

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

TEST(LocationsTests, ExistingFoldersAreReturnedEvenWhenTheyCannotBeUpdated) {
    TemporaryDirectory sandbox("sandbox");
    fs::create_directories(sandbox / "Library/Logs/com.velmora.mac.vpn");
    fs::permissions(sandbox / "Library/Logs/com.velmora.mac.vpn", fs::perms::owner_all);
    if (!insideSandbox(sandbox.path(), {"SANDBOX_BINDS=/Library=" + (sandbox / "Library:ro").string()})) return;
    ScopedLogCapture capture;

    // chmod to 0755 fails on the read-only Library; the folder existed.
    EXPECT_EQ(Locations::sharedLogsFolder(), sharedLogs);
    EXPECT_EQ(modeOf(sharedLogs), 0700u);
    EXPECT_FALSE(Locations::sharedFolder());
    EXPECT_EQ(capture.recorder().lines(),
              std::vector<std::string>{createFailure + "Shared data directory (" + shared.string() +
                                       ") with error: Read-only file system"});
}

TEST(LocationsTests, FoldersAreMadeInTheLocalLibraryAndInTheUsersHome) {
    TemporaryDirectory sandbox("sandbox");
    if (!insideSandbox(sandbox.path(), {TestSupport::userDatabaseBinds(sandbox.path(), sandbox / "home")})) return;
    setenv("HOME", "/nonexistent", 1);
    const fs::path group = fs::path(getpwuid(0)->pw_dir) / "Library/Group Containers/QX4HL2ZC8M.com.velmora.mac";
    ASSERT_NE(group.string().find("/sandbox-"), std::string::npos) << "not the sandbox's user database";
    ScopedLogCapture capture;
    umask(077);

    EXPECT_EQ(Locations::sharedLogsFolder(), sharedLogs);
    EXPECT_EQ(modeOf(sharedLogs), 0755u);
    EXPECT_EQ(Locations::sharedFolder(), shared);

    EXPECT_EQ(Locations::groupLogsFolder(), group / "Library/Logs/com.velmora.mac.vpn");
    EXPECT_EQ(Locations::appGroupFolder(), group);
    EXPECT_EQ(Locations::tmpStorageFolder(), group / "Library/Application Support/com.velmora.mac.vpn/TmpStorage");
    EXPECT_EQ(Locations::groupDataFolder(), group / "Library/Application Support/com.velmora.mac.vpn");
    EXPECT_TRUE(fs::is_directory(group / "Library/Application Support/com.velmora.mac.vpn/TmpStorage"));
    // Computed once: removing the folders does not bring them back.
    fs::remove_all(group);
    EXPECT_EQ(Locations::groupLogsFolder(), group / "Library/Logs/com.velmora.mac.vpn");
    EXPECT_FALSE(fs::exists(group));
    EXPECT_TRUE(capture.recorder().lines().empty());
}

TEST(LocationsTests, WithoutLocalLibraryOrGroupContainer) {
    TemporaryDirectory sandbox("sandbox");
    if (!insideSandbox(sandbox.path(), {"SANDBOX_LIBRARY=none", TestSupport::userDatabaseBinds(sandbox.path(), "")})) {
        return;
    }
    ASSERT_EQ(getpwuid(0), nullptr);
    ScopedLogCapture capture;

    EXPECT_FALSE(Locations::sharedFolder());
    EXPECT_FALSE(fs::exists("/Library"));
    EXPECT_EQ(Locations::sharedLogsFolder(), sharedLogs);

    for (auto* folder : {&Locations::groupLogsFolder, &Locations::groupLogsFolder, &Locations::appGroupFolder,
                         &Locations::groupDataFolder, &Locations::tmpStorageFolder}) {
        EXPECT_FALSE(folder());
    }
    EXPECT_EQ(capture.recorder().lines(),
              (std::vector<std::string>{"E: (Locations: Locations) Failed to get app group directory",
                                        "E: (Locations: Locations) Failed to get group logs directory"}));
}
