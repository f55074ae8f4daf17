#include "Tovik/FileUtils.h"

#include <stdlib.h>
#include <sys/stat.h>

#include <algorithm>
#include <cerrno>
#include <optional>
#include <system_error>
#include <utility>

#include "Tovik/Logger/Logger.h"

namespace Tovik {

namespace {

std::string urlDescription(const std::filesystem::path& url) { return "file://" + url.string(); }

std::optional<std::filesystem::file_time_type> modificationDate(const std::filesystem::path& path) {
    std::error_code error;
    const auto date = std::filesystem::last_write_time(path, error);
    if (error) return std::nullopt;
    return date;
}

// Renames `from` to `to` unless something is already at `to`; a move to
// another file system copies and then removes the original.
std::error_code moveItem(const std::filesystem::path& from, const std::filesystem::path& to) {
    std::error_code error;
    if (std::filesystem::exists(std::filesystem::symlink_status(to, error))) {
        return std::make_error_code(std::errc::file_exists);
    }
    std::filesystem::rename(from, to, error);
    if (error != std::errc::cross_device_link) return error;
    error.clear();
    std::filesystem::copy(
        from, to, std::filesystem::copy_options::recursive | std::filesystem::copy_options::copy_symlinks, error);
    if (!error) std::filesystem::remove_all(from, error);
    return error;
}

}  // namespace

std::vector<std::filesystem::path> FileUtils::findFile(const std::string& suffix, const std::filesystem::path& in,
                                                       bool sorted) {
    std::vector<std::filesystem::path> found;
    std::error_code error;
    std::filesystem::directory_iterator entries(in, error);
    for (; !error && entries != std::filesystem::directory_iterator(); entries.increment(error)) {
        const std::filesystem::directory_entry& entry = *entries;
        if (entry.path().filename().string().starts_with('.')) continue;
        std::error_code typeError;
        const std::filesystem::file_status status = entry.symlink_status(typeError);
        if (typeError || std::filesystem::is_directory(status)) continue;
        std::filesystem::path url = entry.path().lexically_normal();
        if (url.string().ends_with(suffix)) found.push_back(std::move(url));
    }
    if (error) {
        TLOG_ERROR("findFile(suffix:in:sorted:)", "Can't get all files with " + suffix + " in directory: " +
                                                      urlDescription(in) + " with error: " + error.message());
        return {};
    }
    if (!sorted) return found;

    std::vector<std::pair<std::optional<std::filesystem::file_time_type>, std::filesystem::path>> dated;
    dated.reserve(found.size());
    for (auto& url : found) dated.emplace_back(modificationDate(url), std::move(url));
    // Newest first; an absent date is older than any (std::optional orders it first).
    std::stable_sort(dated.begin(), dated.end(), [](const auto& a, const auto& b) { return a.first > b.first; });
    found.clear();
    for (auto& pair : dated) found.push_back(std::move(pair.second));
    return found;
}

void FileUtils::removeFile(const std::filesystem::path& url) {
    if (!url.is_absolute()) return;
    std::error_code error;
    if (!std::filesystem::exists(std::filesystem::symlink_status(url, error))) {
        if (!error) error = std::make_error_code(std::errc::no_such_file_or_directory);
    } else {
        std::filesystem::remove_all(url, error);
    }
    if (error) TLOG_WARN("removeFile(_:)", "Error deleting " + urlDescription(url) + " with error: " + error.message());
}

void FileUtils::moveFile(const std::filesystem::path& name, const std::filesystem::path& to) {
    const std::error_code error = moveItem(name, to / name.filename());
    if (error) {
        TLOG_ERROR("moveFile(name:to:)", "filed to move file " + urlDescription(name) + " to directory: " +
                                             urlDescription(to) + " with error: " + error.message());
    }
}

std::filesystem::path FileUtils::makeTemporaryFolder(const std::string& prefix, const std::filesystem::path& in,
                                                     const std::string& label) {
    std::string pattern = (in / (prefix + "XXXXXX")).string();
    const std::string shown = pattern;
    if (::mkdtemp(pattern.data()) == nullptr) {
        const int error = errno;
        throw std::system_error(error, std::generic_category(), label + ": mkdtemp (" + shown + ")");
    }
    return pattern;
}

}  // namespace Tovik
