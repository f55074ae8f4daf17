// A stand-in journal for tests: a datagram socket bound in a temporary folder
// that OSLog is pointed at, and a reader of the journal's native protocol.
#pragma once

#include <endian.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <string.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <chrono>
#include <filesystem>
#include <cstdint>
#include <map>
#include <optional>
#include <string>

#include "OSLog/OSLog.h"
#include "Support/TestSupport.h"

namespace TestSupport {

/// Fields of one entry: KEY=value lines and the binary KEY\n<le64 size><bytes>\n form.
inline std::map<std::string, std::string> parseJournalEntry(const std::string& data) {
    std::map<std::string, std::string> fields;
    for (size_t position = 0, end; (end = data.find('\n', position)) != std::string::npos;) {
        const std::string line = data.substr(position, end - position);
        if (size_t equals = line.find('='); equals != std::string::npos) {
            fields[line.substr(0, equals)] = line.substr(equals + 1);
            position = end + 1;
        } else {
            uint64_t size = 0;
            if (end + 9 > data.size()) break;
            memcpy(&size, data.data() + end + 1, sizeof size);
            size = le64toh(size);
            fields[line] = data.substr(end + 9, size);
            position = end + 9 + size + 1;
        }
    }
    return fields;
}

/// Binds a socket named `name` in a temporary folder and, for its lifetime,
/// points OSLog at it.
class JournalCapture {
public:
    explicit JournalCapture(const std::string& name = "journal.socket")
        : fd_(::socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0)) {
        sockaddr_un address{.sun_family = AF_UNIX, .sun_path = {}};
        strncpy(address.sun_path, (folder_ / name).c_str(), sizeof(address.sun_path) - 1);
        EXPECT_EQ(::bind(fd_, reinterpret_cast<sockaddr*>(&address), sizeof address), 0) << strerror(errno);
        OSLog::OSLog::setJournalSocketPath(address.sun_path);
    }
    ~JournalCapture() {
        OSLog::OSLog::setJournalSocketPath("/run/systemd/journal/socket");
        ::close(fd_);
    }
    JournalCapture(const JournalCapture&) = delete;
    JournalCapture& operator=(const JournalCapture&) = delete;

    const std::filesystem::path& folder() const { return folder_.path(); }

    /// The next datagram's bytes (those of the memory file it passes, if any),
    /// or nothing within the deadline. Datagrams over 128 KiB arrive cut.
    std::optional<std::string> nextRaw(std::chrono::milliseconds deadline = std::chrono::seconds(5)) {
        pollfd ready{fd_, POLLIN, 0};
        if (::poll(&ready, 1, static_cast<int>(deadline.count())) != 1) return std::nullopt;
        std::string buffer(1 << 17, '\0');
        alignas(cmsghdr) char control[CMSG_SPACE(sizeof(int))] = {};
        iovec part{buffer.data(), buffer.size()};
        msghdr message{};
        message.msg_iov = &part;
        message.msg_iovlen = 1;
        message.msg_control = control;
        message.msg_controllen = sizeof control;
        ssize_t size = ::recvmsg(fd_, &message, MSG_CMSG_CLOEXEC);
        if (size < 0) return std::nullopt;
        buffer.resize(static_cast<size_t>(size));
        if (cmsghdr* header = CMSG_FIRSTHDR(&message); header && header->cmsg_type == SCM_RIGHTS) {
            int file = -1;
            memcpy(&file, CMSG_DATA(header), sizeof file);
            buffer = readFile("/proc/self/fd/" + std::to_string(file));
            ::close(file);
        }
        return buffer;
    }

    std::map<std::string, std::string> next() {
        auto raw = nextRaw();
        EXPECT_TRUE(raw.has_value()) << "no journal entry arrived";
        return parseJournalEntry(raw.value_or(""));
    }

private:
    TemporaryDirectory folder_{"oslog"};
    int fd_;
};

}  // namespace TestSupport
