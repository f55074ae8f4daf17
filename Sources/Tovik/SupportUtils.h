// A compressed archive of recent logs and extra items for a support request.
//
// createArchive() saves the logs of the process-wide log manager
// (LogManager::shared()) and the caller's items into a private temporary
// folder, zips it, and puts the archive at the destination. It works in the
// background on the user-initiated global queue and reports through the
// returned progress object and one completion call.
#pragma once

#include <cstdint>
#include <exception>
#include <filesystem>
#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <variant>
#include <vector>

#include "Dispatch/DispatchQueue.h"
#include "Foundation/Progress.h"
#include "Foundation/PropertyList.h"
#include "Tovik/Logger/LogManagerProtocol.h"

namespace Tovik {

/// What the logs are for; decides the period and size budget of the saved logs.
enum class SupportLogsPurpose : int {
    general = 0,     ///< the last 48 hours, each delivered file cut to 30 MiB
    connection = 1,  ///< the last 24 hours, uncut
};

/// The purpose with this raw value; nothing for any other number.
std::optional<SupportLogsPurpose> supportLogsPurpose(int rawValue);

/// The options createArchive() saves logs with: from startDate (or the
/// purpose's period before the end) to now + 60 s, with the purpose's budget.
LogSavingOpts supportLogSavingOpts(SupportLogsPurpose purpose, std::optional<Date> startDate, Date now);

/// Why an archive was not made.
class SupportLogArchivingError : public std::exception {
public:
    enum class Kind {
        other,                   ///< another failure, carried in underlying() (may be absent)
        createTempFolderFailed,  ///< the temporary archive folder could not be made
        compressLogFolder,       ///< compressing the folder gave no archive
        cancelled,               ///< the progress object was cancelled
        invalidItemType,         ///< an extra item is neither a file, a string nor data
        emptyItemName,           ///< an extra item has an empty relative path
    };

    explicit SupportLogArchivingError(Kind kind, std::exception_ptr underlying = nullptr);
    /// `other` around the exception being handled, or the exception itself
    /// when it already is a SupportLogArchivingError. Call inside a catch block.
    static SupportLogArchivingError fromCurrentException();

    Kind kind() const { return kind_; }
    const std::exception_ptr& underlying() const { return underlying_; }
    /// The case name; for `other` followed by ": " and the underlying error's text.
    const char* what() const noexcept override { return text_.c_str(); }

private:
    Kind kind_;
    std::exception_ptr underlying_;
    std::string text_;
};

class SupportUtils {
public:
    using Data = std::vector<uint8_t>;
    /// An extra item: a file or folder to copy, a text, bytes, or any other
    /// value. A property list holding a string or data counts as that string
    /// or data; any other property list (a number, a date, a list...) is the
    /// "anything else" that saveItem() refuses with invalidItemType.
    using ItemValue = std::variant<std::filesystem::path, std::string, Data, Foundation::PropertyList>;
    /// Relative path inside the archive -> item.
    using Items = std::map<std::string, ItemValue>;
    /// Called once, on the work's queue: no error on success.
    using Completion = std::function<void(std::optional<SupportLogArchivingError>)>;

    SupportUtils() = delete;

    /// Logs "Generating logs archive started", queues the work on the
    /// user-initiated global queue and returns its progress at once: total =
    /// items + 2, advanced by one per saved item, set to the total on success.
    /// The work stops with `cancelled` only where it checks for it: before it
    /// starts, after the logs are saved and after each item. Every ending
    /// calls completion once; after a failure or cancellation the destination
    /// is as it was and no temporary file or folder is left. The archive holds
    /// one folder named like the destination without its extension.
    /// showInFinder reveals the archive in the file manager; that failing does
    /// not fail the archive.
    static std::shared_ptr<Foundation::Progress> createArchive(const std::filesystem::path& at, Items includeItems,
                                                               SupportLogsPurpose purpose,
                                                               std::optional<Date> startDate, bool showInFinder,
                                                               Completion completion);
    /// The same with the work queued on `queue`.
    static std::shared_ptr<Foundation::Progress> createArchive(const std::filesystem::path& at, Items includeItems,
                                                               SupportLogsPurpose purpose,
                                                               std::optional<Date> startDate, bool showInFinder,
                                                               Completion completion,
                                                               const Dispatch::DispatchQueue& queue);

    /// Writes one item at archiveFolderUrl / relativePath (a leading "/" is
    /// dropped), creating the folders on the way. Throws
    /// SupportLogArchivingError (emptyItemName, invalidItemType),
    /// std::filesystem::filesystem_error when the path has a ".." component,
    /// and std::system_error or filesystem_error when a folder, write or copy
    /// fails (logged: "Can't write/copy file to \"<destination>\": <error>").
    static void saveItem(const ItemValue& value, const std::string& relativePath,
                         const std::filesystem::path& archiveFolderUrl);

    /// A new folder `named` inside a fresh private folder (mkdtemp) under
    /// $TMPDIR, or /tmp when that is unset. Whoever made it removes the
    /// private folder, the returned folder's parent, with everything in it.
    /// Nothing, logged ("Failed to create temporary archive folder. <error>"),
    /// when either cannot be made or named is empty, ".", ".." or holds "/".
    static std::optional<std::filesystem::path> createArchiveFolderUrl(const std::string& named);
};

}  // namespace Tovik
