#include "Tovik/FileSystemMonitor.h"

#include <fcntl.h>
#include <pwd.h>
#include <stdlib.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <filesystem>
#include <system_error>
#include <utility>
#include <vector>

#include "FileSystem/OpenForEvents.h"
#include "Kernel/ErrorNumber.h"
#include "Kernel/FileDescriptor.h"
#include "Tovik/Logger/Logger.h"

namespace Tovik {

namespace {

using Dispatch::FileSystemEvent;

// The monitor's module-qualified type name, which starts its queue's label.
constexpr const char* kQualifiedTypeName = "Tovik.FileSystemMonitor";

// The user folders a path's base folder may be, relative to the user's home,
// in the order they are tried (documents, desktop, caches, application
// support, downloads, movies, music, pictures, library).
constexpr const char* kStandardUserFolders[] = {
    "Documents", "Desktop", "Library/Caches", "Library/Application Support", "Downloads",
    "Movies",    "Music",   "Pictures",       "Library",
};

// The names of the events in a set, in the order they are logged.
constexpr std::pair<FileSystemEvent, const char*> kEventNames[] = {
    {FileSystemEvent::attrib(), "attrib"}, {FileSystemEvent::delete_(), "delete"},
    {FileSystemEvent::extend(), "extend"}, {FileSystemEvent::funlock(), "funlock"},
    {FileSystemEvent::link(), "link"},     {FileSystemEvent::rename(), "rename"},
    {FileSystemEvent::revoke(), "rewoke"}, {FileSystemEvent::write(), "write"},
};

std::string describe(FileSystemEvent events) {
    if (events.contains(FileSystemEvent::all())) return "all";
    std::string text;
    for (const auto& [event, name] : kEventNames) {
        if (!events.contains(event)) continue;
        if (!text.empty()) text += '|';
        text += name;
    }
    return text;
}

std::optional<PathInfo::NodeReference> nodeAt(const std::string& path) {
    struct stat status {};
    if (::stat(path.c_str(), &status) != 0) return std::nullopt;
    return PathInfo::NodeReference{status.st_dev, status.st_ino};
}

// The home folder of the effective user in the user database; "" without an entry.
std::string userHomeFolder() {
    std::vector<char> buffer(16384);
    passwd entry {};
    passwd* found = nullptr;
    if (::getpwuid_r(::geteuid(), &entry, buffer.data(), buffer.size(), &found) != 0 || found == nullptr ||
        found->pw_dir == nullptr) {
        return {};
    }
    return found->pw_dir;
}

// This process's own home: $HOME when set, else the user's.
std::string processHomeFolder() {
    const char* home = ::getenv("HOME");
    return home != nullptr && *home != '\0' ? std::string(home) : userHomeFolder();
}

// Absolute, "~" expanded, without "." and ".." parts or a trailing "/".
std::string standardized(const std::string& path) {
    std::string expanded = path;
    if (expanded == "~" || expanded.starts_with("~/")) expanded.replace(0, 1, processHomeFolder());
    std::error_code error;
    std::filesystem::path absolute = std::filesystem::absolute(expanded, error);
    std::string text = (error ? std::filesystem::path(expanded) : absolute).lexically_normal().string();
    while (text.size() > 1 && text.back() == '/') text.pop_back();
    return text;
}

// "/" followed by the names of a standardized path.
std::vector<std::string> components(const std::string& path) {
    std::vector<std::string> parts{"/"};
    size_t start = 0;
    while (start < path.size()) {
        size_t end = path.find('/', start);
        if (end == std::string::npos) end = path.size();
        if (end > start) parts.push_back(path.substr(start, end - start));
        start = end + 1;
    }
    return parts;
}

// The path made of the first `count` components.
std::string joined(const std::vector<std::string>& parts, size_t count) {
    std::string path = "/";
    for (size_t i = 1; i < count; ++i) {
        if (i > 1) path += '/';
        path += parts[i];
    }
    return path;
}

// path starts with folder's text, followed by "/" (or folder ends in one).
bool liesUnder(const std::string& path, const std::string& folder) {
    if (folder.empty() || !path.starts_with(folder)) return false;
    return folder.back() == '/' || (path.size() > folder.size() && path[folder.size()] == '/');
}

bool isOrLiesUnder(const std::string& path, const std::string& folder) {
    return path == folder || liesUnder(path, folder);
}

// The highest folder a root search may reach for path.
std::string baseFolder(const std::string& path) {
    const std::vector<std::string> parts = components(path);
    if (parts.size() > 1 && parts[1] == "Library") {
        return liesUnder(path, "/Library/Application Support") ? "/Library/Application Support" : "/Library";
    }
    const std::string userHome = userHomeFolder();
    if (!liesUnder(path, userHome)) return parts.size() > 1 ? "/" + parts[1] : "/";
    if (liesUnder(path, userHome + "/Library/Group Containers")) return userHome + "/Library/Group Containers";

    const std::string processHome = processHomeFolder();
    for (const char* name : kStandardUserFolders) {
        const std::string folder = userHome + "/" + name;
        if (isOrLiesUnder(path, folder)) return folder;
        if (processHome != userHome && liesUnder(folder, processHome)) {
            const std::string mapped = userHome + folder.substr(processHome.size());
            if (isOrLiesUnder(path, mapped)) return mapped;
        }
    }
    return liesUnder(path, processHome) ? processHome : userHome;
}

// The highest readable existing folder from the target up to its base folder;
// an existing folder that cannot be read ends the search.
std::optional<std::string> searchRoot(const std::vector<std::string>& target) {
    const std::string targetPath = joined(target, target.size());
    const size_t lowestDepth = std::max<size_t>(components(baseFolder(targetPath)).size(), 1);
    std::optional<std::string> root;
    struct stat status {};
    if (::stat(targetPath.c_str(), &status) == 0 && S_ISDIR(status.st_mode)) root = targetPath;
    for (size_t depth = target.size() - 1; depth >= lowestDepth; --depth) {
        std::string candidate = joined(target, depth);
        if (::stat(candidate.c_str(), &status) != 0) continue;
        if (::access(candidate.c_str(), R_OK) != 0) break;
        root = std::move(candidate);
    }
    return root;
}

// The target level and, through `parent`, every level above it up to the
// one as deep as the root.
std::shared_ptr<PathInfo> makeChain(const std::vector<std::string>& target, const std::string& root) {
    const size_t rootDepth = std::clamp<size_t>(components(standardized(root)).size(), 1, target.size());
    std::shared_ptr<PathInfo> level;
    std::string path;
    for (size_t depth = 1; depth <= target.size(); ++depth) {
        path = depth == 1 ? "/" : depth == 2 ? "/" + target[1] : path + "/" + target[depth - 1];
        if (depth >= rootDepth) level = std::make_shared<PathInfo>(path, std::move(level));
    }
    return level;
}

std::shared_ptr<PathInfo> buildChain(const std::string& path, const std::string& underRoot) {
    const std::vector<std::string> target = components(standardized(path));
    std::optional<std::string> root;
    if (!underRoot.empty()) {
        root = underRoot;
    } else {
        root = searchRoot(target);
    }
    if (!root) {
        TLOG_ERROR("init(_:underRoot:)", "Failed to find accessible root path for '" + path + "'");
        return nullptr;
    }
    return makeChain(target, *root);
}

// Opens path for event notification only. The event-only open does not ask
// for read access, but the kernel watches only nodes the user may read: a
// node that cannot be read would give a source that never fires, so it fails
// here as an open refused with EACCES. Returns -1 with errno set.
int openForMonitoring(const std::string& path) {
    Kernel::FileDescriptor fd(FileSystem::openForEvents(path));
    if (!fd) return -1;
    if (::faccessat(AT_FDCWD, path.c_str(), R_OK, AT_EACCESS) != 0 && errno == EACCES) return -1;
    return fd.release();
}

std::string errorDescription(int error) {
    if (!Kernel::isDefinedErrorNumber(error)) error = Kernel::highestErrorNumber();
    return std::generic_category().message(error);
}

}  // namespace

// MARK: - PathInfo

PathInfo::PathInfo(std::string path, std::shared_ptr<PathInfo> parent)
    : path(std::move(path)), parent(std::move(parent)) {}

PathInfo::~PathInfo() {
    // Letting `parent` go inline would free the levels above recursively, one
    // frame per level. Instead each level this one owns alone gives up its own
    // parent before it is freed; a level someone else still holds (a source's
    // handler) ends the walk and is freed, the same way, by its last owner.
    std::shared_ptr<PathInfo> next = std::move(parent);
    while (next && next.use_count() == 1) {
        std::shared_ptr<PathInfo> above = std::move(next->parent);
        next = std::move(above);
    }
}

void PathInfo::stop() {
    if (dispatchSource) dispatchSource->cancel();
    refUrl.reset();
    dispatchSource.reset();
    fd = -1;
}

bool PathInfo::isIntact() const { return refUrl && nodeAt(path) == refUrl; }

// MARK: - FileSystemMonitorDelegate

void FileSystemMonitorDelegate::fileSystemMonitorDidFailToRestart(const std::shared_ptr<FileSystemMonitor>& monitor,
                                                                  const std::string& path) {
    TLOG_ERROR("fileSystemMonitorDidFailToRestart(_:onPath:)",
               "FileSystemMonitor(" + monitor->path() + " failed to restart on path " + path);
}

// MARK: - FileSystemMonitor

std::shared_ptr<FileSystemMonitor> FileSystemMonitor::create(const std::string& path, const std::string& underRoot) {
    return std::make_shared<FileSystemMonitor>(Token{}, path, underRoot);
}

FileSystemMonitor::FileSystemMonitor(Token, const std::string& path, const std::string& underRoot)
    : pathInfo_(buildChain(path, underRoot)),
      queue_(std::string(kQualifiedTypeName) + " " + path, Dispatch::DispatchQoS::unspecified,
             Dispatch::DispatchQueue::Attributes::serial, Dispatch::DispatchQueue::AutoreleaseFrequency::workItem) {}

FileSystemMonitor::~FileSystemMonitor() {
    // The last owner may be an event handler of this very monitor.
    if (queue_.isCurrent()) {
        stopQ();
    } else {
        queue_.sync([this] { stopQ(); });
    }
}

bool FileSystemMonitor::startMonitoring() {
    return queue_.sync([this] {
        if (!pathInfo_) {
            TLOG_ERROR("startMonitoring()", "Path info is not initialized");
            return false;
        }
        isStarted_ = restartMonitoringQ(nullptr);
        return isStarted_;
    });
}

void FileSystemMonitor::stopMonitoring() {
    queue_.sync([this] { stopQ(); });
}

bool FileSystemMonitor::isMonitoring() const {
    return queue_.sync([this] { return isStarted_; });
}

const std::string& FileSystemMonitor::path() const {
    static const std::string none;
    return pathInfo_ ? pathInfo_->path : none;
}

std::shared_ptr<FileSystemMonitorDelegate> FileSystemMonitor::delegate() const { return delegate_.load().lock(); }

void FileSystemMonitor::setDelegate(std::weak_ptr<FileSystemMonitorDelegate> delegate) {
    delegate_.store(std::move(delegate));
}

void FileSystemMonitor::stopQ() {
    for (PathInfo* level = pathInfo_.get(); level != nullptr; level = level->parent.get()) level->stop();
    isStarted_ = false;
}

bool FileSystemMonitor::restartMonitoringQ(const PathInfo* below, bool targetEventsReported) {
    if (!pathInfo_ || (below != nullptr && below->path == pathInfo_->path)) return true;
    for (;;) {
        // A level armed by this walk was armed after the levels below it were
        // looked at: one that appeared in between sent no event to anybody.
        // The highest such level whose child now exists gets the walk again.
        const PathInfo* recheckBelow = nullptr;
        const PathInfo* child = nullptr;
        for (std::shared_ptr<PathInfo> level = pathInfo_; level;) {
            if (level->isIntact()) {
                TLOG_DEBUG("restartMonitoringQ(below:)", "Path " + level->path + " is already monitoring.");
                break;
            }
            if (level == pathInfo_ && level->dispatchSource && !targetEventsReported) reportReplacedTargetQ(*level);
            if (!restartQ(level)) {
                stopQ();
                return false;
            }
            if (child != nullptr && level->dispatchSource && !child->dispatchSource && nodeAt(child->path)) {
                recheckBelow = level.get();
            }
            child = level.get();
            level = level->parent;
            if (level.get() == below) break;
        }
        if (recheckBelow == nullptr) return true;
        below = recheckBelow;
        targetEventsReported = false;
    }
}

void FileSystemMonitor::reportReplacedTargetQ(const PathInfo& target) {
    // The target's node was deleted or moved away (itself, or with a folder
    // above it), or something else now stands at its path. Its own source may
    // hold that very event still undelivered, as the folder above hears of it
    // in the same breath and is often handled first; re-arming cancels the
    // source and drops it. So the delegate hears it from here: deleted when
    // the node has no link left, moved otherwise.
    struct stat status {};
    const bool deleted = ::fstat(target.fd, &status) == 0 && status.st_nlink == 0;
    notifyChangeQ(deleted ? FileSystemEvent::delete_() : FileSystemEvent::rename());
}

void FileSystemMonitor::notifyChangeQ(FileSystemEvent events) {
    Dispatch::DispatchQueue::global(Dispatch::DispatchQoS::default_).async([self = shared_from_this(), events] {
        if (auto delegate = self->delegate()) delegate->fileSystemMonitorDidObserveChange(self, events);
    });
}

bool FileSystemMonitor::restartQ(const std::shared_ptr<PathInfo>& level) {
    level->stop();
    if (!nodeAt(level->path)) {
        TLOG_DEBUG("restartQ(_:)", "Path " + level->path + " doesn't exist yet.");
        return true;
    }
    const int fd = openForMonitoring(level->path);
    if (fd == -1) {
        const int error = errno;
        if (error == ENOENT) return true;
        TLOG_ERROR("restartQ(_:)", "Open " + level->path + " for monitoring file notifications: " +
                                       errorDescription(error));
        return false;
    }
    // The reference names the node actually opened, whatever stood at the
    // path a moment before.
    struct stat status {};
    std::optional<PathInfo::NodeReference> reference;
    if (::fstat(fd, &status) == 0) reference = PathInfo::NodeReference{status.st_dev, status.st_ino};

    auto source = Dispatch::DispatchSource::makeFileSystemObjectSource(fd, FileSystemEvent::all(), queue_);
    source.setEventHandler([weakSelf = weak_from_this(), level, fd] {
        if (auto self = weakSelf.lock()) self->handleEventQ(level, fd);
    });
    source.setCancelHandler([level, fd, owned = std::make_shared<Kernel::FileDescriptor>(fd)] {
        if (level->fd == fd) {
            level->refUrl.reset();
            level->dispatchSource.reset();
            level->fd = -1;
        }
        owned->reset();
    });
    level->dispatchSource = source;
    level->fd = fd;
    level->refUrl = reference;
    source.activate();
    return true;
}

void FileSystemMonitor::handleEventQ(const std::shared_ptr<PathInfo>& level, int capturedFd) {
    // Queued before the level was stopped or re-armed: stale.
    if (!level->dispatchSource || level->fd != capturedFd) return;
    const FileSystemEvent events = level->dispatchSource->data();
    TLOG_DEBUG("restartQ(_:)", "Got event: " + describe(events) + " for " + level->path);

    const bool isTarget = level == pathInfo_;
    if (isTarget) notifyChangeQ(events);
    if (!restartMonitoringQ(level->parent.get(), isTarget)) {
        Dispatch::DispatchQueue::global(Dispatch::DispatchQoS::default_).async([self = shared_from_this()] {
            if (auto delegate = self->delegate()) delegate->fileSystemMonitorDidFailToRestart(self, self->path());
        });
    }
}

}  // namespace Tovik
