// A stand-in journal for tests: a datagram socket bound in a temporary folder
// that OSLog is pointed at, and a reader of the journal's native protocol.
#pragma once

#include <gtest/gtest.h>
#include <poll.h>
#include <string.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <chrono>
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
    size_t position = 0;
    while (position < data.size()) {
        size_t end = data.find('\n', position);
        if (end == std::string::npos) break;
        std::string line = data.substr(position, end - position);
        if (size_t equals = line.find('='); equals != std::string::npos) {
            fields[line.substr(0, equals)] = line.substr(equals + 1);
            position = end + 1;
            continue;
        }
        if (end + 9 > data.size()) break;
        uint64_t size = 0;
        for (int byte = 0; byte < 8; ++byte) {
            size |= uint64_t(static_cast<unsigned char>(data[end + 1 + byte])) << (8 * byte);
        }
        fields[line] = data.substr(end + 9, size);
        position = end + 9 + size + 1;
    }
    return fields;
}

/// Binds "journal.socket" in a temporary folder and points OSLog at it for
/// its lifetime.
class JournalCapture {
public:
    JournalCapture() : fd_(::socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0)) {
        std::string path = (folder_ / "journal.socket").string();
        sockaddr_un address{};
        address.sun_family = AF_UNIX;
        strncpy(address.sun_path, path.c_str(), sizeof(address.sun_path) - 1);
        EXPECT_EQ(::bind(fd_, reinterpret_cast<sockaddr*>(&address), sizeof address), 0) << strerror(errno);
        OSLog::OSLog::setJournalSocketPath(path);
    }
    ~JournalCapture() {
        OSLog::OSLog::setJournalSocketPath("/run/systemd/journal/socket");
        ::close(fd_);
    }
    JournalCapture(const JournalCapture&) = delete;
    JournalCapture& operator=(const JournalCapture&) = delete;

    /// The next entry's raw bytes (read from a passed memory file when the
    /// datagram carries one), or nothing within the deadline.
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
            buffer.clear();
            char chunk[65536];
            ssize_t got;
            while ((got = ::pread(file, chunk, sizeof chunk, static_cast<off_t>(buffer.size()))) > 0) {
                buffer.append(chunk, static_cast<size_t>(got));
            }
            ::close(file);
            passedFile_ = true;
        }
        return buffer;
    }

    std::map<std::string, std::string> next() {
        auto raw = nextRaw();
        EXPECT_TRUE(raw.has_value()) << "no journal entry arrived";
        return raw ? parseJournalEntry(*raw) : std::map<std::string, std::string>{};
    }

    /// True once an entry came as a memory file.
    bool passedFile() const { return passedFile_; }

private:
    TemporaryDirectory folder_{"oslog"};
    int fd_;
    bool passedFile_ = false;
};

}  // namespace TestSupport
