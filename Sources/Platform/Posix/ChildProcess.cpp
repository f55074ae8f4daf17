#include "Posix/ChildProcess.h"

#include <errno.h>
#include <fcntl.h>
#include <signal.h>
#include <spawn.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <thread>
#include <utility>

#ifndef P_PIDFD
#define P_PIDFD 3
#endif

extern char** environ;

namespace Posix {

namespace {

class FileActions {
public:
    FileActions() { ok_ = posix_spawn_file_actions_init(&actions_) == 0; }
    ~FileActions() {
        if (ok_) posix_spawn_file_actions_destroy(&actions_);
    }
    FileActions(const FileActions&) = delete;
    FileActions& operator=(const FileActions&) = delete;

    bool ok() const { return ok_; }
    posix_spawn_file_actions_t* get() { return &actions_; }

private:
    posix_spawn_file_actions_t actions_;
    bool ok_ = false;
};

// Descriptors that the child receives as 0, 1 and 2. Each is first copied to
// a number above 2, so a dup2 in the child never maps a descriptor onto
// itself (which would keep its close-on-exec flag).
class StreamCopies {
public:
    ~StreamCopies() {
        for (int fd : fds_)
            if (fd >= 0) close(fd);
    }
    bool add(size_t target, int fd) {
        if (fd < 0) return true;
        fds_[target] = fcntl(fd, F_DUPFD_CLOEXEC, 3);
        return fds_[target] >= 0;
    }
    int operator[](size_t target) const { return fds_[target]; }

private:
    std::array<int, 3> fds_{-1, -1, -1};
};

int pidfdOpen(pid_t pid) { return static_cast<int>(syscall(SYS_pidfd_open, pid, 0)); }

}  // namespace

std::optional<ChildProcess> ChildProcess::spawn(const std::string& path, const Options& options) {
    StreamCopies streams;
    if (!streams.add(0, options.standardInput) || !streams.add(1, options.standardOutput) ||
        !streams.add(2, options.standardError))
        return std::nullopt;

    FileActions actions;
    if (!actions.ok()) {
        errno = ENOMEM;
        return std::nullopt;
    }
    for (int target = 0; target < 3; ++target) {
        if (streams[target] < 0) continue;
        if (int rc = posix_spawn_file_actions_adddup2(actions.get(), streams[target], target); rc != 0) {
            errno = rc;
            return std::nullopt;
        }
    }
    if (options.currentDirectory) {
        if (int rc = posix_spawn_file_actions_addchdir_np(actions.get(), options.currentDirectory->c_str());
            rc != 0) {
            errno = rc;
            return std::nullopt;
        }
    }

    std::vector<char*> argv;
    argv.reserve(options.arguments.size() + 2);
    argv.push_back(const_cast<char*>(path.c_str()));
    for (const auto& argument : options.arguments) argv.push_back(const_cast<char*>(argument.c_str()));
    argv.push_back(nullptr);

    pid_t pid = -1;
    // glibc reports failures of the file actions and of the exec itself here.
    if (int rc = posix_spawn(&pid, path.c_str(), actions.get(), nullptr, argv.data(), environ); rc != 0) {
        errno = rc;
        return std::nullopt;
    }

    int exitDescriptor = pidfdOpen(pid);
    if (exitDescriptor < 0) {
        int error = errno;
        kill(pid, SIGKILL);
        while (waitpid(pid, nullptr, 0) < 0 && errno == EINTR) {
        }
        errno = error;
        return std::nullopt;
    }
    return ChildProcess(pid, exitDescriptor);
}

ChildProcess::ChildProcess(ChildProcess&& other) noexcept
    : pid_(std::exchange(other.pid_, -1)),
      exitDescriptor_(std::exchange(other.exitDescriptor_, -1)),
      reaped_(std::exchange(other.reaped_, true)) {}

ChildProcess& ChildProcess::operator=(ChildProcess&& other) noexcept {
    if (this != &other) {
        ChildProcess old(std::move(*this));
        pid_ = std::exchange(other.pid_, -1);
        exitDescriptor_ = std::exchange(other.exitDescriptor_, -1);
        reaped_ = std::exchange(other.reaped_, true);
    }
    return *this;
}

ChildProcess::~ChildProcess() {
    if (exitDescriptor_ < 0) return;
    if (reaped_ || reap()) {
        close(exitDescriptor_);
        return;
    }
    // Still running: hand the descriptor to a waiter that reaps the child
    // whenever it ends.
    int fd = exitDescriptor_;
    std::thread([fd] {
        siginfo_t info{};
        while (waitid(static_cast<idtype_t>(P_PIDFD), static_cast<id_t>(fd), &info, WEXITED) < 0 &&
               errno == EINTR) {
        }
        close(fd);
    }).detach();
}

std::optional<ChildExit> ChildProcess::reap() {
    if (reaped_ || exitDescriptor_ < 0) return std::nullopt;
    siginfo_t info{};
    int rc;
    do {
        rc = waitid(static_cast<idtype_t>(P_PIDFD), static_cast<id_t>(exitDescriptor_), &info,
                    WEXITED | WNOHANG);
    } while (rc < 0 && errno == EINTR);
    if (rc < 0) {
        if (errno != ECHILD) return std::nullopt;
        // Somebody else reaped it; the child is gone either way.
        reaped_ = true;
        return ChildExit{ChildExit::Reason::unknown, -1};
    }
    if (info.si_pid == 0) return std::nullopt;  // still running
    reaped_ = true;
    ChildExit result;
    if (info.si_code == CLD_EXITED) {
        result.reason = ChildExit::Reason::exit;
    } else {
        result.reason = ChildExit::Reason::uncaughtSignal;
    }
    result.status = info.si_status;
    return result;
}

}  // namespace Posix
