// A one-way channel: what is written to one end can be read from the other.
// Both ends are close-on-exec; a child process receives an end only through
// its standard streams.
#pragma once

#include <memory>

#include "Foundation/FileHandle.h"

namespace Foundation {

class Pipe {
public:
    /// A new pipe, or nullptr with errno set (out of descriptors).
    static std::shared_ptr<Pipe> create();

    const std::shared_ptr<FileHandle>& fileHandleForReading() const { return reading_; }
    const std::shared_ptr<FileHandle>& fileHandleForWriting() const { return writing_; }

private:
    Pipe(std::shared_ptr<FileHandle> reading, std::shared_ptr<FileHandle> writing)
        : reading_(std::move(reading)), writing_(std::move(writing)) {}

    std::shared_ptr<FileHandle> reading_;
    std::shared_ptr<FileHandle> writing_;
};

}  // namespace Foundation
