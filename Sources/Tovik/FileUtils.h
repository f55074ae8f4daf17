// Small file helpers for the support library: finding the files of one folder
// by suffix, deleting a file, moving a file into a folder, and making a
// private temporary folder.
//
// URLs are absolute file paths; where a message shows "the URL's description"
// it is "file://" + path. The three file operations report their failures to
// the shared logger and go on: the caller learns of a failure only through an
// empty list, or not at all. No state is kept; any thread may call them.
#pragma once

#include <filesystem>
#include <string>
#include <vector>

namespace Tovik {

class FileUtils {
public:
    /// The entries of `in` (not recursive, hidden ones skipped) that are not
    /// folders (a link counts as what it is, not what it points to) and whose
    /// path ends in `suffix` (case-sensitive), dot components resolved. In
    /// listing order, or with `sorted` newest first by the content
    /// modification date of what the entry refers to; equal dates keep the
    /// listing order and entries without a date (a dangling link) come last.
    /// A folder that cannot be listed: logs at error "Can't get all files with
    /// <suffix> in directory: <URL> with error: <error>" and returns nothing.
    static std::vector<std::filesystem::path> findFile(const std::string& suffix, const std::filesystem::path& in,
                                                       bool sorted);

    /// Removes the file (a folder with its contents). Anything that is not a
    /// file URL (not an absolute path, e.g. "https://host/x") is ignored
    /// without a word. Failure: logs at warning "Error deleting <URL> with
    /// error: <error>".
    static void removeFile(const std::filesystem::path& url);

    /// Moves `name` into the folder `to` under its own last component; an
    /// item already there is never replaced. Failure: logs at error "filed to
    /// move file <URL> to directory: <folder URL> with error: <error>".
    static void moveFile(const std::filesystem::path& name, const std::filesystem::path& to);

    /// Creates a new folder inside `in` named `prefix` followed by six random
    /// characters, readable by the owner only, and returns its path. Throws
    /// std::system_error with errno and the label "<label>: mkdtemp
    /// (<in>/<prefix>XXXXXX)" when it cannot.
    static std::filesystem::path makeTemporaryFolder(const std::string& prefix, const std::filesystem::path& in,
                                                     const std::string& label);
};

}  // namespace Tovik
