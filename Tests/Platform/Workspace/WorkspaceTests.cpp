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

// Each parses into a tree far deeper than a stack can hold; parsing one would
// take the lookup (and the daemon, at start) down.
TEST_F(WorkspaceTest, InfoPlistsBeyondTheReadersBoundsAreSkipped) {
    const auto bigEndian = [](std::string& out, uint64_t value, int width) {
        for (int i = width - 1; i >= 0; --i) out.push_back(static_cast<char>(value >> (8 * i)));
    };
    constexpr size_t count = 100'000;  // arrays, each holding the next: about 900 KB
    std::string binary = "bplist00", offsets;
    for (size_t i = 0; i < count; ++i) {
        bigEndian(offsets, binary.size(), 4);
        binary.push_back(i + 1 < count ? '\xA1' : '\xA0');
        if (i + 1 < count) bigEndian(binary, i + 1, 4);
    }
    size_t tableOffset = binary.size();
    binary += offsets + std::string(6, '\0') + "\x04\x04";
    bigEndian(binary, count, 8);
    bigEndian(binary, 0, 8);
    bigEndian(binary, tableOffset, 8);
    bundle(apps, "0-binary.app", binary);

    std::string xml = "<plist version=\"1.0\">";
    for (size_t i = 0; i < 1'000'000; ++i) xml += "<array>";
    bundle(apps, "0-xml.app", xml);

    fs::path ours = bundle(apps, "Ours.app", xmlPlist("com.example.app"));
    EXPECT_EQ(workspace.urlForApplication("com.example.app"), ours);
}

}  // namespace
