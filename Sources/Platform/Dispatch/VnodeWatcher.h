// The process-wide inotify instance behind every file-system-object source.
//
// Each registered descriptor gets a watch on its exact node (through its
// /proc/self/fd entry) and one on the folder that holds it, because Linux
// reports a node's own deletion only once the last descriptor on it is closed,
// whereas a vnode source reports it at the unlink. The parent watch sees the
// entry go away; fstat on the descriptor then tells deleted (no links left)
// from moved (links kept). After a move the parent watch follows the node.
// Sources on the same inode share one inotify watch descriptor.
#pragma once

#include <sys/types.h>

#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <set>
#include <string>
#include <unordered_map>
#include <utility>
#include <vector>

struct inotify_event;

namespace Dispatch::detail {

class VnodeWatcher {
public:
    /// Receives vnode event bits (FileSystemEvent values), on the event thread.
    using Notify = std::function<void(uint32_t)>;
    using RegistrationId = uint64_t;

    /// The watcher of the process, created on first use; it lives (with its
    /// inotify descriptor) until the process ends.
    static VnodeWatcher& shared();

    /// Starts reporting the events of the node fileDescriptor refers to;
    /// wantedEvents (FileSystemEvent bits) chooses what the kernel is asked
    /// for, and notify may also receive other bits. The descriptor must stay
    /// open until remove(). Returns 0 when the node cannot be watched (the
    /// reason is printed to standard error).
    RegistrationId add(int fileDescriptor, uint32_t wantedEvents, Notify notify);
    /// Stops reporting; no notify call begins after this returns.
    void remove(RegistrationId id);

private:
    struct Registration {
        int fileDescriptor = -1;
        std::shared_ptr<const Notify> notify;
        int nodeWatch = -1;    // -1 once the kernel dropped the watch
        int parentWatch = -1;  // -1 when the node has no (known) parent
        std::string name;      // the node's entry name in its parent
        nlink_t links = 0;
        off_t size = 0;
        bool isDirectory = false;
        bool deleteReported = false;
    };
    struct Watch {
        int references = 0;
        std::set<RegistrationId> nodes;    // registrations watching this node itself
        std::set<RegistrationId> entries;  // registrations whose node is an entry of this folder
    };
    using Delivery = std::pair<std::shared_ptr<const Notify>, uint32_t>;

    VnodeWatcher();
    void readEvents();  // on the event thread
    void handle(const inotify_event& event, std::vector<Delivery>& deliveries);  // needs mutex_
    uint32_t nodeEvents(RegistrationId id, Registration& registration, const inotify_event& event);
    uint32_t entryEvents(RegistrationId id, Registration& registration, const inotify_event& event);
    uint32_t refreshStatus(Registration& registration, bool attributesChanged);
    uint32_t reportDeleteOnce(RegistrationId id, Registration& registration, uint32_t events);  // needs mutex_
    void followParent(RegistrationId id, Registration& registration);  // needs mutex_
    int addWatch(const std::string& path, uint32_t mask);             // needs mutex_
    void releaseWatch(int watch);                                     // needs mutex_

    int inotifyFd_ = -1;
    std::mutex mutex_;
    RegistrationId nextId_ = 1;                                         // guarded by mutex_
    std::unordered_map<RegistrationId, Registration> registrations_;  // guarded by mutex_
    std::unordered_map<int, Watch> watches_;                          // guarded by mutex_, by watch descriptor
};

}  // namespace Dispatch::detail
