// Descriptors that only name a file for event notification.
#pragma once

#include <string>

namespace FileSystem {

/// Opens `path` for event notification only (no reading or writing, no
/// effect on the file's times, close-on-exec), the descriptor a file-system
/// object source watches. Returns the descriptor, or -1 with errno set.
int openForEvents(const std::string& path);

}  // namespace FileSystem
