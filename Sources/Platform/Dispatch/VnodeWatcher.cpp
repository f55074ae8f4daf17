#include "Dispatch/VnodeWatcher.h"

#include <sys/epoll.h>
#include <sys/inotify.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <climits>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "Dispatch/DispatchSource.h"
#include "Dispatch/EventLoop.h"

namespace Dispatch::detail {

namespace {

constexpr uint32_t entryChanges = IN_CREATE | IN_DELETE | IN_MOVED_FROM | IN_MOVED_TO;
// What a node's own watch always asks for: attribute and link-count changes,
// its deletion and its moves. None of these comes with a write.
constexpr uint32_t nodeMask = IN_ATTRIB | IN_DELETE_SELF | IN_MOVE_SELF;
// What a folder watched for one of its entries asks for.
constexpr uint32_t parentMask = IN_DELETE | IN_MOVED_FROM | IN_MOVED_TO;

// The inotify events a source needs for the vnode events it wants. IN_MODIFY
// only when it wants writes or growth of a file: every write(2) to a watched
// file (and to any file of a watched folder) otherwise queues an event and
// wakes the event thread, which would cost every log record a context switch.
uint32_t inotifyMask(uint32_t wanted, bool isDirectory) {
    if (isDirectory) return nodeMask | entryChanges;
    return (wanted & (FileSystemEvent::writeBit | FileSystemEvent::extendBit)) ? nodeMask | IN_MODIFY : nodeMask;
}

std::string descriptorPath(int fileDescriptor) { return "/proc/self/fd/" + std::to_string(fileDescriptor); }

}  // namespace

VnodeWatcher& VnodeWatcher::shared() {
    // Never destroyed: the event thread may use it while the process exits.
    static auto* watcher = new VnodeWatcher;
    return *watcher;
}

VnodeWatcher::VnodeWatcher() {
    inotifyFd_ = inotify_init1(IN_NONBLOCK | IN_CLOEXEC);
    if (inotifyFd_ < 0) {
        std::fprintf(stderr, "Dispatch: file-system sources never fire: inotify_init1: %s\n", std::strerror(errno));
        return;
    }
    if (EventLoop::shared().addDescriptor(inotifyFd_, EPOLLIN, [this](uint32_t) { readEvents(); }) == 0) {
        std::fprintf(stderr, "Dispatch: file-system sources never fire: epoll_ctl: %s\n", std::strerror(errno));
    }
}

VnodeWatcher::RegistrationId VnodeWatcher::add(int fileDescriptor, uint32_t wantedEvents, Notify notify) {
    struct stat status {};
    if (fstat(fileDescriptor, &status) != 0) {
        std::fprintf(stderr, "Dispatch: file-system source on descriptor %d never fires: fstat: %s\n", fileDescriptor,
                     std::strerror(errno));
        return 0;
    }
    std::lock_guard lock(mutex_);
    if (inotifyFd_ < 0) return 0;
    int nodeWatch = addWatch(descriptorPath(fileDescriptor), inotifyMask(wantedEvents, S_ISDIR(status.st_mode)));
    if (nodeWatch < 0) {
        std::fprintf(stderr, "Dispatch: file-system source on descriptor %d never fires: inotify_add_watch: %s\n",
                     fileDescriptor, std::strerror(errno));
        return 0;
    }
    RegistrationId id = nextId_++;
    Registration& registration = registrations_[id];
    registration.fileDescriptor = fileDescriptor;
    registration.notify = std::make_shared<const Notify>(std::move(notify));
    registration.nodeWatch = nodeWatch;
    registration.links = status.st_nlink;
    registration.size = status.st_size;
    registration.isDirectory = S_ISDIR(status.st_mode);
    watches_[nodeWatch].nodes.insert(id);
    if (status.st_nlink > 0) followParent(id, registration);
    return id;
}

void VnodeWatcher::remove(RegistrationId id) {
    std::shared_ptr<const Notify> dropped;  // released outside the lock
    std::lock_guard lock(mutex_);
    auto found = registrations_.find(id);
    if (found == registrations_.end()) return;
    Registration& registration = found->second;
    dropped = std::move(registration.notify);
    if (registration.nodeWatch >= 0) {
        watches_[registration.nodeWatch].nodes.erase(id);
        releaseWatch(registration.nodeWatch);
    }
    if (registration.parentWatch >= 0) {
        watches_[registration.parentWatch].entries.erase(id);
        releaseWatch(registration.parentWatch);
    }
    registrations_.erase(found);
}

int VnodeWatcher::addWatch(const std::string& path, uint32_t mask) {
    // A node has one watch descriptor per inotify instance; IN_MASK_ADD widens
    // a shared watch to what every user of it asks for.
    int watch = inotify_add_watch(inotifyFd_, path.c_str(), mask | IN_MASK_ADD);
    if (watch >= 0) ++watches_[watch].references;
    return watch;
}

void VnodeWatcher::releaseWatch(int watch) {
    auto found = watches_.find(watch);
    if (found == watches_.end() || --found->second.references > 0) return;
    inotify_rm_watch(inotifyFd_, watch);
    watches_.erase(found);
}

void VnodeWatcher::followParent(RegistrationId id, Registration& registration) {
    int oldParent = registration.parentWatch;
    int newParent = -1;
    std::string name;
    char target[PATH_MAX];
    ssize_t length = readlink(descriptorPath(registration.fileDescriptor).c_str(), target, sizeof target);
    std::string path = length > 0 ? std::string(target, static_cast<size_t>(length)) : std::string();
    size_t slash = path.rfind('/');
    // Only nodes with a real path have a parent folder ("/" and "pipe:[...]" have none).
    if (!path.empty() && path[0] == '/' && slash != std::string::npos && slash + 1 < path.size()) {
        name = path.substr(slash + 1);
        newParent = addWatch(slash == 0 ? "/" : path.substr(0, slash), parentMask);
    }
    if (oldParent >= 0) {
        watches_[oldParent].entries.erase(id);
        releaseWatch(oldParent);
    }
    registration.parentWatch = newParent;
    registration.name = std::move(name);
    if (newParent >= 0) watches_[newParent].entries.insert(id);
}

void VnodeWatcher::readEvents() {
    alignas(inotify_event) char buffer[16384];
    for (;;) {
        ssize_t length = read(inotifyFd_, buffer, sizeof buffer);
        if (length <= 0) {
            if (length < 0 && errno == EINTR) continue;
            return;  // EAGAIN: drained
        }
        std::vector<Delivery> deliveries;
        {
            std::lock_guard lock(mutex_);
            for (ssize_t offset = 0; offset < length;) {
                const auto& event = *reinterpret_cast<const inotify_event*>(buffer + offset);
                handle(event, deliveries);
                offset += static_cast<ssize_t>(sizeof(inotify_event) + event.len);
            }
        }
        for (auto& [notify, events] : deliveries) (*notify)(events);
    }
}

void VnodeWatcher::handle(const inotify_event& event, std::vector<Delivery>& deliveries) {
    if (event.mask & IN_Q_OVERFLOW) {
        // Events were lost: tell everyone something changed.
        for (auto& [id, registration] : registrations_) {
            deliveries.emplace_back(registration.notify, FileSystemEvent::writeBit);
        }
        return;
    }
    auto found = watches_.find(event.wd);
    if (found == watches_.end()) return;
    // Copies: following a moved node's parent changes these sets.
    std::set<RegistrationId> nodes = found->second.nodes;
    std::set<RegistrationId> entries = found->second.entries;

    for (RegistrationId id : nodes) {
        Registration& registration = registrations_.at(id);
        if (uint32_t events = nodeEvents(id, registration, event)) deliveries.emplace_back(registration.notify, events);
    }
    if (event.len > 0) {
        for (RegistrationId id : entries) {
            Registration& registration = registrations_.at(id);
            if (registration.name != event.name) continue;
            if (uint32_t events = entryEvents(id, registration, event)) {
                deliveries.emplace_back(registration.notify, events);
            }
        }
    }
    if (event.mask & IN_IGNORED) {
        // The kernel dropped the watch (node gone, file system unmounted).
        found = watches_.find(event.wd);
        if (found == watches_.end()) return;
        for (RegistrationId id : found->second.nodes) registrations_.at(id).nodeWatch = -1;
        for (RegistrationId id : found->second.entries) registrations_.at(id).parentWatch = -1;
        watches_.erase(found);
    }
}

uint32_t VnodeWatcher::nodeEvents(RegistrationId id, Registration& registration, const inotify_event& event) {
    uint32_t events = 0;
    bool attributesChanged = false;
    if (event.len > 0) {
        // Events about an entry of the watched folder: only the folder's own
        // list of entries matters, not what happens to the entries themselves.
        if (!(event.mask & entryChanges)) return 0;
        events |= FileSystemEvent::writeBit;
    } else {
        if (event.mask & IN_MODIFY) events |= FileSystemEvent::writeBit;
        if (event.mask & IN_ATTRIB) attributesChanged = true;
        if (event.mask & IN_DELETE_SELF) events |= FileSystemEvent::deleteBit;
        if (event.mask & IN_MOVE_SELF) {
            events |= FileSystemEvent::renameBit;
            followParent(id, registration);
        }
        if (event.mask & IN_UNMOUNT) events |= FileSystemEvent::revokeBit;
    }
    events |= refreshStatus(registration, attributesChanged);
    return reportDeleteOnce(id, registration, events);
}

uint32_t VnodeWatcher::entryEvents(RegistrationId id, Registration& registration, const inotify_event& event) {
    if (!(event.mask & (IN_DELETE | IN_MOVED_FROM | IN_MOVED_TO))) return 0;
    // The entry that named the node was removed, moved away or replaced: the
    // link count says whether the node itself went with it.
    uint32_t events = refreshStatus(registration, false);
    if ((event.mask & IN_MOVED_FROM) && registration.links > 0) {
        events |= FileSystemEvent::renameBit;
        followParent(id, registration);
    }
    return reportDeleteOnce(id, registration, events);
}

uint32_t VnodeWatcher::reportDeleteOnce(RegistrationId id, Registration& registration, uint32_t events) {
    if (!(events & FileSystemEvent::deleteBit)) return events;
    if (registration.deleteReported) return events & ~FileSystemEvent::deleteBit;
    registration.deleteReported = true;
    // A deleted node has no entry left to watch for.
    if (registration.parentWatch >= 0) {
        watches_[registration.parentWatch].entries.erase(id);
        releaseWatch(registration.parentWatch);
        registration.parentWatch = -1;
    }
    return events;
}

uint32_t VnodeWatcher::refreshStatus(Registration& registration, bool attributesChanged) {
    struct stat status {};
    if (fstat(registration.fileDescriptor, &status) != 0) return attributesChanged ? FileSystemEvent::attribBit : 0;
    uint32_t events = 0;
    if (status.st_nlink != registration.links) {
        events |= status.st_nlink == 0 ? FileSystemEvent::deleteBit : FileSystemEvent::linkBit;
        registration.links = status.st_nlink;
    } else if (attributesChanged) {
        events |= FileSystemEvent::attribBit;
    }
    if (!registration.isDirectory && status.st_size > registration.size) events |= FileSystemEvent::extendBit;
    registration.size = status.st_size;
    return events;
}

}  // namespace Dispatch::detail
