#include "FileSystem/OpenForEvents.h"

#include <fcntl.h>

namespace FileSystem {

int openForEvents(const std::string& path) { return ::open(path.c_str(), O_PATH | O_CLOEXEC); }

}  // namespace FileSystem
