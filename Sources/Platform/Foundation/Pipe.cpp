#include "Foundation/Pipe.h"

#include <fcntl.h>
#include <unistd.h>

namespace Foundation {

std::shared_ptr<Pipe> Pipe::create() {
    int fds[2];
    if (pipe2(fds, O_CLOEXEC) != 0) return nullptr;
    return std::shared_ptr<Pipe>(
        new Pipe(std::make_shared<FileHandle>(fds[0]), std::make_shared<FileHandle>(fds[1])));
}

}  // namespace Foundation
