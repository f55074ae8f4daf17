#include "FileSystem/CreationTime.h"

#include <errno.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <sys/xattr.h>

#include <charconv>
#include <cstdio>
#include <string_view>

namespace FileSystem {

namespace {
constexpr const char* attributeName = "user.creation_time";
using Clock = std::chrono::system_clock;
}  // namespace

int setCreationTime(int fd, Clock::time_point time) {
    auto micros = std::chrono::duration_cast<std::chrono::microseconds>(time.time_since_epoch()).count();
    long long seconds = micros / 1000000;
    long long fraction = micros % 1000000;
    if (fraction < 0) {
        seconds -= 1;
        fraction += 1000000;
    }
    char text[48];
    int length = std::snprintf(text, sizeof text, "%lld.%06lld", seconds, fraction);
    return ::fsetxattr(fd, attributeName, text, static_cast<size_t>(length), 0);
}

std::optional<Clock::time_point> creationTime(int fd) {
    char text[48];
    ssize_t length = ::fgetxattr(fd, attributeName, text, sizeof text);
    if (length > 0) {
        std::string_view value(text, static_cast<size_t>(length));
        long long seconds = 0, fraction = 0;
        auto dot = value.find('.');
        auto whole = std::from_chars(value.data(), value.data() + std::min(dot, value.size()), seconds);
        bool valid = whole.ec == std::errc() && whole.ptr == value.data() + std::min(dot, value.size());
        if (valid && dot != std::string_view::npos) {
            auto part = std::from_chars(value.data() + dot + 1, value.data() + value.size(), fraction);
            valid = part.ec == std::errc() && part.ptr == value.data() + value.size();
        }
        if (valid) {
            return Clock::time_point(std::chrono::duration_cast<Clock::duration>(std::chrono::seconds(seconds) +
                                                                                 std::chrono::microseconds(fraction)));
        }
    }
    struct statx status {};
    if (::statx(fd, "", AT_EMPTY_PATH, STATX_BTIME, &status) == 0 && (status.stx_mask & STATX_BTIME) != 0) {
        return Clock::time_point(std::chrono::duration_cast<Clock::duration>(
            std::chrono::seconds(status.stx_btime.tv_sec) + std::chrono::nanoseconds(status.stx_btime.tv_nsec)));
    }
    return std::nullopt;
}

}  // namespace FileSystem
