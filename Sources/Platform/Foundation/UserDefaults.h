// Per-user preferences: string keys with property-list values, looked up
// through an ordered list of domains.
//
// Search order of object(forKey):
//   1. forced values: the managed preferences "<domain>.plist" in the managed
//      folder ("/Library/Managed Preferences"), set by an administrator's
//      policy; they win over everything else (objectIsForced());
//   2. the argument domain (the program's "-key value" launch arguments, or
//      what setVolatileDomain put there);
//   3. the object's own persistent domain;
//   4. the global domain globalDomain, shared by every program of the user
//      (for example "AppleLanguages");
//   5. the registration domain.
//
// A persistent domain is the property-list file "<domain>.plist" in the
// preferences folder ("Library/Preferences" in the effective user's home
// folder, from the user database); the global domain's file is
// ".GlobalPreferences.plist" there. Every change is written at once, through a
// temporary file that is flushed and renamed over the old one, so a reader
// never sees a half-written file. Edits made to the files by other objects or
// processes are picked up at the next access that looks at the file.
//
// Key-value observing: addObserver() registers a callback for one key. It is
// told, on the calling thread and after the object's locks are released,
// about
//   - every set()/removeObject() of the key through this object: the prior
//     notification before the write, the after-notification once written;
//   - a change of the key's effective value found when a read, a write or
//     synchronize() re-reads a file that changed behind the object's back:
//     prior and after-notification together, once the new values are in.
// Changes through setPersistentDomain(), registerDefaults() and the volatile
// domains are not announced. Observers must not throw.
//
// Every member is thread-safe.
#pragma once

#include <sys/stat.h>

#include <filesystem>
#include <map>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

#include "Foundation/KeyValueObserving.h"
#include "Foundation/PropertyList.h"

namespace Foundation {

class UserDefaults {
public:
    using Dictionary = PropertyList::Dictionary;

    static constexpr const char* argumentDomain = "NSArgumentDomain";
    static constexpr const char* registrationDomain = "NSRegistrationDomain";
    static constexpr const char* globalDomain = "NSGlobalDomain";
    static constexpr const char* defaultManagedFolder = "/Library/Managed Preferences";

    /// The program's defaults, over the persistent domain standardDomainName()
    /// in the default folder. Created on first use; lives until the process ends.
    static UserDefaults& standard();
    /// The program's identifier: its executable's file name.
    static std::string standardDomainName();
    /// "Library/Preferences" in the effective user's home folder; "" when the
    /// user database has no entry for that user.
    static std::filesystem::path defaultPreferencesFolder();

    /// Defaults over the persistent domain suiteName (the program's own when
    /// absent), kept in folder, with the forced values of managedFolder.
    explicit UserDefaults(std::optional<std::string> suiteName = std::nullopt,
                          std::filesystem::path folder = defaultPreferencesFolder(),
                          std::filesystem::path managedFolder = defaultManagedFolder);
    UserDefaults(const UserDefaults&) = delete;
    UserDefaults& operator=(const UserDefaults&) = delete;

    const std::string& domainName() const { return domainName_; }
    const std::filesystem::path& folder() const { return folder_; }

    /// Which domain of the search order a value came from. (An addition of
    /// this implementation: a caller that also asks objectIsForced() and the
    /// argument domain about the key gets both from the one lookup.)
    enum class Source { none, forced, argument, persistent, global, registration };

    /// The value from the first domain in search order that has one; source,
    /// when given, is set to that domain.
    std::optional<PropertyList> object(const std::string& key, Source* source = nullptr) const;
    /// The value when it is a string, else nothing.
    std::optional<std::string> string(const std::string& key) const;
    /// Stores value in the own persistent domain and writes it out; an absent
    /// value removes the key. False, with errno set, when the file could not
    /// be written; the domain then keeps what its file holds.
    bool set(std::optional<PropertyList> value, const std::string& key);
    bool removeObject(const std::string& key) { return set(std::nullopt, key); }

    /// Adds values to the registration domain (never written to disk).
    void registerDefaults(const Dictionary& defaults);

    /// The contents of a persistent domain (globalDomain included); nothing
    /// when it has no file.
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

    /// Whether an administrator's policy fixes the key: the managed
    /// preferences of the own domain hold it.
    bool objectIsForced(const std::string& key) const;

    /// Every key visible through the search list with its effective value.
    Dictionary dictionaryRepresentation() const;

    /// Writes are immediate; this re-reads changed files (announcing what
    /// changed to observers). Always true.
    bool synchronize();

    /// Observes key's effective value with options (KeyValueObservingOptions
    /// bits); see the banner. The observation ends with the token.
    [[nodiscard]] KeyValueObservation addObserver(std::string key, unsigned options, KeyValueObserver observer);

private:
    struct Domain {
        std::string path;  // "" when there is no folder
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
    // A key whose effective value changed, to be announced.
    struct Change {
        std::string key;
        std::optional<PropertyList> oldValue, newValue;
    };
    using Changes = std::vector<Change>;

    Domain& domainLk(const std::string& name) const;
    // Re-reads domain's file when it is not the one last read; observed keys
    // whose effective value that changes are added to changes.
    Domain& refreshLk(Domain& domain, Changes& changes) const;
    void refreshAllLk(Changes& changes) const;
    bool writeLk(Domain& domain, const Dictionary& values) const;
    // The effective value; with refreshing, files are re-read first as
    // needed (changes found go there), without it only memory is looked at.
    std::optional<PropertyList> objectLk(const std::string& key, Changes* refreshing, Source* source = nullptr) const;
    // Announces changes (prior, then after) outside the lock.
    void announce(const Changes& changes) const;

    const std::string domainName_;
    const std::filesystem::path folder_;

    mutable std::mutex mutex_;
    // Guarded by mutex_: the files of the search list and of other domains.
    mutable Domain forced_, own_, global_;
    mutable std::map<std::string, Domain> others_;
    std::map<std::string, Dictionary, std::less<>> volatile_;  // guarded by mutex_

    KeyValueObservers observers_{this};
};

}  // namespace Foundation
