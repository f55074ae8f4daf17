// Per-user preferences: string keys with property-list values, looked up
// through an ordered list of domains.
//
// Search order of object(forKey): the argument domain (the program's
// "-key value" launch arguments, or what setVolatileDomain put there), then
// the object's own persistent domain, then the registration domain.
//
// A persistent domain is the property-list file "<domain>.plist" in the
// preferences folder ("Library/Preferences" in the effective user's home
// folder, from the user database). Every change is written at once, through a
// temporary file that is flushed and renamed over the old one, so a reader
// never sees a half-written file. Edits made to the file by other objects or
// processes are picked up at the next access.
//
// Every member is thread-safe.
#pragma once

#include <sys/stat.h>

#include <filesystem>
#include <map>
#include <mutex>
#include <optional>
#include <string>

#include "Foundation/PropertyList.h"

namespace Foundation {

class UserDefaults {
public:
    using Dictionary = PropertyList::Dictionary;

    static constexpr const char* argumentDomain = "NSArgumentDomain";
    static constexpr const char* registrationDomain = "NSRegistrationDomain";

    /// The program's defaults, over the persistent domain standardDomainName()
    /// in the default folder. Created on first use; lives until the process ends.
    static UserDefaults& standard();
    /// The program's identifier: its executable's file name.
    static std::string standardDomainName();
    /// "Library/Preferences" in the effective user's home folder; "" when the
    /// user database has no entry for that user.
    static std::filesystem::path defaultPreferencesFolder();

    /// Defaults over the persistent domain suiteName (the program's own when
    /// absent), kept in folder.
    explicit UserDefaults(std::optional<std::string> suiteName = std::nullopt,
                          std::filesystem::path folder = defaultPreferencesFolder());
    UserDefaults(const UserDefaults&) = delete;
    UserDefaults& operator=(const UserDefaults&) = delete;

    const std::string& domainName() const { return domainName_; }
    const std::filesystem::path& folder() const { return folder_; }

    /// The value from the first domain in search order that has one.
    std::optional<PropertyList> object(const std::string& key) const;
    /// The value when it is a string, else nothing.
    std::optional<std::string> string(const std::string& key) const;
    /// Stores value in the own persistent domain and writes it out; an absent
    /// value removes the key. False, with errno set, when the file could not
    /// be written; the domain then keeps what its file holds.
    bool set(std::optional<PropertyList> value, const std::string& key);
    bool removeObject(const std::string& key) { return set(std::nullopt, key); }

    /// Adds values to the registration domain (never written to disk).
    void registerDefaults(const Dictionary& defaults);

    /// The contents of a persistent domain; nothing when it has no file.
    std::optional<Dictionary> persistentDomain(const std::string& name) const;
    /// Replaces a persistent domain's file. False, with errno set, when it
    /// could not be written.
    bool setPersistentDomain(const Dictionary& domain, const std::string& name);
    /// Deletes a persistent domain's file.
    void removePersistentDomain(const std::string& name);

    /// An in-memory domain such as argumentDomain; empty when unset.
    Dictionary volatileDomain(const std::string& name) const;
    void setVolatileDomain(const Dictionary& domain, const std::string& name);
    void removeVolatileDomain(const std::string& name);

    /// Whether an administrator's policy fixes the key. No policy source
    /// exists on this platform: always false.
    bool objectIsForced(const std::string& key) const;

    /// Every key visible through the search list with its effective value.
    Dictionary dictionaryRepresentation() const;

    /// Writes are immediate; this re-reads changed files. Always true.
    bool synchronize();

private:
    struct Domain {
        Dictionary values;
        bool exists = false;
        // Identity of the file the values were read from.
        dev_t device = 0;
        ino_t inode = 0;
        off_t size = -1;
        timespec modified{};
        timespec changed{};

        bool isFile(const struct stat& info) const;
        void takeIdentity(const struct stat& info);
    };

    std::filesystem::path fileLk(const std::string& name) const;
    Domain& persistentLk(const std::string& name) const;
    bool writeLk(const std::string& name, const Dictionary& values) const;

    const std::string domainName_;
    const std::filesystem::path folder_;

    mutable std::mutex mutex_;
    mutable std::map<std::string, Domain> persistent_;  // guarded by mutex_: file caches
    std::map<std::string, Dictionary> volatile_;        // guarded by mutex_
};

}  // namespace Foundation
