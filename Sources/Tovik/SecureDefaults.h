// User defaults that notice when somebody edits the application's preferences
// file behind their back.
//
// A subclass names the protected keys (allDefaultNames()). A write of a
// protected key goes to the user defaults and to a shadow copy in a key
// storage (a SecureStorage, for instance); a read of one compares the two. A
// value that changed in the persistent domain domainName() without passing
// through this object is corruption: it is logged at error ("Default <key>
// was changed in defaults.plist", source "SecureDefaults"), the shadow copy
// is reloaded from the file (so one edit is reported once), the corruption
// handler is told changedInDefaults, and the read returns the file's value.
// A difference that comes from another domain (the global or registration
// domain) is no corruption. Keys forced by policy or given as launch
// arguments, and every key while skipValidating is set, are not protected.
//
// Construction does not fill the shadow copy: call loadCache() when starting
// to protect an existing file.
//
// Key-value observing: addObserver() on this object is told (without values)
// before and after every write through it, and about outside changes of a
// protected key that the user defaults detect on a thread that is not inside
// one of this object's operations (a synchronize(), a read of the user
// defaults made elsewhere). The user defaults' own notifications for this
// object's writes are not passed on. Observers run on the thread of the
// change, outside the lock, and may read.
//
// Threads: one lock serialises reads, writes and reset(); it is not
// reentrant, so the hooks, the block given to validate() and the corruption
// handler must not call the reads, writes or reset().
#pragma once

#include <atomic>
#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <set>
#include <string>
#include <utility>
#include <vector>

#include "Foundation/KeyValueObserving.h"
#include "Foundation/UserDefaults.h"
#include "Tovik/KeyStorageProtocol.h"
#include "Tovik/UnfairLock.h"

namespace Tovik {

enum class DefaultsCorruptionReason : int64_t {
    unspecified = 1,        // never reported by SecureDefaults itself; for subclasses' handleCorruption()
    changedInDefaults = 2,  // a protected value in the persistent domain differs from its shadow copy
};

/// The reason with that raw value; nothing for any other value.
std::optional<DefaultsCorruptionReason> defaultsCorruptionReason(int64_t rawValue);

class SecureDefaults {
public:
    using Value = Foundation::PropertyList;
    using Dictionary = Value::Dictionary;
    using CorruptionHandler = std::function<void(DefaultsCorruptionReason)>;

    /// A T (a subclass, not final) made from args that observes the user
    /// defaults for its protected keys until it is destroyed. The only way
    /// to make one: the hooks are virtual and cannot be called while the
    /// base is being built or torn down.
    template <class T, class... Args>
    static std::unique_ptr<T> make(Args&&... args) {
        struct Made final : T {
            explicit Made(Args&&... forwarded) : T(std::forward<Args>(forwarded)...) { this->startObserving(); }
            ~Made() override { this->stopObserving(); }
        };
        return std::make_unique<Made>(std::forward<Args>(args)...);
    }

    virtual ~SecureDefaults() = default;
    SecureDefaults(const SecureDefaults&) = delete;
    SecureDefaults& operator=(const SecureDefaults&) = delete;

    const std::string& domainName() const { return domainName_; }
    bool skipValidating() const { return skipValidating_; }
    void setSkipValidating(bool skip) { skipValidating_ = skip; }
    /// Told about corruption; none at first. Runs under the lock.
    void setCorruptionHandler(CorruptionHandler handler);
    /// The user defaults' argument domain.
    Dictionary argumentDomain() const;

    // Reads: validated, then converted.
    std::optional<Value> object(const std::string& key);
    std::optional<Value> value(const std::string& key) { return object(key); }
    /// A string as it is, a number as its text; else nothing.
    std::optional<std::string> string(const std::string& key);
    std::optional<Value::Array> array(const std::string& key);
    std::optional<Dictionary> dictionary(const std::string& key);
    std::optional<Value::Data> data(const std::string& key);
    /// An array of strings only; else nothing.
    std::optional<std::vector<std::string>> stringArray(const std::string& key);
    /// A number's value, a string read as a decimal number; else 0.
    int64_t integer(const std::string& key);
    float float_(const std::string& key);
    double double_(const std::string& key);
    /// A number's truth, true for the strings "YES" and "1"; else false.
    bool bool_(const std::string& key);

    /// Writes value (absent removes the key) to the user defaults and, for a
    /// protected key, to the shadow copy. Numbers and booleans are boxed by
    /// Value's constructors: set(true, key), set(3, key). When the user
    /// defaults cannot write, logs "Failed to write <key> to <domain>:
    /// <error>" and the shadow copy keeps the file's value.
    void set(std::optional<Value> value, const std::string& key);
    void setObject(std::optional<Value> value, const std::string& key) { set(std::move(value), key); }
    /// Also the key-path form: the path is the key.
    void setValue(std::optional<Value> value, const std::string& key) { set(std::move(value), key); }
    void removeObject(const std::string& key) { set(std::nullopt, key); }

    /// Replaces the shadow copy and the persistent domain with dictionary.
    void reset(const Dictionary& dictionary);
    /// Stores the shadow copy, then synchronises the user defaults; their result.
    bool synchronize();
    /// Fills the shadow copy with the protected keys of the persistent domain
    /// and stores it at once.
    void loadCache();
    /// Deletes the shadow copy.
    void delete_();
    /// Whether the user defaults have a value for key (not validated).
    bool keyExists(const std::string& key) const;
    /// loadCache(), then the handler with reason.
    void handleCorruption(DefaultsCorruptionReason reason);
    /// The value block reads, checked against the shadow copy (see the
    /// banner); after a corruption, block's second reading.
    std::optional<Value> validate(const std::string& key, const std::function<std::optional<Value>()>& block);
    /// The shadow copy's contents.
    Dictionary dictionaryRepresentation() const;

    /// The user defaults' change callback: for a protected key changed
    /// outside this object's operations, announces the change on this object.
    void observeValue(const std::optional<std::string>& keyPath, const void* object,
                      const Foundation::KeyValueChange& change, void* context);

    /// Observes this object's announcements for key (see the banner).
    [[nodiscard]] Foundation::KeyValueObservation addObserver(std::string key, unsigned options,
                                                              Foundation::KeyValueObserver observer);
    void willChangeValue(const std::string& key) const;
    void didChangeValue(const std::string& key) const;

protected:
    /// Over defaults (which must outlive this object), guarding the
    /// persistent domain domainName with the shadow copy in cacheStorage.
    SecureDefaults(Foundation::UserDefaults& defaults, std::string domainName,
                   std::shared_ptr<KeyStorageProtocol> cacheStorage);

    // The hooks, called under the lock.
    /// Whether key is compared and shadowed: not while skipValidating, not
    /// when forced or in the argument domain (within a read, as the lookup
    /// that produced the value found it), else whether it is protected.
    virtual bool shouldValidate(const std::string& key) const;
    /// The protected keys; the same set on every call. The base stops the
    /// process with "Must be overwritten in subclass".
    virtual const std::set<std::string>& allDefaultNames() const;

    void startObserving();
    void stopObserving();

private:
    Dictionary persistentDomain() const;  // empty when there is none
    bool setPersistentDomain(const Dictionary& domain);

    Foundation::UserDefaults& defs_;
    const std::string domainName_;
    const std::shared_ptr<KeyStorageProtocol> cache_;
    UnfairLock lock_;
    std::atomic<bool> skipValidating_ = false;
    mutable std::mutex handlerMutex_;
    CorruptionHandler corruptionHandler_;  // guarded by handlerMutex_
    std::vector<Foundation::KeyValueObservation> observations_;  // of defs_; set at make(), cleared before teardown
    Foundation::KeyValueObservers observers_{this};
};

}  // namespace Tovik
