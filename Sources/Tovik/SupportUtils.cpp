#include "Tovik/SupportUtils.h"

#include <fcntl.h>
#include <stdlib.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <string_view>
#include <system_error>
#include <utility>
#include <variant>

#include <fmt/format.h>

#include "Kernel/FileDescriptor.h"
#include "Tovik/ErrorText.h"
#include "Tovik/Logger/LogManager.h"
#include "Tovik/Logger/Logger.h"
#include "Tovik/SystemUtils.h"
#include "Workspace/Workspace.h"

namespace Tovik {

namespace fs = std::filesystem;

namespace {

constexpr std::chrono::seconds kEndDateSlack{60};

const char* kindName(SupportLogArchivingError::Kind kind) {
    using Kind = SupportLogArchivingError::Kind;
    switch (kind) {
        case Kind::other: return "other";
        case Kind::createTempFolderFailed: return "createTempFolderFailed";
        case Kind::compressLogFolder: return "compressLogFolder";
        case Kind::cancelled: return "cancelled";
        case Kind::invalidItemType: return "invalidItemType";
        case Kind::emptyItemName: return "emptyItemName";
    }
    return "unknown";
}

// The text of an item value that cannot be saved (neither a string nor data).
std::string describe(const Foundation::PropertyList& value) {
    using List = Foundation::PropertyList;
    if (const auto* flag = value.get<bool>()) return *flag ? "true" : "false";
    if (const auto* number = value.get<int64_t>()) return std::to_string(*number);
    if (const auto* real = value.get<double>()) return fmt::format("{}", *real);
    if (const auto* date = value.get<List::Date>()) {
        const auto seconds = std::chrono::floor<std::chrono::seconds>(*date).time_since_epoch().count();
        return fmt::format("date {} s after 1970", seconds);
    }
    if (const auto* array = value.get<List::Array>()) return fmt::format("array of {} values", array->size());
    if (const auto* dictionary = value.get<List::Dictionary>()) {
        return fmt::format("dictionary of {} entries", dictionary->size());
    }
    return "value";
}

// Writes bytes to a temporary file beside destination and renames it over
// destination, so a reader sees the whole file or none.
void writeAtomically(const fs::path& destination, std::string_view bytes) {
    std::string pattern = destination.string() + ".XXXXXX";
    Kernel::FileDescriptor file(::mkostemp(pattern.data(), O_CLOEXEC));
    if (!file) throw std::system_error(errno, std::generic_category(), "mkstemp (" + pattern + ")");
    if (!Kernel::writeAll(file.get(), bytes) || ::fchmod(file.get(), 0644) != 0 || ::close(file.release()) != 0 ||
        ::rename(pattern.c_str(), destination.c_str()) != 0) {
        const int error = errno;
        ::unlink(pattern.c_str());
        throw std::system_error(error, std::generic_category(), "write (" + destination.string() + ")");
    }
}

// Copies file to destination through a temporary file in destination's
// folder, so an earlier destination stays whole until the new one is complete.
void replaceWithCopy(const fs::path& file, const fs::path& destination) {
    std::string pattern = (destination.parent_path() / ("." + destination.filename().string() + ".XXXXXX")).string();
    Kernel::FileDescriptor placeholder(::mkostemp(pattern.data(), O_CLOEXEC));
    if (!placeholder) throw std::system_error(errno, std::generic_category(), "mkstemp (" + pattern + ")");
    placeholder.reset();
    const fs::path staging = pattern;
    try {
        fs::copy_file(file, staging, fs::copy_options::overwrite_existing);
        fs::rename(staging, destination);
    } catch (...) {
        std::error_code ignored;
        fs::remove(staging, ignored);
        throw;
    }
}

// Removes the private folder that holds one archive's temporary material.
class TemporaryMaterial {
public:
    explicit TemporaryMaterial(fs::path root) : root_(std::move(root)) {}
    ~TemporaryMaterial() {
        std::error_code error;
        fs::remove_all(root_, error);
        if (error) TLOG_ERROR("createArchive(at:includeItems:for:startDate:showInFinder:completion:)",
                              "Failed to remove " + root_.string() + ": " + error.message());
    }
    TemporaryMaterial(const TemporaryMaterial&) = delete;
    TemporaryMaterial& operator=(const TemporaryMaterial&) = delete;

private:
    fs::path root_;
};

// The background work of createArchive; nothing escapes it.
std::optional<SupportLogArchivingError> makeArchive(const fs::path& destination,
                                                    const SupportUtils::Items& items,
                                                    SupportLogsPurpose purpose, std::optional<Date> startDate,
                                                    bool showInFinder, Foundation::Progress& progress) {
    constexpr const char* label = "createArchive(at:includeItems:for:startDate:showInFinder:completion:)";
    const auto cancelled = [&] {
        if (!progress.isCancelled()) return false;
        TLOG_INFO(label, "Log archiving cancelled");
        return true;
    };
    using Kind = SupportLogArchivingError::Kind;

    if (cancelled()) return SupportLogArchivingError(Kind::cancelled);
    const auto folder = SupportUtils::createArchiveFolderUrl(destination.stem().string());
    if (!folder) return SupportLogArchivingError(Kind::createTempFolderFailed);
    TemporaryMaterial material(folder->parent_path());

    const LogSavingOpts opts = supportLogSavingOpts(purpose, startDate, std::chrono::system_clock::now());
    try {
        LogManager::shared()->saveLogs(LogSubsystemSelector::whole(), folder->string(), opts);
    } catch (...) {
        auto error = SupportLogArchivingError::fromCurrentException();
        TLOG_ERROR(label, "Error occurs when archiving logs: " + errorText(error.underlying()));
        return error;
    }
    if (cancelled()) return SupportLogArchivingError(Kind::cancelled);

    try {
        for (const auto& [relativePath, value] : items) {
            SupportUtils::saveItem(value, relativePath, *folder);
            progress.setCompletedUnitCount(progress.completedUnitCount() + 1);
            if (cancelled()) return SupportLogArchivingError(Kind::cancelled);
        }

        const auto archive = SystemUtil::compressFolder(*folder, "zip", false);
        if (!archive || !fs::is_regular_file(*archive)) return SupportLogArchivingError(Kind::compressLogFolder);
        if (destination.has_parent_path()) fs::create_directories(destination.parent_path());
        replaceWithCopy(*archive, destination);
    } catch (...) {
        return SupportLogArchivingError::fromCurrentException();
    }
    if (showInFinder) (void)Workspace::Workspace::shared().activateFileViewerSelecting({destination});
    TLOG_INFO(label, "Log archive was written to: " + destination.string());
    progress.setCompletedUnitCount(progress.totalUnitCount());
    return std::nullopt;
}

}  // namespace

std::optional<SupportLogsPurpose> supportLogsPurpose(int rawValue) {
    switch (rawValue) {
        case 0: return SupportLogsPurpose::general;
        case 1: return SupportLogsPurpose::connection;
        default: return std::nullopt;
    }
}

LogSavingOpts supportLogSavingOpts(SupportLogsPurpose purpose, std::optional<Date> startDate, Date now) {
    const bool general = purpose == SupportLogsPurpose::general;
    const Date endDate = now + kEndDateSlack;
    const std::chrono::hours period(general ? 48 : 24);
    return LogSavingOpts::init(startDate.value_or(endDate - period), endDate,
                               general ? std::optional<int64_t>(31457280) : std::nullopt);
}

SupportLogArchivingError::SupportLogArchivingError(Kind kind, std::exception_ptr underlying)
    : kind_(kind), underlying_(std::move(underlying)), text_(kindName(kind)) {
    if (kind_ == Kind::other) text_ += ": " + errorText(underlying_);
}

SupportLogArchivingError SupportLogArchivingError::fromCurrentException() {
    try {
        throw;
    } catch (const SupportLogArchivingError& error) {
        return error;
    } catch (...) {
        return SupportLogArchivingError(Kind::other, std::current_exception());
    }
}

std::shared_ptr<Foundation::Progress> SupportUtils::createArchive(const fs::path& at, Items includeItems,
                                                                  SupportLogsPurpose purpose,
                                                                  std::optional<Date> startDate, bool showInFinder,
                                                                  Completion completion) {
    return createArchive(at, std::move(includeItems), purpose, startDate, showInFinder, std::move(completion),
                         Dispatch::DispatchQueue::global(Dispatch::DispatchQoS::userInitiated));
}

std::shared_ptr<Foundation::Progress> SupportUtils::createArchive(const fs::path& at, Items includeItems,
                                                                  SupportLogsPurpose purpose,
                                                                  std::optional<Date> startDate, bool showInFinder,
                                                                  Completion completion,
                                                                  const Dispatch::DispatchQueue& queue) {
    TLOG_INFO("createArchive(at:includeItems:for:startDate:showInFinder:completion:)",
              "Generating logs archive started");
    auto progress = Foundation::Progress::discreteProgress(static_cast<int64_t>(includeItems.size()) + 2);
    queue.async([=, items = std::move(includeItems), completion = std::move(completion)] {
        std::optional<SupportLogArchivingError> error;
        try {
            error = makeArchive(at, items, purpose, startDate, showInFinder, *progress);
        } catch (...) {  // memory; the temporary material is gone with the stack
            error = SupportLogArchivingError::fromCurrentException();
        }
        if (completion) completion(std::move(error));
    });
    return progress;
}

void SupportUtils::saveItem(const ItemValue& value, const std::string& relativePath,
                            const fs::path& archiveFolderUrl) {
    constexpr const char* label = "saveItem(value:relativePath:archiveFolderUrl:)";
    if (relativePath.empty()) {
        TLOG_ERROR(label, "Relative path is empty");
        throw SupportLogArchivingError(SupportLogArchivingError::Kind::emptyItemName);
    }
    const fs::path relative = fs::path(relativePath).relative_path();
    for (const auto& component : relative) {
        if (component == "..") {
            throw fs::filesystem_error("saveItem: the relative path leaves the archive folder", relative,
                                       std::make_error_code(std::errc::invalid_argument));
        }
    }
    const fs::path destination = archiveFolderUrl / relative;

    // A property list holding a string or data is saved as that.
    const ItemValue* item = &value;
    ItemValue unwrapped;
    if (const auto* plist = std::get_if<Foundation::PropertyList>(&value)) {
        if (const auto* text = plist->get<std::string>()) item = &(unwrapped = *text);
        else if (const auto* data = plist->get<Foundation::PropertyList::Data>()) item = &(unwrapped = *data);
        else {
            TLOG_ERROR(label, "Unexpected value for save: " + describe(*plist));
            throw SupportLogArchivingError(SupportLogArchivingError::Kind::invalidItemType);
        }
    }

    try {
        fs::create_directories(destination.parent_path());
        if (const auto* file = std::get_if<fs::path>(item)) {
            fs::copy(*file, destination, fs::copy_options::recursive);
            TLOG_INFO(label, "File for archive output copied to: " + destination.string());
        } else if (const auto* text = std::get_if<std::string>(item)) {
            writeAtomically(destination, *text);
        } else if (const auto* data = std::get_if<Data>(item)) {
            writeAtomically(destination, std::string_view(reinterpret_cast<const char*>(data->data()), data->size()));
            TLOG_INFO(label, "File for archive output written to: " + destination.string());
        }
    } catch (const std::exception& error) {
        TLOG_ERROR(label, "Can't write/copy file to \"" + destination.string() + "\": " + error.what());
        throw;
    }
}

std::optional<fs::path> SupportUtils::createArchiveFolderUrl(const std::string& named) {
    const auto fail = [](const std::string& error) -> std::optional<fs::path> {
        TLOG_ERROR("createArchiveFolderUrl(named:)", "Failed to create temporary archive folder. " + error);
        return std::nullopt;
    };
    if (named.empty() || named == "." || named == ".." || named.find('/') != std::string::npos) {
        return fail("Invalid folder name \"" + named + "\"");
    }
    const char* temporary = ::getenv("TMPDIR");
    std::string pattern = (fs::path(temporary && *temporary ? temporary : "/tmp") / "tovik-archive.XXXXXX").string();
    if (::mkdtemp(pattern.data()) == nullptr) {
        return fail("mkdtemp (" + pattern + "): " + std::generic_category().message(errno));
    }
    const fs::path folder = fs::path(pattern) / named;
    std::error_code error;
    fs::create_directories(folder, error);
    if (error) {
        std::error_code ignored;
        fs::remove_all(pattern, ignored);
        return fail("create_directories (" + folder.string() + "): " + error.message());
    }
    return folder;
}

}  // namespace Tovik
