#include "Workspace/Workspace.h"

#include <gtest/gtest.h>
#include <pwd.h>
#include <sys/stat.h>
#include <unistd.h>

#include "Foundation/PropertyList.h"
#include "Support/TestSupport.h"

namespace {

namespace fs = std::filesystem;

std::string xmlPlist(const std::string& id) {
    return "<?xml version=\"1.0\"?><plist version=\"1.0\"><dict><key>CFBundleIdentifier</key><string>" + id +
           "</string></dict></plist>";
}

std::string binaryPlist(const std::string& id) {
    using Foundation::PropertyList;
    return PropertyList(PropertyList::Dictionary{{"CFBundleIdentifier", id}}).data(PropertyList::Format::binary);
}

class WorkspaceTest : public ::testing::Test {
protected:
    fs::path bundle(const fs::path& root, const std::string& name, const std::string& infoPlist) {
        fs::create_directories(root / name / "Contents");
        TestSupport::writeFile(root / name / "Contents" / "Info.plist", infoPlist);
        return root / name;
    }
    TestSupport::TemporaryDirectory temp{"workspace"};
    fs::path apps = temp / "Applications", utilities = apps / "Utilities", home = temp / "home";
    Workspace::Workspace workspace{{apps, utilities, home}};
};

TEST_F(WorkspaceTest, FindsXmlAndBinaryPlistsFirstRootAndNameWinning) {
    fs::path binary = bundle(home, "Binary.app", binaryPlist("com.example.binary"));
    EXPECT_EQ(workspace.urlForApplication("com.example.binary"), binary);
    EXPECT_EQ(workspace.urlForApplication("com.example"), std::nullopt);

    bundle(home, "A.app", xmlPlist("com.example.app"));
    fs::path inUtilities = bundle(utilities, "Z.app", xmlPlist("com.example.app"));
    EXPECT_EQ(workspace.urlForApplication("com.example.app"), inUtilities);
    bundle(apps, "Z.app", binaryPlist("com.example.app"));
    fs::path first = bundle(apps, "B.app", xmlPlist("com.example.app"));
    EXPECT_EQ(workspace.urlForApplication("com.example.app"), first);

    const std::vector<fs::path> defaults{"/Applications", "/Applications/Utilities",
                                         fs::path(::getpwuid(::geteuid())->pw_dir) / "Applications"};
    EXPECT_EQ(Workspace::Workspace::shared().searchRoots(), defaults);
}

TEST_F(WorkspaceTest, SkipsBrokenBundlesAndMissingRoots) {
    bundle(apps, "1.app", "<?xml version=\"1.0\"?><plist><dict><key>CFBund");
    bundle(apps, "2.app", std::string("bplist00\xff\xff\xff\x01garbage", 20));
    bundle(apps, "3.app", "<plist version=\"1.0\"><array><string>com.example.app</string></array></plist>");
    bundle(apps, "4.app", "<plist version=\"1.0\"><dict><key>CFBundleIdentifier</key><true/></dict></plist>");
    fs::create_directories(apps / "5.app" / "Contents");
    bundle(apps, "6", xmlPlist("com.example.app"));  // not a bundle name
    fs::path fifo = bundle(apps, "7.app", "") / "Contents" / "Info.plist";
    fs::remove(fifo);
    ASSERT_EQ(::mkfifo(fifo.c_str(), 0644), 0);  // must not hang the lookup

    fs::path good = bundle(home, "Good.app", xmlPlist("com.example.app"));
    EXPECT_EQ(workspace.urlForApplication("com.example.app"), good);
    EXPECT_EQ(Workspace::Workspace({temp / "absent", home}).urlForApplication("com.example.app"), good);
}

}  // namespace
