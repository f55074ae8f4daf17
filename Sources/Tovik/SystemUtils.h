// Blocking command-line tool runner, zip archives and the root check.
//
// Every operation blocks the calling thread until the tool has exited. None
// keeps shared state, so any thread may call them, several at once.
//
// URLs are absolute file paths. Where a log message shows "the URL's
// description" it is the file URL text, "file://" + path.
#pragma once

#include <cstdint>
#include <filesystem>
#include <optional>
#include <string>
#include <utility>
#include <vector>

namespace Tovik {

class SystemUtil {
public:
    using Bytes = std::vector<std::uint8_t>;

    /// The status of a tool that could not be launched or whose output could
    /// not be read. No tool's own exit status is ever reported as this value.
    static constexpr std::int32_t launchFailureStatus = -1111;

    SystemUtil() = delete;

    /// Launches the tool at path with arguments (the tool's own name is not
    /// among them), in currentDirPath when given, inheriting the environment
    /// and standard input. With output true, standard output and standard
    /// error share one pipe (arrival order is kept) and are read to their end
    /// before the wait for the exit; otherwise they are inherited.
    /// Returns the exit status (the signal number for a tool ended by a
    /// signal) and the output bytes (absent without output collection).
    /// Launch or read failure: logs "Error occured: " + the error and returns
    /// (launchFailureStatus, absent).
    static std::pair<std::int32_t, std::optional<Bytes>> cliUtil(
        const std::string& path, const std::vector<std::string>& arguments,
        const std::optional<std::filesystem::path>& currentDirPath, bool output);

    /// As cliUtil; the output as text, absent when there is none or it is
    /// not valid UTF-8.
    static std::pair<std::int32_t, std::optional<std::string>> cliUtilText(
        const std::string& path, const std::vector<std::string>& arguments,
        const std::optional<std::filesystem::path>& currentDirPath, bool output);

    /// Zips the folder (onlyContents false) or its contents (onlyContents
    /// true) with "/usr/bin/zip -r -X" into the archive <folder>.<ext> beside
    /// the folder, and returns that archive's path. Absent, with one error
    /// line, when folderUrl is not a folder, ext cannot be a path extension,
    /// or zip fails.
    static std::optional<std::filesystem::path> compressFolder(const std::filesystem::path& folderUrl,
                                                               const std::string& ext, bool onlyContents);

    /// Unpacks archive into targetFolderUrl with "/usr/bin/unzip -o",
    /// overwriting existing files. True on success (logged at info); absent,
    /// with the tool's status and output logged, on failure.
    static std::optional<bool> uncompress(const std::filesystem::path& archive,
                                          const std::filesystem::path& targetFolderUrl);

    /// True when the effective user id is 0.
    static bool rootPrivileges();
};

}  // namespace Tovik
