// The shared workspace: where an application is installed.
//
// Applications are "*.app" folders directly inside the search roots, by
// default "/Applications", "/Applications/Utilities" and the effective user's
// "~/Applications", searched in that order. An application is identified by
// the CFBundleIdentifier of its "Contents/Info.plist" (XML or binary).
#pragma once

#include <filesystem>
#include <optional>
#include <string_view>
#include <vector>

namespace Workspace {

class Workspace {
public:
    /// The workspace over the default search roots; created on first use,
    /// lives until the process ends.
    static const Workspace& shared();

    /// "/Applications", "/Applications/Utilities", then "Applications" in the
    /// home folder of the effective user (left out when it has none).
    static std::vector<std::filesystem::path> defaultSearchRoots();

    /// A workspace over the given roots, searched in the given order.
    explicit Workspace(std::vector<std::filesystem::path> searchRoots);

    const std::vector<std::filesystem::path>& searchRoots() const { return searchRoots_; }

    /// The bundle folder of the first application, in root order and then in
    /// name order within a root, whose identifier equals bundleIdentifier
    /// exactly; nothing when none does. Missing roots, unreadable folders and
    /// unreadable or malformed Info.plist files are skipped, and so are those
    /// that Foundation::PropertyList::fromData() refuses for breaking its
    /// bounds (size, nesting, ...). Thread-safe.
    std::optional<std::filesystem::path> urlForApplication(std::string_view bundleIdentifier) const;

    /// The CFBundleIdentifier of the bundle at bundlePath, or nothing when its
    /// Info.plist is missing, unreadable, malformed, out of bounds or has no
    /// string value. Never throws.
    static std::optional<std::string> bundleIdentifier(const std::filesystem::path& bundlePath);

    /// How long activateFileViewerSelecting() waits for the file manager.
    static constexpr std::chrono::milliseconds fileViewerTimeout{2000};

    /// Shows urls selected in the file manager: the call ShowItems(as uris,
    /// s startupId) of org.freedesktop.FileManager1 at /org/freedesktop/FileManager1
    /// on the session bus (DBUS_SESSION_BUS_ADDRESS, else $XDG_RUNTIME_DIR/bus),
    /// with the absolute paths as file URIs and an empty startup id. Blocks
    /// until the file manager answers, at most fileViewerTimeout. True when it
    /// accepted the call; false, with one console line saying why, when there
    /// is no session bus, no file manager answers in time or it refuses. An
    /// empty list asks nothing and gives true. Thread-safe; never throws.
    bool activateFileViewerSelecting(const std::vector<std::filesystem::path>& urls) const;

private:
    std::vector<std::filesystem::path> searchRoots_;
};

}  // namespace Workspace
