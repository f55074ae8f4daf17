#include "OSLog/OSLog.h"

#include <errno.h>
#include <fcntl.h>
#include <string.h>
#include <sys/mman.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <syslog.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cstddef>
#include <memory>

#include "Kernel/FileDescriptor.h"
#include "OSLog/ConsoleLog.h"

namespace OSLog {

namespace {

constexpr const char* defaultJournalSocketPath = "/run/systemd/journal/socket";

struct JournalAddress {
    sockaddr_un address{};
    socklen_t length = 0;

    explicit JournalAddress(const std::string& path) {
        address.sun_family = AF_UNIX;
        size_t size = std::min(path.size(), sizeof(address.sun_path) - 1);
        memcpy(address.sun_path, path.data(), size);
        length = static_cast<socklen_t>(offsetof(sockaddr_un, sun_path) + size + 1);
    }
};

std::atomic<std::shared_ptr<const JournalAddress>>& journalAddress() {
    static auto* address = new std::atomic<std::shared_ptr<const JournalAddress>>(
        std::make_shared<const JournalAddress>(defaultJournalSocketPath));
    return *address;
}

// One unbound datagram socket for the whole process, like the journal's own
// client keeps. It is never closed: entries may be logged until the process
// ends, static destructors included.
int journalSocket() {
    static const int fd = ::socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    return fd;
}

// KEY=value\n, or for values containing a line feed the binary form
// KEY\n + little-endian 64-bit length + value + \n.
void appendField(std::string& entry, std::string_view key, std::string_view value) {
    entry.append(key);
    if (value.find('\n') == std::string_view::npos) {
        entry += '=';
        entry.append(value);
    } else {
        entry += '\n';
        uint64_t size = value.size();
        for (int byte = 0; byte < 8; ++byte) entry += static_cast<char>((size >> (8 * byte)) & 0xff);
        entry.append(value);
    }
    entry += '\n';
}

bool sendDatagram(int socket, const JournalAddress& to, const std::string& entry) {
    iovec part{const_cast<char*>(entry.data()), entry.size()};
    msghdr message{};
    message.msg_name = const_cast<sockaddr_un*>(&to.address);
    message.msg_namelen = to.length;
    message.msg_iov = &part;
    message.msg_iovlen = 1;
    while (::sendmsg(socket, &message, MSG_NOSIGNAL) < 0) {
        if (errno != EINTR) return false;
    }
    return true;
}

// An entry too large for a datagram travels as a sealed memory file.
bool sendMemoryFile(int socket, const JournalAddress& to, const std::string& entry) {
    Kernel::FileDescriptor file(::memfd_create("journal-entry", MFD_ALLOW_SEALING | MFD_CLOEXEC));
    if (file.get() < 0) return false;
    if (!Kernel::writeAll(file.get(), entry)) return false;
    if (::fcntl(file.get(), F_ADD_SEALS, F_SEAL_SHRINK | F_SEAL_GROW | F_SEAL_WRITE | F_SEAL_SEAL) < 0) return false;

    alignas(cmsghdr) char control[CMSG_SPACE(sizeof(int))] = {};
    msghdr message{};
    message.msg_name = const_cast<sockaddr_un*>(&to.address);
    message.msg_namelen = to.length;
    message.msg_control = control;
    message.msg_controllen = sizeof control;
    cmsghdr* header = CMSG_FIRSTHDR(&message);
    header->cmsg_level = SOL_SOCKET;
    header->cmsg_type = SCM_RIGHTS;
    header->cmsg_len = CMSG_LEN(sizeof(int));
    int fd = file.get();
    memcpy(CMSG_DATA(header), &fd, sizeof fd);
    while (::sendmsg(socket, &message, MSG_NOSIGNAL) < 0) {
        if (errno != EINTR) return false;
    }
    return true;
}

bool sendToJournal(const std::string& entry) {
    int socket = journalSocket();
    if (socket < 0) return false;
    std::shared_ptr<const JournalAddress> to = journalAddress().load(std::memory_order_acquire);
    if (sendDatagram(socket, *to, entry)) return true;
    if (errno == EMSGSIZE || errno == ENOBUFS) return sendMemoryFile(socket, *to, entry);
    return false;
}

}  // namespace

OSLog::OSLog(std::string subsystem, std::string category)
    : subsystem_(std::move(subsystem)), category_(std::move(category)) {}

int OSLog::priority(OSLogType type) noexcept {
    switch (type) {
        case OSLogType::default_: return LOG_NOTICE;
        case OSLogType::info: return LOG_INFO;
        case OSLogType::debug: return LOG_DEBUG;
        case OSLogType::error: return LOG_ERR;
        case OSLogType::fault: return LOG_CRIT;
    }
    return LOG_NOTICE;
}

void OSLog::setJournalSocketPath(std::string path) {
    journalAddress().store(std::make_shared<const JournalAddress>(path), std::memory_order_release);
}

void OSLog::log(OSLogType type, std::string_view text) const noexcept {
    try {
        const int level = priority(type);
        std::string entry;
        entry.reserve(text.size() + subsystem_.size() + category_.size() + 96);
        appendField(entry, "MESSAGE", text);
        entry += "PRIORITY=";
        entry += static_cast<char>('0' + level);
        entry += '\n';
        appendField(entry, "SUBSYSTEM", subsystem_);
        appendField(entry, "CATEGORY", category_);
        appendField(entry, "SYSLOG_IDENTIFIER", programName());
        if (sendToJournal(entry)) return;

        // No journal here: syslog keeps the priority and the text.
        std::string message(text);
        ::syslog(LOG_USER | level, "%s", message.c_str());
    } catch (...) {
        // Out of memory: the entry is lost, the caller carries on.
    }
}

}  // namespace OSLog
