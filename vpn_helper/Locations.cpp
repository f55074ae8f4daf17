#include "vpn_helper/Locations.h"

#include <errno.h>
#include <pwd.h>
#include <sys/stat.h>
#include <unistd.h>

#include <string>
#include <system_error>
#include <vector>

#include "Tovik/Logger/Logger.h"

namespace VpnHelper {

namespace {

using URL = Locations::URL;

const URL localLibrary = "/Library";

// The local domain's Library, made when it is missing and creation is allowed.
std::optional<URL> localLibraryDirectory(bool create) {
    struct stat info {};
    if (stat(localLibrary.c_str(), &info) == 0) return S_ISDIR(info.st_mode) ? std::optional(localLibrary) : std::nullopt;
    if (!create || mkdir(localLibrary.c_str(), 0755) != 0) return std::nullopt;
    return localLibrary;
}

std::optional<URL> homeOfEffectiveUser() {
    std::vector<char> buffer(16384);
    passwd entry{};
    passwd* result = nullptr;
    if (getpwuid_r(geteuid(), &entry, buffer.data(), buffer.size(), &result) != 0 || result == nullptr ||
        result->pw_dir == nullptr || result->pw_dir[0] != '/')
        return std::nullopt;
    return URL(result->pw_dir);
}

std::optional<URL> containerURL(std::string_view groupIdentifier) {
    auto home = homeOfEffectiveUser();
    if (!home) return std::nullopt;
    return *home / "Library" / "Group Containers" / std::string(groupIdentifier);
}

// mkdir -p that keeps the errno of the step that failed: EEXIST when url itself
// is not a folder, ENOTDIR when one of its parents is not.
bool makeDirectories(const URL& url, bool isTarget) {
    struct stat info {};
    if (stat(url.c_str(), &info) == 0) {
        if (S_ISDIR(info.st_mode)) return true;
        errno = isTarget ? EEXIST : ENOTDIR;
        return false;
    }
    URL parent = url.parent_path();
    if (!parent.empty() && parent != url && !makeDirectories(parent, false)) return false;
    if (mkdir(url.c_str(), 0777) == 0) return true;
    if (errno == EEXIST && stat(url.c_str(), &info) == 0 && S_ISDIR(info.st_mode)) return true;
    return false;
}

bool applyAttributes(const URL& url, const FileAttributes& attr) {
    for (const auto& [key, value] : attr) {
        switch (key) {
            case FileAttributeKey::posixPermissions:
                if (chmod(url.c_str(), static_cast<mode_t>(value)) != 0) return false;
                break;
        }
    }
    return true;
}

}  // namespace

std::optional<URL> Locations::create(const URL& url, std::string_view title, const std::optional<FileAttributes>& attr) {
    std::error_code reachability;
    bool wasReachable = std::filesystem::exists(url, reachability) && !reachability;

    bool created = makeDirectories(url, true);
    if (created && attr) created = applyAttributes(url, *attr);
    if (created) return url;

    std::error_code error(errno, std::generic_category());
    if (wasReachable) return url;
    TLOG_ERROR("create(url:title:attr:)", "Cannot create " + std::string(title) + " directory (" + url.string() +
                                              ") with error: " + error.message());
    return std::nullopt;
}

std::optional<URL> Locations::sharedFolder() {
    auto library = localLibraryDirectory(false);
    if (!library) return std::nullopt;
    return create(*library / "Application Support" / "Velmora Software/com.velmora.mac.vpn", "Shared data",
                  std::nullopt);
}

std::optional<URL> Locations::sharedLogsFolder() {
    auto library = localLibraryDirectory(true);
    if (!library) return std::nullopt;
    return create(*library / "Logs/com.velmora.mac.vpn", "Shared Logs",
                  FileAttributes{{FileAttributeKey::posixPermissions, 0755}});
}

const std::optional<URL>& Locations::appGroupFolder() {
    static const std::optional<URL> folder = []() -> std::optional<URL> {
        auto container = containerURL(appGroupIdentifier);
        if (!container) {
            TLOG_ERROR("Locations", "Failed to get app group directory");
            return std::nullopt;
        }
        return create(*container, "App Group", std::nullopt);
    }();
    return folder;
}

const std::optional<URL>& Locations::groupLogsFolder() {
    static const std::optional<URL> folder = []() -> std::optional<URL> {
        const auto& group = appGroupFolder();
        if (!group) {
            TLOG_ERROR("Locations", "Failed to get group logs directory");
            return std::nullopt;
        }
        return create(*group / "Library/Logs/com.velmora.mac.vpn", "App Group Logs", std::nullopt);
    }();
    return folder;
}

const std::optional<URL>& Locations::groupDataFolder() {
    static const std::optional<URL> folder = []() -> std::optional<URL> {
        const auto& group = appGroupFolder();
        if (!group) return std::nullopt;
        return create(*group / "Library/Application Support/com.velmora.mac.vpn", "application data",
                      std::nullopt);
    }();
    return folder;
}

const std::optional<URL>& Locations::tmpStorageFolder() {
    static const std::optional<URL> folder = []() -> std::optional<URL> {
        const auto& data = groupDataFolder();
        if (!data) return std::nullopt;
        return create(*data / "TmpStorage", "application data", std::nullopt);
    }();
    return folder;
}

}  // namespace VpnHelper
