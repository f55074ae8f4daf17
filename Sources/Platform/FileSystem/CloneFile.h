// Copying a file with clone where the file system allows it.
#pragma once

#include <string>

namespace FileSystem {

/// Replaces `destination` with a copy of `source`, as the platform copy call
/// asked to clone, unlink the destination first and copy everything does:
/// - an existing destination is unlinked first (never written through);
/// - the data is cloned (shared extents) where the file system supports it,
///   else copied inside the kernel, else read and written; holes stay holes;
/// - mode, owner (where permitted), access and modification times and the
///   extended attributes the caller may read and set are carried over.
/// Returns 0, or -1 with errno set; a failed copy leaves no destination
/// behind. A destination that is the source itself fails with EINVAL.
/// Callable from any thread.
int cloneFile(const std::string& source, const std::string& destination);

}  // namespace FileSystem
