#include "Foundation/FileHandle.h"

#include <errno.h>
#include <fcntl.h>
#include <poll.h>
#include <unistd.h>

#include "Kernel/FileDescriptor.h"

namespace Foundation {

namespace {
constexpr size_t readChunk = 64 * 1024;
}

FileHandle::FileHandle(int fileDescriptor, bool closeOnDealloc)
    : fd_(fileDescriptor), closeOnDealloc_(closeOnDealloc) {}

FileHandle::~FileHandle() { closeFile(); }

std::shared_ptr<FileHandle> FileHandle::nullDevice() {
    int fd = open("/dev/null", O_RDWR | O_CLOEXEC);
    if (fd < 0) return nullptr;
    return std::make_shared<FileHandle>(fd);
}

int FileHandle::fileDescriptor() const {
    std::lock_guard guard(mutex_);
    return fd_;
}

FileHandle::Data FileHandle::availableData() {
    int fd = fileDescriptor();
    Data data;
    if (fd < 0) return data;
    data.resize(readChunk);
    while (true) {
        ssize_t n = read(fd, data.data(), data.size());
        if (n >= 0) {
            data.resize(static_cast<size_t>(n));
            return data;
        }
        if (errno == EINTR) continue;
        if (errno == EAGAIN || errno == EWOULDBLOCK) {
            pollfd waiter{fd, POLLIN, 0};
            if (poll(&waiter, 1, -1) >= 0 || errno == EINTR) continue;
        }
        data.clear();
        return data;
    }
}

FileHandle::Data FileHandle::readDataToEndOfFile() {
    Data all;
    while (true) {
        Data chunk = availableData();
        if (chunk.empty()) return all;
        all.insert(all.end(), chunk.begin(), chunk.end());
    }
}

bool FileHandle::write(std::string_view bytes) {
    int fd = fileDescriptor();
    if (fd < 0) {
        errno = EBADF;
        return false;
    }
    return Kernel::writeAll(fd, bytes);
}

void FileHandle::closeFile() {
    std::lock_guard guard(mutex_);
    if (fd_ < 0) return;
    if (source_ && closeOnDealloc_) {
        // The source may still be watching the descriptor: close it only once
        // the source is out of the event system.
        int fd = fd_;
        source_->setCancelHandler([fd] { close(fd); });
        closeInCancelHandler_ = true;
    }
    cancelSourceLk();
    if (closeOnDealloc_ && !closeInCancelHandler_) close(fd_);
    fd_ = -1;
}

void FileHandle::setReadabilityHandler(ReadabilityHandler handler) {
    std::lock_guard guard(mutex_);
    cancelSourceLk();
    if (!handler || fd_ < 0) return;
    auto source = Dispatch::DispatchSource::makeReadSource(fd_, Dispatch::DispatchQueue::global());
    source.setEventHandler([self = shared_from_this(), handler = std::move(handler)] { handler(*self); });
    source.activate();
    source_ = std::move(source);
}

void FileHandle::cancelSourceLk() {
    if (!source_) return;
    source_->cancel();
    source_.reset();
}

}  // namespace Foundation
