// Copying a file with clone where the file system allows it.
#pragma once

#include <string>

namespace FileSystem {

/// Replaces `destination` with a complete copy of `source` (as the platform
/// copy call asked to clone and copy everything), or leaves it as it was:
/// - the copy is made under a temporary name in the destination's folder
///   (".<name>.XXXXXX") and renamed over the destination once complete, so an
///   existing destination is never written through and is never seen half
///   copied;
/// - the data is cloned (shared extents) where the file system supports it,
///   else copied inside the kernel, else read and written; holes stay holes;
/// - mode, owner (where permitted), access and modification times and the
///   extended attributes the caller may read and set are carried over.
/// Returns 0, or -1 with errno set; a failed copy (a full disk, say) leaves
/// the destination as it was and no temporary file behind. A destination
/// that is the source itself fails with EINVAL. Callable from any thread.
int cloneFile(const std::string& source, const std::string& destination);

}  // namespace FileSystem
