#include "FileSystem/CloneFile.h"

#include <errno.h>
#include <fcntl.h>
#include <linux/fs.h>
#include <stdlib.h>
#include <sys/ioctl.h>
#include <sys/stat.h>
#include <sys/xattr.h>
#include <unistd.h>

#include <string_view>
#include <vector>

#include "Kernel/FileDescriptor.h"

namespace FileSystem {

namespace {

// The answers of a clone or an in-kernel copy that the file systems cannot do it.
bool isUnsupported(int error) {
    return error == EOPNOTSUPP || error == ENOTTY || error == EXDEV || error == EINVAL || error == ENOSYS;
}

// Copies [offset, end) with read and write.
bool copyRangeByReading(int source, int destination, off_t offset, off_t end) {
    std::vector<char> buffer(1 << 20);
    while (offset < end) {
        size_t want = static_cast<size_t>(std::min<off_t>(end - offset, static_cast<off_t>(buffer.size())));
        ssize_t got = ::pread(source, buffer.data(), want, offset);
        if (got < 0) {
            if (errno == EINTR) continue;
            return false;
        }
        if (got == 0) return true;  // the source shrank
        for (ssize_t done = 0; done < got;) {
            ssize_t put = ::pwrite(destination, buffer.data() + done, static_cast<size_t>(got - done), offset + done);
            if (put < 0) {
                if (errno == EINTR) continue;
                return false;
            }
            done += put;
        }
        offset += got;
    }
    return true;
}

// Copies [offset, end) inside the kernel, falling back to read and write where
// the file systems cannot. `inKernel` is cleared once the kernel has refused.
bool copyRange(int source, int destination, off_t offset, off_t end, bool& inKernel) {
    while (inKernel && offset < end) {
        loff_t in = offset, out = offset;
        ssize_t copied = ::copy_file_range(source, &in, destination, &out, static_cast<size_t>(end - offset), 0);
        if (copied < 0) {
            if (errno == EINTR) continue;
            if (!isUnsupported(errno)) return false;
            inKernel = false;
            break;
        }
        if (copied == 0) return true;  // the source shrank
        offset += copied;
    }
    return copyRangeByReading(source, destination, offset, end);
}

// Copies the data segments of the source; holes are left as holes and the
// length is set at the end.
bool copyData(int source, int destination, off_t size) {
    bool inKernel = true;
    off_t offset = 0;
    while (offset < size) {
        off_t data = ::lseek(source, offset, SEEK_DATA);
        if (data < 0) {
            if (errno == ENXIO) break;  // only a hole remains
            // No hole support: the whole rest is data.
            return copyRange(source, destination, offset, size, inKernel) && ::ftruncate(destination, size) == 0;
        }
        off_t hole = ::lseek(source, data, SEEK_HOLE);
        if (hole < 0) hole = size;
        if (hole > size) hole = size;
        if (data >= hole) break;
        if (!copyRange(source, destination, data, hole, inKernel)) return false;
        offset = hole;
    }
    return ::ftruncate(destination, size) == 0;
}

// Best effort, as for a copy made by someone without every privilege: an
// attribute that cannot be read or set is skipped.
void copyExtendedAttributes(int source, int destination) {
    ssize_t length = ::flistxattr(source, nullptr, 0);
    if (length <= 0) return;
    std::vector<char> names(static_cast<size_t>(length));
    length = ::flistxattr(source, names.data(), names.size());
    if (length <= 0) return;
    std::vector<char> value;
    for (size_t at = 0; at < static_cast<size_t>(length);) {
        const char* name = names.data() + at;
        at += std::string_view(name).size() + 1;
        ssize_t size = ::fgetxattr(source, name, nullptr, 0);
        if (size < 0) continue;
        value.resize(static_cast<size_t>(size));
        size = ::fgetxattr(source, name, value.data(), value.size());
        if (size < 0) continue;
        (void)::fsetxattr(destination, name, value.data(), static_cast<size_t>(size), 0);
    }
}

}  // namespace

int cloneFile(const std::string& source, const std::string& destination) {
    Kernel::FileDescriptor input(::open(source.c_str(), O_RDONLY | O_CLOEXEC));
    if (input.get() < 0) return -1;
    struct stat status {};
    if (::fstat(input.get(), &status) != 0) return -1;

    struct stat existing {};
    if (::lstat(destination.c_str(), &existing) == 0) {
        if (existing.st_dev == status.st_dev && existing.st_ino == status.st_ino) {
            errno = EINVAL;
            return -1;
        }
    } else if (errno != ENOENT) {
        return -1;
    }

    // The copy is made under a temporary name beside the destination and
    // takes its name only once complete.
    std::string temporary = destination + ".XXXXXX";
    temporary.insert(destination.rfind('/') + 1, 1, '.');  // after the last "/", or at 0
    Kernel::FileDescriptor output(::mkostemp(temporary.data(), O_CLOEXEC));
    if (output.get() < 0) return -1;

    const mode_t mode = status.st_mode & 07777;
    bool copied = ::ioctl(output.get(), FICLONE, input.get()) == 0;
    if (!copied && isUnsupported(errno)) copied = copyData(input.get(), output.get(), status.st_size);
    if (copied) {
        if (::fchown(output.get(), status.st_uid, status.st_gid) != 0) {
            // Only the owner's privileges allow this; the copy stays the caller's.
        }
        copyExtendedAttributes(input.get(), output.get());
        const struct timespec times[2] = {status.st_atim, status.st_mtim};
        copied = ::fchmod(output.get(), mode) == 0 && ::futimens(output.get(), times) == 0 &&
                 ::rename(temporary.c_str(), destination.c_str()) == 0;
    }
    if (!copied) {
        const int error = errno;
        ::unlink(temporary.c_str());
        errno = error;
        return -1;
    }
    return 0;
}

}  // namespace FileSystem
