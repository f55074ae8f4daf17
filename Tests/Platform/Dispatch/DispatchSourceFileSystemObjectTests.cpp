#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <cstdlib>
#include <filesystem>
#include <memory>
#include <mutex>
#include <optional>

#include "Dispatch/DispatchSource.h"
#include "Support/TestSupport.h"

using namespace Dispatch;
using TestSupport::waitUntil;
namespace fs = std::filesystem;

namespace {

// A vnode source on an event-only (O_PATH) descriptor of path, collecting the
// events it reports; the cancel handler closes the descriptor.
class Watch {
public:
    explicit Watch(const fs::path& path, FileSystemEvent mask = FileSystemEvent::all())
        : state_(std::make_shared<State>()) {
        int fd = open(path.c_str(), O_PATH | O_CLOEXEC);
        EXPECT_GE(fd, 0) << path;
        source_ = DispatchSource::makeFileSystemObjectSource(fd, mask, DispatchQueue("vpn.test.vnode"));
        source_->setEventHandler([state = state_, source = *source_] {
            std::lock_guard lock(state->mutex);
            state->events = state->events | source.data();
            ++state->deliveries;
        });
        source_->setCancelHandler([state = state_, fd] {
            close(fd);
            ++state->cancels;
        });
        source_->activate();
    }
    ~Watch() { cancel(); }

    FileSystemEvent events() const {
        std::lock_guard lock(state_->mutex);
        return state_->events;
    }
    int deliveries() const {
        std::lock_guard lock(state_->mutex);
        return state_->deliveries;
    }
    /// Waits until every event of expected has been reported.
    bool sawEventually(FileSystemEvent expected) const {
        return waitUntil([&] { return events().contains(expected); });
    }
    void reset() {
        std::lock_guard lock(state_->mutex);
        state_->events = {};
        state_->deliveries = 0;
    }
    void cancel() {
        if (!source_) return;
        source_->cancel();
        EXPECT_TRUE(waitUntil([&] { return state_->cancels == 1; }));
        source_.reset();
    }

private:
    struct State {
        mutable std::mutex mutex;
        FileSystemEvent events;  // guarded by mutex
        int deliveries = 0;      // guarded by mutex
        std::atomic<int> cancels{0};
    };
    std::shared_ptr<State> state_;
    std::optional<DispatchSourceFileSystemObject> source_;
};

constexpr auto write_ = FileSystemEvent::write();
constexpr auto link_ = FileSystemEvent::link();
constexpr auto delete_ = FileSystemEvent::delete_();
constexpr auto rename_ = FileSystemEvent::rename();
constexpr auto attrib_ = FileSystemEvent::attrib();
constexpr auto extend_ = FileSystemEvent::extend();

class DispatchSourceFileSystemObjectTests : public testing::Test {
protected:
    TestSupport::TemporaryDirectory root_{"dispatch-vnode"};
};

}  // namespace

TEST_F(DispatchSourceFileSystemObjectTests, FolderReportsEntryChangesAsWriteAndSubfoldersAsLink) {
    fs::path folder = root_ / "folder";
    fs::create_directory(folder);
    TestSupport::writeFile(folder / "existing", "x");
    Watch watch(folder);

    TestSupport::writeFile(folder / "created", "x");
    EXPECT_TRUE(watch.sawEventually(write_));
    EXPECT_FALSE(watch.events().contains(link_));

    watch.reset();
    fs::rename(folder / "created", folder / "renamed");
    EXPECT_TRUE(watch.sawEventually(write_));

    watch.reset();
    fs::remove(folder / "renamed");
    EXPECT_TRUE(watch.sawEventually(write_));

    watch.reset();
    fs::create_directory(folder / "sub");
    EXPECT_TRUE(watch.sawEventually(write_ | link_));
    watch.reset();
    fs::remove(folder / "sub");
    EXPECT_TRUE(watch.sawEventually(write_ | link_));

    // Changes inside an entry are not changes of the folder; its own attributes are.
    watch.reset();
    TestSupport::writeFile(folder / "existing", "changed");
    chmod((folder / "existing").c_str(), 0600);
    chmod(folder.c_str(), 0700);
    EXPECT_TRUE(watch.sawEventually(attrib_));
    EXPECT_FALSE(watch.events().contains(write_));
    EXPECT_FALSE(watch.events().contains(delete_));
}

TEST_F(DispatchSourceFileSystemObjectTests, FileReportsWriteExtendAttribAndLink) {
    fs::path file = root_ / "file";
    TestSupport::writeFile(file, "abc");
    Watch watch(file);

    int fd = open(file.c_str(), O_WRONLY | O_APPEND | O_CLOEXEC);
    ASSERT_GE(fd, 0);
    ASSERT_EQ(write(fd, "def", 3), 3);
    close(fd);
    EXPECT_TRUE(watch.sawEventually(write_ | extend_));

    watch.reset();
    ASSERT_EQ(truncate(file.c_str(), 1), 0);
    EXPECT_TRUE(watch.sawEventually(write_));
    EXPECT_FALSE(watch.events().contains(extend_));

    watch.reset();
    chmod(file.c_str(), 0600);
    EXPECT_TRUE(watch.sawEventually(attrib_));

    watch.reset();
    fs::create_hard_link(file, root_ / "second-name");
    EXPECT_TRUE(watch.sawEventually(link_));
    // Removing one of two names changes the link count but deletes nothing.
    watch.reset();
    fs::remove(root_ / "second-name");
    EXPECT_TRUE(watch.sawEventually(link_));
    watch.reset();
    fs::remove(file);
    EXPECT_TRUE(watch.sawEventually(delete_));
}

TEST_F(DispatchSourceFileSystemObjectTests, DeleteIsReportedAtTheUnlinkWhileDescriptorsStayOpen) {
    fs::path file = root_ / "file", emptyFolder = root_ / "empty", fullFolder = root_ / "full";
    TestSupport::writeFile(file, "x");
    fs::create_directory(emptyFolder);
    fs::create_directories(fullFolder / "a" / "b");
    TestSupport::writeFile(fullFolder / "a" / "b" / "c", "x");
    TestSupport::writeFile(fullFolder / "d", "x");

    int extraDescriptor = open(file.c_str(), O_RDONLY | O_CLOEXEC);  // delays the kernel's own delete report
    Watch fileWatch(file), emptyWatch(emptyFolder), fullWatch(fullFolder);

    fs::remove(file);
    EXPECT_TRUE(fileWatch.sawEventually(delete_));
    ASSERT_EQ(rmdir(emptyFolder.c_str()), 0);
    EXPECT_TRUE(emptyWatch.sawEventually(delete_));
    ASSERT_EQ(std::system(("rm -rf '" + fullFolder.string() + "'").c_str()), 0);
    EXPECT_TRUE(fullWatch.sawEventually(delete_ | write_));
    EXPECT_FALSE(fullWatch.events().contains(rename_));

    // Closing the last other descriptor does not report the delete a second time.
    fileWatch.reset();
    close(extraDescriptor);
    Watch sentinel(root_.path());
    TestSupport::writeFile(root_ / "sentinel", "x");
    ASSERT_TRUE(sentinel.sawEventually(write_));
    EXPECT_FALSE(fileWatch.events().contains(delete_));
}

TEST_F(DispatchSourceFileSystemObjectTests, RenameIsReportedAndTheWatchFollowsTheNode) {
    fs::path folder = root_ / "folder", elsewhere = root_ / "elsewhere", file = root_ / "file";
    fs::create_directory(folder);
    fs::create_directory(elsewhere);
    TestSupport::writeFile(file, "x");
    Watch folderWatch(folder), fileWatch(file);

    fs::rename(file, root_ / "file-renamed");
    EXPECT_TRUE(fileWatch.sawEventually(rename_));
    EXPECT_FALSE(fileWatch.events().contains(delete_));

    fs::rename(folder, elsewhere / "moved");
    EXPECT_TRUE(folderWatch.sawEventually(rename_));
    EXPECT_FALSE(folderWatch.events().contains(delete_));

    // At the new place the node is still watched, entries and the node itself.
    folderWatch.reset();
    TestSupport::writeFile(elsewhere / "moved" / "inside", "x");
    EXPECT_TRUE(folderWatch.sawEventually(write_));
    ASSERT_EQ(std::system(("rm -rf '" + (elsewhere / "moved").string() + "'").c_str()), 0);
    EXPECT_TRUE(folderWatch.sawEventually(delete_));

    fileWatch.reset();
    fs::remove(root_ / "file-renamed");
    EXPECT_TRUE(fileWatch.sawEventually(delete_));
}

TEST_F(DispatchSourceFileSystemObjectTests, SourcesOnOneNodeShareTheWatchAndCancelStopsDelivery) {
    fs::path file = root_ / "file";
    TestSupport::writeFile(file, "x");
    Watch first(file), second(file), onlyAttrib(file, attrib_);

    TestSupport::writeFile(file, "xy");
    EXPECT_TRUE(first.sawEventually(write_));
    EXPECT_TRUE(second.sawEventually(write_));

    // After one source is cancelled the other still hears the node, and the
    // cancelled one hears nothing.
    first.cancel();
    first.reset();
    second.reset();
    TestSupport::writeFile(file, "xyz");
    EXPECT_TRUE(second.sawEventually(write_));
    EXPECT_EQ(first.deliveries(), 0);

    // A source only reports the events of its mask.
    chmod(file.c_str(), 0600);
    EXPECT_TRUE(onlyAttrib.sawEventually(attrib_));
    EXPECT_EQ(onlyAttrib.events(), attrib_);

    // A new source after all are gone gets a fresh watch.
    second.cancel();
    onlyAttrib.cancel();
    Watch again(file);
    TestSupport::writeFile(file, "again");
    EXPECT_TRUE(again.sawEventually(write_));
}

TEST_F(DispatchSourceFileSystemObjectTests, UnwatchableDescriptorGivesASourceThatCanBeCancelled) {
    auto source = DispatchSource::makeFileSystemObjectSource(-1, FileSystemEvent::all(), DispatchQueue("vpn.test.bad"));
    std::atomic<bool> cancelled{false};
    source.setCancelHandler([&] { cancelled = true; });
    source.activate();
    source.cancel();
    EXPECT_TRUE(waitUntil([&] { return cancelled.load(); }));
    EXPECT_EQ(source.handle(), -1);
    EXPECT_EQ(source.mask(), FileSystemEvent::all());
}
