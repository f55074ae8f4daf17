// A file's creation (birth) time.
//
// Linux records a birth time but has no call to set it. The creation time a
// program sets is therefore kept beside the file, in the extended attribute
// "user.creation_time" (decimal "<seconds>.<microseconds>" since 1970), and
// read back from there before the kernel's own birth time.
#pragma once

#include <chrono>
#include <optional>

namespace FileSystem {

/// Records `time` as the creation time of the open file `fd`.
/// Returns 0, or -1 with errno set (ENOTSUP where the file system keeps no
/// user extended attributes). Callable from any thread.
int setCreationTime(int fd, std::chrono::system_clock::time_point time);

/// The creation time last set with setCreationTime(), else the kernel's birth
/// time, else nothing. Never fails otherwise.
std::optional<std::chrono::system_clock::time_point> creationTime(int fd);

}  // namespace FileSystem
