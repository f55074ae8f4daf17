#include "vpn_helper/SecureRemove.h"

#include <dirent.h>
#include <errno.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

namespace VpnHelper {

namespace {

// Folders of the current path held open at once (the deepest ones).
constexpr size_t kOpenLevels = 16;
// Readings of one folder while they still remove something: removing entries
// while reading may let a reading miss some, and the next one finds them.
constexpr int kReadings = 2;

struct DirCloser {
    void operator()(DIR* dir) const { closedir(dir); }
};
using DirHandle = std::unique_ptr<DIR, DirCloser>;

// One folder of the current path. Small on purpose: a deep tree keeps one per level.
struct Level {
    Level(std::string name, const struct stat& st, DirHandle dir)
        : name(std::move(name)), device(st.st_dev), inode(st.st_ino), dir(std::move(dir)) {}

    std::string name;  // in the folder above
    dev_t device;
    ino_t inode;
    DirHandle dir;                    // empty while closed to save descriptors
    std::vector<std::string> failed;  // entries that could not be removed: not tried again
    bool removedAny = false;          // in the current reading
    int readingsLeft = kReadings;
};

class Walker {
public:
    explicit Walker(int topFd) : topFd_(topFd) {}

    // Removes the entry `name` inside the folder open as topFd.
    void removeItem(const std::string& name) {
        int fd = -1;
        if (visit(topFd_, name.c_str(), DT_UNKNOWN, fd) != Outcome::opened || !descend(name, fd)) return;
        while (!path_.empty()) {
            Level& level = path_.back();
            errno = 0;
            dirent* entry = readdir(level.dir.get());
            if (entry == nullptr) {
                if (errno != 0) {
                    note(errno);
                } else if (level.removedAny && --level.readingsLeft > 0) {
                    level.removedAny = false;
                    rewinddir(level.dir.get());
                    continue;
                }
                ascend();
                continue;
            }
            std::string_view entryName = entry->d_name;
            if (entryName == "." || entryName == ".." ||
                std::find(level.failed.begin(), level.failed.end(), entryName) != level.failed.end())
                continue;
            switch (visit(dirfd(level.dir.get()), entry->d_name, entry->d_type, fd)) {
                case Outcome::removed: level.removedAny = true; break;
                case Outcome::absent: break;
                case Outcome::failed: level.failed.emplace_back(entryName); break;
                case Outcome::opened: {
                    std::string childName(entryName);
                    if (!descend(childName, fd)) level.failed.push_back(std::move(childName));
                    break;
                }
            }
        }
    }

    int firstError() const { return firstError_; }

private:
    enum class Outcome { removed, absent, failed, opened };

    // Removes the entry `name` of the folder open as parentFd unless it is a
    // folder, which it opens into fd instead.
    Outcome visit(int parentFd, const char* name, unsigned char typeHint, int& fd) {
        if (typeHint != DT_DIR && typeHint != DT_UNKNOWN) {
            if (unlinkat(parentFd, name, 0) == 0) return Outcome::removed;
            if (errno == ENOENT) return Outcome::absent;
            if (errno != EISDIR) return fail(errno);
            // The entry became a folder since it was listed: go on as for one.
        }
        fd = openat(parentFd, name, O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC);
        if (fd >= 0) return Outcome::opened;
        int error = errno;
        if (error == ENOENT) return Outcome::absent;
        // A link (ELOOP) or a non-folder (ENOTDIR): remove the entry itself.
        if (error == ELOOP || error == ENOTDIR) {
            if (unlinkat(parentFd, name, 0) == 0) return Outcome::removed;
            return errno == ENOENT ? Outcome::absent : fail(errno);
        }
        // An unreadable folder may still be empty.
        if (unlinkat(parentFd, name, AT_REMOVEDIR) == 0) return Outcome::removed;
        return fail(error);
    }

    // Makes the folder open as fd (taken over) the deepest level, closing the
    // shallowest open one when too many are open.
    bool descend(const std::string& name, int fd) {
        struct stat st;
        DirHandle dir(fstat(fd, &st) == 0 ? fdopendir(fd) : nullptr);
        if (!dir) {
            note(errno);
            close(fd);
            return false;
        }
        if (path_.size() - firstOpen_ >= kOpenLevels) path_[firstOpen_++].dir.reset();
        path_.emplace_back(name, st, std::move(dir));
        return true;
    }

    // The deepest level is read to the end: deletes it from the folder above,
    // re-opening that one first if it was closed.
    void ascend() {
        Level done = std::move(path_.back());
        path_.pop_back();
        Level* parent = path_.empty() ? nullptr : &path_.back();
        if (parent && !parent->dir) {
            if (!reopen(*parent, dirfd(done.dir.get()))) {
                // Every level above is closed: there is no way back that
                // does not trust a path, so the walk ends here.
                path_.clear();
                firstOpen_ = 0;
                return;
            }
            firstOpen_ = path_.size() - 1;
        }
        done.dir.reset();
        int parentFd = parent ? dirfd(parent->dir.get()) : topFd_;
        if (unlinkat(parentFd, done.name.c_str(), AT_REMOVEDIR) == 0) {
            if (parent) parent->removedAny = true;
        } else if (errno != ENOENT) {
            note(errno);
            if (parent) parent->failed.push_back(std::move(done.name));
        }
    }

    // Opens the folder above childFd as level, if it is still the folder the
    // walk came down through.
    bool reopen(Level& level, int childFd) {
        int fd = openat(childFd, "..", O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC);
        if (fd < 0) {
            note(errno);
            return false;
        }
        struct stat st;
        int error = fstat(fd, &st) != 0 ? errno : (st.st_dev != level.device || st.st_ino != level.inode) ? ESTALE : 0;
        if (error != 0) {
            note(error);
            close(fd);
            return false;
        }
        level.dir.reset(fdopendir(fd));
        if (!level.dir) {
            note(errno);
            close(fd);
            return false;
        }
        return true;
    }

    Outcome fail(int error) {
        note(error);
        return Outcome::failed;
    }

    void note(int error) {
        if (firstError_ == 0) firstError_ = error;
    }

    int topFd_;
    std::vector<Level> path_;  // from the item down to the folder being read
    size_t firstOpen_ = 0;     // path_[firstOpen_...] are open, the levels above closed
    int firstError_ = 0;
};

}  // namespace

bool secureRemoveItem(const std::string& path) {
    std::string trimmed = path;
    while (trimmed.size() > 1 && trimmed.back() == '/') trimmed.pop_back();
    if (trimmed.empty() || trimmed == "/") {
        errno = EINVAL;
        return false;
    }
    size_t slash = trimmed.rfind('/');
    std::string parent = slash == std::string::npos ? "." : (slash == 0 ? "/" : trimmed.substr(0, slash));
    std::string name = slash == std::string::npos ? trimmed : trimmed.substr(slash + 1);
    if (name == "." || name == "..") {
        errno = EINVAL;
        return false;
    }

    int parentFd = open(parent.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    if (parentFd < 0) {
        return errno == ENOENT;
    }
    Walker walker(parentFd);
    walker.removeItem(name);
    struct stat st;
    bool gone = fstatat(parentFd, name.c_str(), &st, AT_SYMLINK_NOFOLLOW) != 0 && errno == ENOENT;
    close(parentFd);
    if (!gone) {
        errno = walker.firstError() != 0 ? walker.firstError() : ENOTEMPTY;
    }
    return gone;
}

}  // namespace VpnHelper
