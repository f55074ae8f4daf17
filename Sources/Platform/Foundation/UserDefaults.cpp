#include "Foundation/UserDefaults.h"

#include <errno.h>
#include <fcntl.h>
#include <pwd.h>
#include <stdlib.h>
#include <unistd.h>

#include <fstream>
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

// The rest of fd's file; nothing on a read error.
std::optional<std::string> readAll(int fd) {
    std::string bytes;
    char buffer[16384];
    for (;;) {
        const ssize_t got = read(fd, buffer, sizeof buffer);
        if (got == 0) return bytes;
        if (got < 0) {
            if (errno == EINTR) continue;
            return std::nullopt;
        }
        bytes.append(buffer, size_t(got));
    }
}

// A domain's file in folder; "" without a folder.
std::string pathIn(const std::filesystem::path& folder, const std::string& name) {
    if (folder.empty()) return {};
    return (folder / (name == UserDefaults::globalDomain ? ".GlobalPreferences.plist" : name + ".plist")).string();
}

std::optional<PropertyList> find(const UserDefaults::Dictionary& values, const std::string& key) {
    auto found = values.find(key);
    if (found == values.end()) return std::nullopt;
    return found->second;
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

UserDefaults::UserDefaults(std::optional<std::string> suiteName, std::filesystem::path folder,
                           std::filesystem::path managedFolder)
    : domainName_(suiteName ? std::move(*suiteName) : standardDomainName()), folder_(std::move(folder)) {
    volatile_[argumentDomain] = argumentValues();
    own_.path = pathIn(folder_, domainName_);
    global_.path = pathIn(folder_, globalDomain);
    forced_.path = pathIn(managedFolder, domainName_);
}

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

UserDefaults::Domain& UserDefaults::domainLk(const std::string& name) const {
    if (name == domainName_) return own_;
    if (name == globalDomain) return global_;
    Domain& domain = others_[name];
    if (domain.path.empty()) domain.path = pathIn(folder_, name);
    return domain;
}

UserDefaults::Domain& UserDefaults::refreshLk(Domain& domain, Changes& changes) const {
    struct stat info {};
    const bool present = !domain.path.empty() && stat(domain.path.c_str(), &info) == 0;
    if (present ? domain.isFile(info) : !domain.exists && domain.values.empty()) return domain;

    // Only the files of the search list change effective values.
    std::vector<Change> observed;
    if ((&domain == &forced_ || &domain == &own_ || &domain == &global_) && observers_.any()) {
        for (auto& key : observers_.keys()) {
            auto value = objectLk(key, nullptr);
            observed.push_back({std::move(key), std::move(value), std::nullopt});
        }
    }
    domain.values.clear();
    domain.exists = false;
    if (present) {
        // The identity of the file actually read, not of the one stat() saw.
        Kernel::FileDescriptor fd(open(domain.path.c_str(), O_RDONLY | O_CLOEXEC));
        if (fd.get() >= 0 && fstat(fd.get(), &info) == 0) {
            domain.takeIdentity(info);
            if (auto bytes = readAll(fd.get())) {
                if (auto value = PropertyList::fromData(*bytes)) {
                    if (const auto* values = value->get<Dictionary>()) domain.values = *values;
                }
            }
        }
    }
    for (auto& change : observed) {
        change.newValue = objectLk(change.key, nullptr);
        if (change.newValue != change.oldValue) changes.push_back(std::move(change));
    }
    return domain;
}

void UserDefaults::refreshAllLk(Changes& changes) const {
    refreshLk(forced_, changes);
    refreshLk(own_, changes);
    refreshLk(global_, changes);
}

bool UserDefaults::writeLk(Domain& domain, const Dictionary& values) const {
    if (domain.path.empty()) {
        errno = ENOENT;
        return false;
    }
    std::error_code error;
    std::filesystem::create_directories(folder_, error);
    // Binary, as the platform keeps its preference files: XML holds dates to
    // the second only.
    std::string bytes = PropertyList(values).data(PropertyList::Format::binary);
    std::string temporary = domain.path + ".XXXXXX";
    int fd = mkstemp(temporary.data());
    if (fd < 0) return false;
    bool ok = fchmod(fd, 0600) == 0 && Kernel::writeAll(fd, bytes);
    ok = ok && fsync(fd) == 0;
    int saved = errno;
    close(fd);
    if (ok && rename(temporary.c_str(), domain.path.c_str()) == 0) {
        domain.values = values;
        domain.exists = false;
        // Take the new file's identity so this write is not read back.
        struct stat info {};
        if (stat(domain.path.c_str(), &info) == 0) domain.takeIdentity(info);
        return true;
    }
    if (ok) saved = errno;
    unlink(temporary.c_str());
    errno = saved;
    return false;
}

std::optional<PropertyList> UserDefaults::objectLk(const std::string& key, Changes* refreshing, Source* source) const {
    auto in = [&](Domain& domain) -> const Dictionary& {
        return refreshing ? refreshLk(domain, *refreshing).values : domain.values;
    };
    auto from = [&](Source found, std::optional<PropertyList> value) {
        if (source) *source = found;
        return value;
    };
    if (auto value = find(in(forced_), key)) return from(Source::forced, std::move(value));
    if (auto arguments = volatile_.find(std::string_view(argumentDomain)); arguments != volatile_.end()) {
        if (auto value = find(arguments->second, key)) return from(Source::argument, std::move(value));
    }
    if (auto value = find(in(own_), key)) return from(Source::persistent, std::move(value));
    if (auto value = find(in(global_), key)) return from(Source::global, std::move(value));
    if (auto registration = volatile_.find(std::string_view(registrationDomain)); registration != volatile_.end()) {
        if (auto value = find(registration->second, key)) return from(Source::registration, std::move(value));
    }
    return from(Source::none, std::nullopt);
}

void UserDefaults::announce(const Changes& changes) const {
    for (const auto& change : changes) {
        observers_.notify(change.key, change.oldValue, change.newValue, true);
        observers_.notify(change.key, change.oldValue, change.newValue, false);
    }
}

std::optional<PropertyList> UserDefaults::object(const std::string& key, Source* source) const {
    Changes changes;
    std::optional<PropertyList> value;
    {
        std::lock_guard guard(mutex_);
        value = objectLk(key, &changes, source);
    }
    announce(changes);
    return value;
}

std::optional<std::string> UserDefaults::string(const std::string& key) const {
    auto value = object(key);
    if (!value) return std::nullopt;
    if (const auto* text = value->get<std::string>()) return *text;
    return std::nullopt;
}

bool UserDefaults::set(std::optional<PropertyList> value, const std::string& key) {
    Changes changes;
    std::optional<PropertyList> oldValue, newValue;
    const bool observed = observers_.observes(key);
    if (observed) {
        {
            std::lock_guard guard(mutex_);
            oldValue = objectLk(key, &changes);
        }
        announce(changes);
        changes.clear();
        observers_.notify(key, oldValue, std::nullopt, true);
    }
    bool written;
    {
        std::lock_guard guard(mutex_);
        Domain& own = refreshLk(own_, changes);
        Dictionary values = own.values;
        if (value) {
            values.insert_or_assign(key, std::move(*value));
        } else {
            values.erase(key);
        }
        written = writeLk(own, values);
        if (observed) newValue = objectLk(key, nullptr);
    }
    const int saved = errno;
    announce(changes);
    if (observed) observers_.notify(key, oldValue, newValue, false);
    errno = saved;
    return written;
}

void UserDefaults::registerDefaults(const Dictionary& defaults) {
    std::lock_guard guard(mutex_);
    Dictionary& registration = volatile_[registrationDomain];
    for (const auto& [key, value] : defaults) registration.insert_or_assign(key, value);
}

std::optional<UserDefaults::Dictionary> UserDefaults::persistentDomain(const std::string& name) const {
    Changes changes;
    std::optional<Dictionary> values;
    {
        std::lock_guard guard(mutex_);
        const Domain& domain = refreshLk(domainLk(name), changes);
        if (domain.exists) values = domain.values;
    }
    announce(changes);
    return values;
}

bool UserDefaults::setPersistentDomain(const Dictionary& domain, const std::string& name) {
    std::lock_guard guard(mutex_);
    return writeLk(domainLk(name), domain);
}

void UserDefaults::removePersistentDomain(const std::string& name) {
    std::lock_guard guard(mutex_);
    Domain& domain = domainLk(name);
    if (!domain.path.empty()) unlink(domain.path.c_str());
    domain.values.clear();
    domain.exists = false;
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

bool UserDefaults::objectIsForced(const std::string& key) const {
    Changes changes;
    bool forced;
    {
        std::lock_guard guard(mutex_);
        forced = refreshLk(forced_, changes).values.contains(key);
    }
    announce(changes);
    return forced;
}

UserDefaults::Dictionary UserDefaults::dictionaryRepresentation() const {
    Changes changes;
    Dictionary result;
    {
        std::lock_guard guard(mutex_);
        refreshAllLk(changes);
        // Lowest priority first; later domains overwrite.
        auto overlay = [&](const Dictionary& values) {
            for (const auto& [key, value] : values) result.insert_or_assign(key, value);
        };
        if (auto it = volatile_.find(std::string_view(registrationDomain)); it != volatile_.end()) overlay(it->second);
        overlay(global_.values);
        overlay(own_.values);
        if (auto it = volatile_.find(std::string_view(argumentDomain)); it != volatile_.end()) overlay(it->second);
        overlay(forced_.values);
    }
    announce(changes);
    return result;
}

bool UserDefaults::synchronize() {
    Changes changes;
    {
        std::lock_guard guard(mutex_);
        refreshAllLk(changes);
    }
    announce(changes);
    return true;
}

KeyValueObservation UserDefaults::addObserver(std::string key, unsigned options, KeyValueObserver observer) {
    return observers_.add(std::move(key), options, std::move(observer));
}

}  // namespace Foundation
