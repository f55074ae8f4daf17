// An owned file descriptor: closed when the owner goes away or resets it;
// and the one write loop every writer of whole buffers uses.
#pragma once

#include <errno.h>
#include <unistd.h>

#include <string_view>
#include <utility>

namespace Kernel {

class FileDescriptor {
public:
    /// Takes ownership of fd; a negative value owns nothing.
    explicit FileDescriptor(int fd = -1) noexcept : fd_(fd) {}
    ~FileDescriptor() { reset(); }
    FileDescriptor(FileDescriptor&& other) noexcept : fd_(other.release()) {}
    FileDescriptor& operator=(FileDescriptor&& other) noexcept {
        if (this != &other) reset(other.release());
        return *this;
    }
    FileDescriptor(const FileDescriptor&) = delete;
    FileDescriptor& operator=(const FileDescriptor&) = delete;

    int get() const noexcept { return fd_; }
    explicit operator bool() const noexcept { return fd_ >= 0; }

    /// Gives the descriptor up without closing it.
    int release() noexcept { return std::exchange(fd_, -1); }

    /// Closes the owned descriptor (if any) and takes fd instead.
    void reset(int fd = -1) noexcept {
        if (int old = std::exchange(fd_, fd); old >= 0) ::close(old);
    }

private:
    int fd_;
};

/// Writes all of bytes to fd, resuming after short writes and EINTR. False
/// with errno set on the first other failure (what came before it stays written).
inline bool writeAll(int fd, std::string_view bytes) noexcept {
    while (!bytes.empty()) {
        ssize_t written = ::write(fd, bytes.data(), bytes.size());
        if (written < 0) {
            if (errno == EINTR) continue;
            return false;
        }
        bytes.remove_prefix(static_cast<size_t>(written));
    }
    return true;
}

}  // namespace Kernel
