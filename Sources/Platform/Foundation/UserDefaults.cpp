#include "Foundation/UserDefaults.h"

#include <errno.h>
#include <fcntl.h>
#include <pwd.h>
#include <stdlib.h>
#include <unistd.h>

#include <fstream>
#include <sstream>
#include <vector>

#include "Kernel/FileDescriptor.h"

namespace Foundation {

namespace {

std::vector<std::string> launchArguments() {
    std::ifstream in("/proc/self/cmdline", std::ios::binary);
    std::vector<std::string> arguments;
    std::string argument;
    while (std::getline(in, argument, '\0')) arguments.push_back(argument);
    return arguments;
}

// "-key value" pairs after the program name; "--long" options are not keys.
UserDefaults::Dictionary argumentValues() {
    UserDefaults::Dictionary values;
    auto arguments = launchArguments();
    for (size_t i = 1; i + 1 < arguments.size(); ++i) {
        const std::string& argument = arguments[i];
        if (argument.size() < 2 || argument[0] != '-' || argument[1] == '-') continue;
        values.insert_or_assign(argument.substr(1), PropertyList(arguments[i + 1]));
        ++i;
    }
    return values;
}

bool sameTime(const timespec& a, const timespec& b) { return a.tv_sec == b.tv_sec && a.tv_nsec == b.tv_nsec; }

std::optional<std::string> readWholeFile(const std::filesystem::path& path) {
    std::ifstream in(path, std::ios::binary);
    if (!in) return std::nullopt;
    std::ostringstream bytes;
    bytes << in.rdbuf();
    return bytes.str();
}

}  // namespace

UserDefaults& UserDefaults::standard() {
    // Never destroyed: log handlers may use it while the process exits.
    static UserDefaults* shared = new UserDefaults();
    return *shared;
}

std::string UserDefaults::standardDomainName() {
    std::error_code error;
    auto executable = std::filesystem::read_symlink("/proc/self/exe", error);
    if (!error && !executable.filename().empty()) return executable.filename().string();
    return program_invocation_short_name;
}

std::filesystem::path UserDefaults::defaultPreferencesFolder() {
    std::vector<char> buffer(16384);
    passwd entry{};
    passwd* result = nullptr;
    if (getpwuid_r(geteuid(), &entry, buffer.data(), buffer.size(), &result) != 0 || result == nullptr ||
        result->pw_dir == nullptr || result->pw_dir[0] == '\0')
        return {};
    return std::filesystem::path(result->pw_dir) / "Library" / "Preferences";
}

UserDefaults::UserDefaults(std::optional<std::string> suiteName, std::filesystem::path folder)
    : domainName_(suiteName ? std::move(*suiteName) : standardDomainName()), folder_(std::move(folder)) {
    volatile_[argumentDomain] = argumentValues();
}

std::filesystem::path UserDefaults::fileLk(const std::string& name) const { return folder_ / (name + ".plist"); }

bool UserDefaults::Domain::isFile(const struct stat& info) const {
    return exists && device == info.st_dev && inode == info.st_ino && size == info.st_size &&
           sameTime(modified, info.st_mtim) && sameTime(changed, info.st_ctim);
}

void UserDefaults::Domain::takeIdentity(const struct stat& info) {
    exists = true;
    device = info.st_dev;
    inode = info.st_ino;
    size = info.st_size;
    modified = info.st_mtim;
    changed = info.st_ctim;
}

UserDefaults::Domain& UserDefaults::persistentLk(const std::string& name) const {
    Domain& domain = persistent_[name];
    struct stat info {};
    if (folder_.empty() || stat(fileLk(name).c_str(), &info) != 0) {
        domain = Domain{};
        return domain;
    }
    if (domain.isFile(info)) return domain;
    domain = Domain{};
    domain.takeIdentity(info);
    if (auto bytes = readWholeFile(fileLk(name))) {
        if (auto value = PropertyList::fromData(*bytes)) {
            if (const auto* values = value->get<Dictionary>()) domain.values = *values;
        }
    }
    return domain;
}

bool UserDefaults::writeLk(const std::string& name, const Dictionary& values) const {
    Domain& domain = persistent_[name];
    domain.values = values;
    domain.exists = false;  // re-read the identity on the next access
    if (folder_.empty()) {
        errno = ENOENT;
        return false;
    }
    std::error_code error;
    std::filesystem::create_directories(folder_, error);
    // Binary, as the platform keeps its preference files: XML holds dates to
    // the second only.
    std::string bytes = PropertyList(values).data(PropertyList::Format::binary);
    std::string target = fileLk(name).string();
    std::string temporary = target + ".XXXXXX";
    int fd = mkstemp(temporary.data());
    if (fd < 0) return false;
    bool ok = fchmod(fd, 0600) == 0 && Kernel::writeAll(fd, bytes);
    ok = ok && fsync(fd) == 0;
    int saved = errno;
    close(fd);
    if (ok && rename(temporary.c_str(), target.c_str()) == 0) {
        // Take the new file's identity so this write is not read back.
        struct stat info {};
        if (stat(target.c_str(), &info) == 0) domain.takeIdentity(info);
        return true;
    }
    if (ok) saved = errno;
    unlink(temporary.c_str());
    errno = saved;
    return false;
}

std::optional<PropertyList> UserDefaults::object(const std::string& key) const {
    std::lock_guard guard(mutex_);
    if (auto arguments = volatile_.find(argumentDomain); arguments != volatile_.end()) {
        if (auto it = arguments->second.find(key); it != arguments->second.end()) return it->second;
    }
    const Domain& own = persistentLk(domainName_);
    if (auto it = own.values.find(key); it != own.values.end()) return it->second;
    if (auto registration = volatile_.find(registrationDomain); registration != volatile_.end()) {
        if (auto it = registration->second.find(key); it != registration->second.end()) return it->second;
    }
    return std::nullopt;
}

std::optional<std::string> UserDefaults::string(const std::string& key) const {
    auto value = object(key);
    if (!value) return std::nullopt;
    if (const auto* text = value->get<std::string>()) return *text;
    return std::nullopt;
}

bool UserDefaults::set(std::optional<PropertyList> value, const std::string& key) {
    std::lock_guard guard(mutex_);
    Dictionary values = persistentLk(domainName_).values;
    if (value) {
        values.insert_or_assign(key, std::move(*value));
    } else {
        values.erase(key);
    }
    return writeLk(domainName_, values);
}

void UserDefaults::registerDefaults(const Dictionary& defaults) {
    std::lock_guard guard(mutex_);
    Dictionary& registration = volatile_[registrationDomain];
    for (const auto& [key, value] : defaults) registration.insert_or_assign(key, value);
}

std::optional<UserDefaults::Dictionary> UserDefaults::persistentDomain(const std::string& name) const {
    std::lock_guard guard(mutex_);
    const Domain& domain = persistentLk(name);
    if (!domain.exists) return std::nullopt;
    return domain.values;
}

bool UserDefaults::setPersistentDomain(const Dictionary& domain, const std::string& name) {
    std::lock_guard guard(mutex_);
    return writeLk(name, domain);
}

void UserDefaults::removePersistentDomain(const std::string& name) {
    std::lock_guard guard(mutex_);
    if (!folder_.empty()) unlink(fileLk(name).c_str());
    persistent_.erase(name);
}

UserDefaults::Dictionary UserDefaults::volatileDomain(const std::string& name) const {
    std::lock_guard guard(mutex_);
    auto it = volatile_.find(name);
    return it == volatile_.end() ? Dictionary{} : it->second;
}

void UserDefaults::setVolatileDomain(const Dictionary& domain, const std::string& name) {
    std::lock_guard guard(mutex_);
    volatile_[name] = domain;
}

void UserDefaults::removeVolatileDomain(const std::string& name) {
    std::lock_guard guard(mutex_);
    volatile_.erase(name);
}

bool UserDefaults::objectIsForced(const std::string&) const { return false; }

UserDefaults::Dictionary UserDefaults::dictionaryRepresentation() const {
    std::lock_guard guard(mutex_);
    Dictionary result;
    // Lowest priority first; later domains overwrite.
    if (auto it = volatile_.find(registrationDomain); it != volatile_.end()) result = it->second;
    for (const auto& [key, value] : persistentLk(domainName_).values) result.insert_or_assign(key, value);
    if (auto it = volatile_.find(argumentDomain); it != volatile_.end()) {
        for (const auto& [key, value] : it->second) result.insert_or_assign(key, value);
    }
    return result;
}

bool UserDefaults::synchronize() {
    std::lock_guard guard(mutex_);
    persistentLk(domainName_);
    return true;
}

}  // namespace Foundation
