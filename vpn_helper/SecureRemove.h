// Recursive deletion that never follows a symbolic link.
//
// The shared data folder is deleted as root while other programs may write
// into it, so a path-string walk (stat, then remove by name) could be tricked
// into deleting outside the tree by swapping a subfolder for a link between
// the two calls. This walk holds a descriptor on every folder it descends
// into, opens each child relative to it with O_NOFOLLOW | O_DIRECTORY and
// removes entries with unlinkat: a link met anywhere is removed itself, and
// the walk never leaves the tree it started in.
#pragma once

#include <string>

namespace VpnHelper {

/// Deletes the item at path (a file, a link or a folder with its contents).
/// The folders above the item are trusted; everything from the item down is
/// walked by descriptor. Returns true when the item is gone afterwards (also
/// when it did not exist); on failure errno tells the first error met, and
/// whatever could be deleted is deleted.
bool secureRemoveItem(const std::string& path);

}  // namespace VpnHelper
