// Recursive deletion that never follows a symbolic link.
//
// The shared data folder is deleted as root while other programs may write
// into it, so a path-string walk (stat, then remove by name) could be tricked
// into deleting outside the tree by swapping a subfolder for a link between
// the two calls. This walk opens each child relative to its folder's
// descriptor with O_NOFOLLOW | O_DIRECTORY and removes entries with unlinkat:
// a link met anywhere is removed itself, and the walk never leaves the tree it
// started in.
//
// Trees of any depth are walked without recursion and with a fixed number of
// descriptors: only the deepest few folders of the current path stay open.
// The walk climbs back to a folder it closed through "..", and goes on only if
// that is still the very folder (device and inode) it came down through;
// otherwise the tree was moved under it, and the walk stops there.
#pragma once

#include <string>

namespace VpnHelper {

/// Deletes the item at path (a file, a link or a folder with its contents).
/// The folders above the item are trusted; everything from the item down is
/// walked by descriptor. Returns true when the item is gone afterwards (also
/// when it did not exist); on failure errno tells the first error met, and
/// whatever could be deleted is deleted. A folder moved away while the walk
/// was below it ends the walk (errno ESTALE) with the rest left in place.
bool secureRemoveItem(const std::string& path);

}  // namespace VpnHelper
