// KeyStorageBase: a KeyStorageProtocol dictionary held in memory and written
// out whole, as one binary property list (the "blob"), through three hooks
// that subclasses supply: loadData(), storeData() and deleteData().
//
// Writes are behind the changes: set() marks the storage dirty and schedules
// store() on the storage's serial queue writeDelay seconds later (each change
// schedules one; the first to run writes, the others find nothing to do), or,
// with a delay of 0, runs it there before returning. reset() and store()
// write on the calling thread. A write that fails leaves the storage dirty,
// so the next store() tries again.
//
// Storages are made with make<Subclass>(...), which loads the blob, and are
// owned through std::shared_ptr: a scheduled write keeps its storage alive,
// and when the last reference goes the pending changes are written before
// the storage is destroyed.
//
// Threads: every member may be called from any thread, except that set()
// with a delay of 0 must not be called from the storage's own queue (it
// waits for that queue). The hooks run one at a time, never under the
// dictionary's lock: writes in the order their contents were taken.
// Failures are logged (source "KeyStorage") and never thrown to the caller.
#pragma once

#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "Dispatch/DispatchQueue.h"
#include "Tovik/KeyStorageProtocol.h"
#include "Tovik/UnfairLock.h"

namespace Tovik {

class KeyStorageBase : public KeyStorageProtocol, public std::enable_shared_from_this<KeyStorageBase> {
public:
    using Data = std::vector<uint8_t>;

    /// A storage of type T (a subclass) made from args, loaded (load()) and
    /// owned by the result; pending changes are stored when the last
    /// reference goes away.
    template <class T, class... Args>
    static std::shared_ptr<T> make(Args&&... args) {
        struct Made final : T {
            explicit Made(Args&&... forwarded) : T(std::forward<Args>(forwarded)...) {}
        };
        std::shared_ptr<T> storage(new Made(std::forward<Args>(args)...), [](T* made) {
            made->store();
            delete made;
        });
        storage->load();
        return storage;
    }

    ~KeyStorageBase() override = default;
    KeyStorageBase(const KeyStorageBase&) = delete;
    KeyStorageBase& operator=(const KeyStorageBase&) = delete;

    bool isEmpty() const override;
    Dictionary dictionaryRepresentation() const override;
    std::optional<Value> object(const std::string& key) const override;
    void set(std::optional<Value> value, const std::string& key) override;
    /// Replaces the contents and stores them at once, even when dictionary is empty.
    void reset(const Dictionary& dictionary) override;
    /// Writes the contents through storeData() when dirty; on failure logs
    /// "Failed to store cache: <error>" and stays dirty.
    void store() override;
    /// Empties the storage, clean, and calls deleteData().
    void delete_() override;

    /// Replaces the contents with the stored blob when it holds a
    /// dictionary, leaving the storage clean. Otherwise keeps them: nothing
    /// stored; a failure or a blob that is no property list ("Failed to load
    /// stored cache: <error>"); another property list ("The decoded object
    /// is not a dictionary").
    void load();

    double writeDelay() const { return writeDelay_; }

protected:
    /// An empty, clean storage whose scheduled writes run on a new serial
    /// queue labelled queueLabel, delay seconds after a change.
    KeyStorageBase(std::string queueLabel, double writeDelay);

    // The hooks. In KeyStorageBase each stops the process with "Must be
    // implemented in subclass".
    /// The stored blob; absent when nothing is stored. May throw.
    virtual std::optional<Data> loadData();
    /// Persists blob. May throw; the storage then stays dirty.
    virtual void storeData(const Data& blob);
    /// Removes the stored blob.
    virtual void deleteData();

private:
    mutable UnfairLock lock_;
    Dictionary cache_;    // guarded by lock_
    bool dirty_ = false;  // guarded by lock_
    // Held while a hook runs (taken before lock_): hooks run one at a time.
    UnfairLock hooksLock_;
    const Dispatch::DispatchQueue queue_;
    const double writeDelay_;
};

}  // namespace Tovik
