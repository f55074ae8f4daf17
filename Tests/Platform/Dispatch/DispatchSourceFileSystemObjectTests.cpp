#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <functional>
#include <memory>

#include "Dispatch/DispatchSource.h"
#include "Support/TestSupport.h"

using namespace Dispatch;
using TestSupport::waitUntil;
namespace fs = std::filesystem;
using Event = FileSystemEvent;

namespace {

// A vnode source on an event-only (O_PATH) descriptor of path, collecting the
// events it reports; the cancel handler closes the descriptor.
class Watch {
public:
    explicit Watch(const fs::path& path, FileSystemEvent mask = FileSystemEvent::all())
        : descriptor_(open(path.c_str(), O_PATH | O_CLOEXEC)),
          source_(DispatchSource::makeFileSystemObjectSource(descriptor_, mask, DispatchQueue("vpn.test.vnode"))) {
        EXPECT_GE(descriptor_, 0) << path;
        source_.setEventHandler([state = state_, source = source_] { state->events |= source.data().rawValue; });
        source_.setCancelHandler([state = state_, descriptor = descriptor_] {
            close(descriptor);
            ++state->cancels;
        });
        source_.activate();
    }
    ~Watch() { cancel(); }

    FileSystemEvent events() const { return {state_->events.load()}; }
    bool sawEventually(FileSystemEvent expected) const {
        return waitUntil([&] { return events().contains(expected); });
    }
    /// Forgets the events so far, makes the change and waits until every event of expected is reported.
    bool reports(FileSystemEvent expected, const std::function<void()>& change) {
        reset();
        change();
        return sawEventually(expected);
    }
    void reset() { state_->events = 0; }
    void cancel() {
        source_.cancel();
        EXPECT_TRUE(waitUntil([&] { return state_->cancels == 1; }));
    }

private:
    struct State {
        std::atomic<uint32_t> events{0};
        std::atomic<int> cancels{0};
    };
    std::shared_ptr<State> state_ = std::make_shared<State>();
    int descriptor_;
    DispatchSourceFileSystemObject source_;
};

class DispatchSourceFileSystemObjectTests : public testing::Test {
protected:
    TestSupport::TemporaryDirectory root_{"dispatch-vnode"};
};

}  // namespace

TEST_F(DispatchSourceFileSystemObjectTests, FolderReportsEntryChangesAsWriteSubfoldersAsLinkAndItsOwnAttributes) {
    fs::path folder = root_ / "folder";
    fs::create_directory(folder);
    TestSupport::writeFile(folder / "existing", "x");
    Watch watch(folder);

    EXPECT_TRUE(watch.reports(Event::write(), [&] { TestSupport::writeFile(folder / "created", "x"); }));
    EXPECT_FALSE(watch.events().contains(Event::link()));
    EXPECT_TRUE(watch.reports(Event::write(), [&] { fs::rename(folder / "created", folder / "renamed"); }));
    EXPECT_TRUE(watch.reports(Event::write(), [&] { fs::remove(folder / "renamed"); }));
    EXPECT_TRUE(watch.reports(Event::write() | Event::link(), [&] { fs::create_directory(folder / "sub"); }));
    EXPECT_TRUE(watch.reports(Event::write() | Event::link(), [&] { fs::remove(folder / "sub"); }));

    // Changes inside an entry are not changes of the folder; its own attributes are.
    EXPECT_TRUE(watch.reports(Event::attrib(), [&] {
        TestSupport::writeFile(folder / "existing", "changed");
        chmod((folder / "existing").c_str(), 0600);
        chmod(folder.c_str(), 0700);
    }));
    EXPECT_TRUE((watch.events() & (Event::write() | Event::delete_())).isEmpty());
}

TEST_F(DispatchSourceFileSystemObjectTests, FileReportsWriteExtendAttribAndLink) {
    fs::path file = root_ / "file";
    TestSupport::writeFile(file, "abc");
    Watch watch(file);

    EXPECT_TRUE(watch.reports(Event::write() | Event::extend(), [&] { std::ofstream(file, std::ios::app) << "def"; }));
    EXPECT_TRUE(watch.reports(Event::write(), [&] { fs::resize_file(file, 1); }));
    EXPECT_FALSE(watch.events().contains(Event::extend()));
    EXPECT_TRUE(watch.reports(Event::attrib(), [&] { chmod(file.c_str(), 0600); }));
    EXPECT_TRUE(watch.reports(Event::link(), [&] { fs::create_hard_link(file, root_ / "second-name"); }));
    // Removing one of two names changes the link count but deletes nothing.
    EXPECT_TRUE(watch.reports(Event::link(), [&] { fs::remove(root_ / "second-name"); }));
}

TEST_F(DispatchSourceFileSystemObjectTests, DeleteIsReportedAtTheUnlinkWhileDescriptorsStayOpen) {
    fs::path file = root_ / "file", emptyFolder = root_ / "empty", fullFolder = root_ / "full";
    TestSupport::writeFile(file, "x");
    fs::create_directory(emptyFolder);
    fs::create_directories(fullFolder / "a" / "b");
    TestSupport::writeFile(fullFolder / "a" / "b" / "c", "x");

    int extraDescriptor = open(file.c_str(), O_RDONLY | O_CLOEXEC);  // delays the kernel's own delete report
    Watch fileWatch(file), emptyWatch(emptyFolder), fullWatch(fullFolder);
    EXPECT_TRUE(fileWatch.reports(Event::delete_(), [&] { fs::remove(file); }));
    EXPECT_TRUE(emptyWatch.reports(Event::delete_(), [&] { EXPECT_EQ(rmdir(emptyFolder.c_str()), 0); }));
    EXPECT_TRUE(fullWatch.reports(Event::delete_() | Event::write(), [&] {
        EXPECT_EQ(std::system(("rm -rf '" + fullFolder.string() + "'").c_str()), 0);
    }));
    EXPECT_FALSE(fullWatch.events().contains(Event::rename()));
    close(extraDescriptor);
}

TEST_F(DispatchSourceFileSystemObjectTests, RenameIsReportedAndTheWatchFollowsTheNode) {
    fs::path folder = root_ / "folder", elsewhere = root_ / "elsewhere";
    fs::create_directory(folder);
    fs::create_directory(elsewhere);
    Watch folderWatch(folder);

    EXPECT_TRUE(folderWatch.reports(Event::rename(), [&] { fs::rename(folder, elsewhere / "moved"); }));
    EXPECT_FALSE(folderWatch.events().contains(Event::delete_()));

    // At the new place the node is still watched, entries and the node itself.
    EXPECT_TRUE(folderWatch.reports(Event::write(), [&] { TestSupport::writeFile(elsewhere / "moved" / "new", "x"); }));
    EXPECT_TRUE(folderWatch.reports(Event::delete_(), [&] { fs::remove_all(elsewhere / "moved"); }));
}

TEST_F(DispatchSourceFileSystemObjectTests, SourcesOnOneNodeShareTheWatchAndCancelStopsDelivery) {
    fs::path file = root_ / "file";
    TestSupport::writeFile(file, "x");
    Watch first(file), second(file), onlyAttrib(file, Event::attrib());

    TestSupport::writeFile(file, "xy");
    EXPECT_TRUE(first.sawEventually(Event::write()));
    EXPECT_TRUE(second.sawEventually(Event::write()));

    // After one source is cancelled the other still hears the node, and the cancelled one hears nothing.
    first.cancel();
    first.reset();
    EXPECT_TRUE(second.reports(Event::write(), [&] { TestSupport::writeFile(file, "xyz"); }));
    EXPECT_TRUE(first.events().isEmpty());

    // A source only reports the events of its mask.
    chmod(file.c_str(), 0600);
    EXPECT_TRUE(onlyAttrib.sawEventually(Event::attrib()));
    EXPECT_EQ(onlyAttrib.events(), Event::attrib());
}

namespace {

// The inotify event mask this process's watches ask for on the node at path
// (0 when none watches it), read from /proc/self/fdinfo.
uint32_t kernelWatchMask(const fs::path& path) {
    struct stat status {};
    if (stat(path.c_str(), &status) != 0) return 0;
    uint32_t mask = 0;
    for (const auto& entry : fs::directory_iterator("/proc/self/fd")) {
        std::error_code error;
        if (fs::read_symlink(entry.path(), error).string() != "anon_inode:inotify") continue;
        std::ifstream info("/proc/self/fdinfo/" + entry.path().filename().string());
        for (std::string line; std::getline(info, line);) {
            unsigned long inode = 0;
            unsigned watchMask = 0;
            if (auto at = line.find(" ino:"); at != std::string::npos &&
                                              std::sscanf(line.c_str() + at, " ino:%lx", &inode) == 1 &&
                                              inode == status.st_ino) {
                if (auto maskAt = line.find(" mask:"); maskAt != std::string::npos &&
                                                       std::sscanf(line.c_str() + maskAt, " mask:%x", &watchMask) == 1)
                    mask |= watchMask;
            }
        }
    }
    return mask;
}

}  // namespace

TEST_F(DispatchSourceFileSystemObjectTests, WritesAreWatchedOnlyForSourcesThatWantThem) {
    // A log file watched for its removal is written on every record: neither
    // its watch nor its folder's may ask the kernel for modifications.
    fs::path file = root_ / "file.log";
    TestSupport::writeFile(file, "x");
    constexpr uint32_t modify = 0x2;  // IN_MODIFY
    Watch removal(file, Event::delete_() | Event::rename());
    EXPECT_NE(kernelWatchMask(file), 0u);
    EXPECT_EQ(kernelWatchMask(file) & modify, 0u);
    EXPECT_EQ(kernelWatchMask(root_.path()) & modify, 0u);

    // A source that wants writes widens the shared watch, and hears them.
    Watch writes(file, Event::write());
    EXPECT_NE(kernelWatchMask(file) & modify, 0u);
    EXPECT_TRUE(writes.reports(Event::write(), [&] { TestSupport::writeFile(file, "xy"); }));
    EXPECT_TRUE(removal.reports(Event::delete_(), [&] { fs::remove(file); }));
}
