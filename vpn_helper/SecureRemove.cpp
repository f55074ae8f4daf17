#include "vpn_helper/SecureRemove.h"

#include <dirent.h>
#include <errno.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <string>
#include <string_view>
#include <vector>

namespace VpnHelper {

namespace {

class Walker {
public:
    // Removes the entry `name` inside the folder open as parentFd.
    void removeEntry(int parentFd, const char* name, unsigned char typeHint) {
        if (typeHint != DT_DIR && typeHint != DT_UNKNOWN) {
            if (unlinkat(parentFd, name, 0) == 0 || errno == ENOENT) return;
            if (errno != EISDIR) return note(errno);
            // The entry became a folder since it was listed: fall through.
        }
        int fd = openat(parentFd, name, O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC);
        if (fd < 0) {
            int error = errno;
            if (error == ENOENT) return;
            // A link (ELOOP) or a non-folder (ENOTDIR): remove the entry itself.
            if (error == ELOOP || error == ENOTDIR) {
                if (unlinkat(parentFd, name, 0) == 0 || errno == ENOENT) return;
                return note(errno);
            }
            // An unreadable folder may still be empty.
            if (unlinkat(parentFd, name, AT_REMOVEDIR) == 0) return;
            return note(error);
        }
        removeContents(fd);  // takes ownership of fd
        if (unlinkat(parentFd, name, AT_REMOVEDIR) != 0 && errno != ENOENT) note(errno);
    }

    int firstError() const { return firstError_; }

private:
    // Empties the folder open as fd and closes fd.
    void removeContents(int fd) {
        DIR* dir = fdopendir(fd);
        if (dir == nullptr) {
            note(errno);
            close(fd);
            return;
        }
        // Collect the names first: deleting while reading may skip entries.
        std::vector<std::pair<std::string, unsigned char>> entries;
        errno = 0;
        while (dirent* entry = readdir(dir)) {
            std::string_view name = entry->d_name;
            if (name == "." || name == "..") continue;
            entries.emplace_back(std::string(name), entry->d_type);
        }
        if (errno != 0) note(errno);
        for (const auto& [name, type] : entries) removeEntry(dirfd(dir), name.c_str(), type);
        closedir(dir);
    }

    void note(int error) {
        if (firstError_ == 0) firstError_ = error;
    }

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
    Walker walker;
    walker.removeEntry(parentFd, name.c_str(), DT_UNKNOWN);
    struct stat st;
    bool gone = fstatat(parentFd, name.c_str(), &st, AT_SYMLINK_NOFOLLOW) != 0 && errno == ENOENT;
    close(parentFd);
    if (!gone) {
        errno = walker.firstError() != 0 ? walker.firstError() : ENOTEMPTY;
    }
    return gone;
}

}  // namespace VpnHelper
