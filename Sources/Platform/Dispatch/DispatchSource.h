// Event sources: timers, readable descriptors and file-system objects.
//
// A source is a handle: copies refer to the same source. It is created
// inactive; set its handlers, then activate() it. From then on the event system
// keeps it alive until it is cancelled, so a handler may hold the object that
// owns the source (that cycle ends with cancel()).
//
// Delivery
// - Events arriving while a handler invocation is pending are merged into one:
//   `data()` read inside the event handler is everything merged since the
//   previous invocation (an event set, a byte estimate or a fire count).
// - Handlers run on the target queue; a source's event handler never runs
//   concurrently with itself, even on a concurrent queue.
//
// Cancellation
// - cancel() may be called from any thread, any number of times. No event
//   handler of the source starts after cancel() has returned. The cancel
//   handler runs exactly once, on the target queue, after any event handler
//   invocation that was already running has finished; then both handlers are
//   released, with whatever they captured.
// - A source is never closed by the system: its descriptor belongs to the
//   caller, who typically closes it in the cancel handler.
#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <optional>

#include "Dispatch/DispatchQueue.h"
#include "Dispatch/DispatchTime.h"

namespace Dispatch {

namespace detail {
class Source;
}

/// The event set of a file-system-object (vnode) source, with the bit values of
/// the BSD vnode notes.
struct FileSystemEvent {
    uint32_t rawValue = 0;

    static constexpr uint32_t deleteBit = 0x1, writeBit = 0x2, extendBit = 0x4, attribBit = 0x8,
                              linkBit = 0x10, renameBit = 0x20, revokeBit = 0x40, funlockBit = 0x100;

    static constexpr FileSystemEvent delete_() { return {deleteBit}; }
    static constexpr FileSystemEvent write() { return {writeBit}; }
    static constexpr FileSystemEvent extend() { return {extendBit}; }
    static constexpr FileSystemEvent attrib() { return {attribBit}; }
    static constexpr FileSystemEvent link() { return {linkBit}; }
    static constexpr FileSystemEvent rename() { return {renameBit}; }
    static constexpr FileSystemEvent revoke() { return {revokeBit}; }
    static constexpr FileSystemEvent funlock() { return {funlockBit}; }
    static constexpr FileSystemEvent all() {
        return {deleteBit | writeBit | extendBit | attribBit | linkBit | renameBit | revokeBit | funlockBit};
    }

    constexpr bool contains(FileSystemEvent other) const { return (rawValue & other.rawValue) == other.rawValue; }
    constexpr bool isEmpty() const { return rawValue == 0; }
    constexpr FileSystemEvent operator|(FileSystemEvent o) const { return {rawValue | o.rawValue}; }
    constexpr FileSystemEvent operator&(FileSystemEvent o) const { return {rawValue & o.rawValue}; }
    constexpr bool operator==(const FileSystemEvent&) const = default;
};

class DispatchSource {
public:
    class FileSystemObject;
    class Timer;
    class Read;

    /// Watches the node that fileDescriptor refers to (any open descriptor,
    /// including O_PATH ones) for the events in eventMask. Events and their
    /// meaning, for a file or a folder, as the BSD vnode notes report them:
    /// - write: the file's contents changed; for a folder, an entry was created,
    ///   removed or renamed inside it;
    /// - extend: the file grew;
    /// - attrib: metadata (mode, owner, times) changed;
    /// - link: the link count changed (hard link, subfolder created or removed);
    /// - delete: the node was unlinked (reported at the unlink, even while
    ///   descriptors on it remain open);
    /// - rename: the node was moved or renamed;
    /// - revoke: its file system was unmounted;
    /// - funlock: never reported on Linux.
    /// A descriptor that cannot be watched gives a source that never fires but
    /// can still be cancelled.
    static FileSystemObject makeFileSystemObjectSource(int fileDescriptor, FileSystemEvent eventMask,
                                                       const DispatchQueue& queue);
    /// A timer; nothing fires until schedule() is called.
    static Timer makeTimerSource(const DispatchQueue& queue);
    /// Fires while fileDescriptor is readable (data, end of file, hang-up, or a
    /// pidfd whose process ended). The event is re-armed when the handler
    /// returns, so a handler that does not drain the descriptor is called again.
    static Read makeReadSource(int fileDescriptor, const DispatchQueue& queue);

    void setEventHandler(std::function<void()> handler) const;
    void setCancelHandler(std::function<void()> handler) const;
    /// Starts delivery; later calls do nothing. A source cancelled before it
    /// was activated runs its cancel handler on its queue at once and never
    /// delivers events.
    void activate() const;
    void resume() const { activate(); }
    void cancel() const;
    bool isCancelled() const;

    /// The raw pending data of the current delivery (see the subclasses).
    uintptr_t rawData() const;

    friend bool operator==(const DispatchSource& a, const DispatchSource& b) { return a.impl_ == b.impl_; }

protected:
    explicit DispatchSource(std::shared_ptr<detail::Source> impl) : impl_(std::move(impl)) {}
    std::shared_ptr<detail::Source> impl_;
};

class DispatchSource::FileSystemObject : public DispatchSource {
public:
    /// Inside the event handler: the events merged into this delivery.
    FileSystemEvent data() const { return {static_cast<uint32_t>(rawData())}; }
    FileSystemEvent mask() const;
    int handle() const;

private:
    friend class DispatchSource;
    using DispatchSource::DispatchSource;
};

class DispatchSource::Timer : public DispatchSource {
public:
    /// First fire at deadline, then every `repeating` seconds when given
    /// (one-shot otherwise). Re-scheduling replaces the previous schedule.
    void schedule(DispatchTime deadline, std::optional<double> repeating = std::nullopt) const;
    /// Inside the event handler: how many times the timer fired since the last delivery.
    uintptr_t data() const { return rawData(); }

private:
    friend class DispatchSource;
    using DispatchSource::DispatchSource;
};

class DispatchSource::Read : public DispatchSource {
public:
    /// Inside the event handler: an estimate of the bytes ready to read (0 at
    /// end of file, and for descriptors without a byte count, such as a pidfd).
    uintptr_t data() const { return rawData(); }
    int handle() const;

private:
    friend class DispatchSource;
    using DispatchSource::DispatchSource;
};

using DispatchSourceFileSystemObject = DispatchSource::FileSystemObject;
using DispatchSourceTimer = DispatchSource::Timer;
using DispatchSourceRead = DispatchSource::Read;

}  // namespace Dispatch
