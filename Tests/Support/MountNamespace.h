// Runs a test as root in a private mount namespace in which some paths show
// temporary folders or files instead of the machine's own, so code that
// insists on /Library, /Applications or /bin/launchctl can be tested without
// touching the real ones (even when they do not exist on this machine).
//
// Usage, at the top of a test body:
//
//     TEST(LocationsTests, SharedLogsFolderIsCreated) {
//         TestSupport::TemporaryDirectory library("library");
//         if (!TestSupport::insideMountNamespace({{"/Library", library.path()}})) {
//             // Host side, after the child ran: library.path() holds what it made.
//             return;
//         }
//         // From here on: inside the namespace, in a fresh process.
//         auto folder = VpnHelper::Locations::sharedLogsFolder();
//         ...
//     }
//
// How it works: the test process starts its own executable again with
// --gtest_filter naming the current test and the replacements in the
// environment variable TOVIK_MOUNT_NAMESPACE. Before main() (still single
// threaded) that child unshares its mount namespace, builds a new root on a
// tmpfs from recursive bind mounts of every top-level entry of "/" (top-level
// symlinks are copied), chroots into it (keeping the working directory) and
// then, for each replacement in the order given:
// - a target that exists is covered by a bind mount of the source;
// - a missing target is created first: directly when its deepest existing
//   ancestor is "/" or a folder made by an earlier step, else after laying a
//   tmpfs-backed overlay over that ancestor (mounts below the ancestor are
//   hidden by the overlay). Symlinks on the way are followed, so "/bin/x"
//   lands in "/usr/bin" on merged-/usr systems.
// Everything vanishes with the child; nothing on the host changes except what
// the test writes into the sources.
//
// The child is a fresh process: process-wide one-time values start unset, the
// fixture's SetUp runs again, and objects the test body created before the
// call (such as the TemporaryDirectory above) are new ones there - inside,
// use the target paths. The child's failures (file, line, message) are
// reported as failures of the test in the test process, its GTEST_SKIP as a
// skip; a crash or a failed set-up fails the test with the child's output.
#pragma once

#include <filesystem>
#include <vector>

namespace TestSupport {

struct MountReplacement {
    /// Absolute path as seen inside, e.g. "/Library" or "/bin/launchctl".
    std::filesystem::path target;
    /// Host folder (for a folder target) or file (for a file target).
    std::filesystem::path source;
    /// Mount it read-only (writes fail with EROFS, even for root).
    bool readOnly = false;
};

/// In the test process: runs the current test again in a child inside the
/// namespace, waits for it (at most 4 minutes, then kills it), reports its
/// outcome and returns false; the caller then returns. In that child: returns
/// true, and the test goes on inside the namespace (the replacements passed
/// there are ignored; the test process's were mounted). Needs root: without
/// it the test is skipped and false is returned.
[[nodiscard]] bool insideMountNamespace(const std::vector<MountReplacement>& replacements);

}  // namespace TestSupport
