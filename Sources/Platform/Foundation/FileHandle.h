// An open file descriptor with blocking reads and writes and an optional
// handler called whenever it has data to read.
#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <string_view>
#include <vector>

#include "Dispatch/DispatchSource.h"

namespace Foundation {

class FileHandle : public std::enable_shared_from_this<FileHandle> {
public:
    using Data = std::vector<uint8_t>;
    using ReadabilityHandler = std::function<void(FileHandle&)>;

    /// Takes fileDescriptor; closes it on closeFile() and destruction when
    /// closeOnDealloc is true.
    explicit FileHandle(int fileDescriptor, bool closeOnDealloc = true);
    ~FileHandle();
    FileHandle(const FileHandle&) = delete;
    FileHandle& operator=(const FileHandle&) = delete;

    /// A handle on /dev/null, open for reading and writing; nullptr when it
    /// cannot be opened.
    static std::shared_ptr<FileHandle> nullDevice();

    /// The descriptor, or -1 once closed.
    int fileDescriptor() const;

    /// Blocks until some data can be read and returns what one read gives
    /// (up to 64 KiB). Empty at end of file, on error and once closed.
    Data availableData();
    /// Reads until end of file. Stops early, with what it got, on an error.
    Data readDataToEndOfFile();
    /// Writes all of bytes. False, with errno set, on an error.
    [[nodiscard]] bool write(std::string_view bytes);

    /// Removes the readability handler and closes the descriptor (when owned).
    /// Later calls do nothing.
    void closeFile();

    /// Calls handler on a global dispatch queue each time the descriptor has
    /// data or reaches end of file (a handler that does not read is called
    /// again). Calls never overlap. A handler that reads nothing at end of
    /// file should remove itself; the handle keeps itself alive while a
    /// handler is set. nullptr removes the handler: no call starts after that
    /// returns. The handle must be owned by a std::shared_ptr.
    void setReadabilityHandler(ReadabilityHandler handler);

private:
    void cancelSourceLk();

    mutable std::mutex mutex_;
    int fd_;                                           // guarded by mutex_
    const bool closeOnDealloc_;
    std::optional<Dispatch::DispatchSourceRead> source_;  // guarded by mutex_
    // Guarded by mutex_: set once the source's cancel handler owns closing fd_.
    bool closeInCancelHandler_ = false;
};

}  // namespace Foundation
