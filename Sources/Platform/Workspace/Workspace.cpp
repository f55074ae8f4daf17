#include "Workspace/Workspace.h"

#include <fcntl.h>
#include <pwd.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <string>
#include <system_error>
#include <utility>

#include "Foundation/PropertyList.h"
#include "Kernel/FileDescriptor.h"

namespace Workspace {

namespace {

// An Info.plist larger than the property-list reader accepts is skipped unread.
constexpr off_t kMaxInfoPlistSize = Foundation::PropertyList::maxDataSize;

std::optional<std::string> readSmallFile(const std::filesystem::path& path) {
    // O_NONBLOCK: a FIFO planted in place of the file must not hang the lookup.
    Kernel::FileDescriptor file(::open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK));
    if (file.get() < 0) return std::nullopt;
    struct stat info {};
    if (::fstat(file.get(), &info) != 0 || !S_ISREG(info.st_mode) || info.st_size > kMaxInfoPlistSize) {
        return std::nullopt;
    }
    std::string data;
    char buffer[16 * 1024];
    while (true) {
        ssize_t count = ::read(file.get(), buffer, sizeof buffer);
        if (count < 0) {
            if (errno == EINTR) continue;
            return std::nullopt;
        }
        if (count == 0) break;
        data.append(buffer, static_cast<size_t>(count));
        if (data.size() > static_cast<size_t>(kMaxInfoPlistSize)) return std::nullopt;
    }
    return data;
}

std::optional<std::filesystem::path> homeFolder(uid_t uid) {
    long suggested = ::sysconf(_SC_GETPW_R_SIZE_MAX);
    std::string buffer(suggested > 0 ? static_cast<size_t>(suggested) : 4096, '\0');
    struct passwd entry {};
    struct passwd* result = nullptr;
    while (true) {
        int status = ::getpwuid_r(uid, &entry, buffer.data(), buffer.size(), &result);
        if (status == ERANGE && buffer.size() < 1024 * 1024) {
            buffer.resize(buffer.size() * 2);
            continue;
        }
        if (status != 0 || result == nullptr || result->pw_dir == nullptr || result->pw_dir[0] == '\0') {
            return std::nullopt;
        }
        return std::filesystem::path(result->pw_dir);
    }
}

// The "*.app" folders directly inside root, in name order.
std::vector<std::filesystem::path> applicationsIn(const std::filesystem::path& root) {
    std::vector<std::filesystem::path> bundles;
    std::error_code error;
    std::filesystem::directory_iterator it(root, std::filesystem::directory_options::skip_permission_denied, error);
    for (; !error && it != std::filesystem::directory_iterator(); it.increment(error)) {
        const std::filesystem::path& entry = it->path();
        std::error_code typeError;
        if (entry.extension() == ".app" && it->is_directory(typeError)) bundles.push_back(entry);
    }
    std::sort(bundles.begin(), bundles.end());
    return bundles;
}

}  // namespace

const Workspace& Workspace::shared() {
    static const Workspace workspace(defaultSearchRoots());
    return workspace;
}

std::vector<std::filesystem::path> Workspace::defaultSearchRoots() {
    std::vector<std::filesystem::path> roots{"/Applications", "/Applications/Utilities"};
    if (auto home = homeFolder(::geteuid())) roots.push_back(*home / "Applications");
    return roots;
}

Workspace::Workspace(std::vector<std::filesystem::path> searchRoots) : searchRoots_(std::move(searchRoots)) {}

std::optional<std::filesystem::path> Workspace::urlForApplication(std::string_view bundleIdentifier) const {
    for (const auto& root : searchRoots_) {
        for (const auto& bundle : applicationsIn(root)) {
            auto identifier = Workspace::bundleIdentifier(bundle);
            if (identifier && *identifier == bundleIdentifier) return bundle;
        }
    }
    return std::nullopt;
}

std::optional<std::string> Workspace::bundleIdentifier(const std::filesystem::path& bundlePath) {
    auto data = readSmallFile(bundlePath / "Contents" / "Info.plist");
    if (!data) return std::nullopt;
    // The one bounded reader: an Info.plist that breaks its bounds reads as malformed.
    auto plist = Foundation::PropertyList::fromData(*data);
    const auto* root = plist ? plist->get<Foundation::PropertyList::Dictionary>() : nullptr;
    if (!root) return std::nullopt;
    auto entry = root->find("CFBundleIdentifier");
    if (entry == root->end()) return std::nullopt;
    const auto* identifier = entry->second.get<std::string>();
    if (!identifier) return std::nullopt;
    return *identifier;
}

}  // namespace Workspace
