// A child process started from an executable file, with a descriptor that
// becomes readable when the child ends.
//
// On Linux the descriptor is a pidfd: it refers to this child only, so a
// reaped child's recycled pid can never be confused with it, and watching it
// needs no SIGCHLD handler. The child is reaped through the descriptor, never
// through waitpid(-1).
#pragma once

#include <sys/types.h>

#include <optional>
#include <string>
#include <vector>

namespace Posix {

/// How a child ended.
struct ChildExit {
    /// unknown: the child was reaped by other code (waitpid(-1)); status is -1.
    enum class Reason { exit, uncaughtSignal, unknown };
    Reason reason = Reason::exit;
    /// The exit status, or the number of the signal that ended the child.
    int status = 0;
};

class ChildProcess {
public:
    /// What the child starts with. Descriptors given for the three standard
    /// streams are duplicated onto 0, 1 and 2 in the child; -1 leaves the
    /// parent's stream. Every other descriptor of the parent is expected to be
    /// close-on-exec. The child gets the parent's environment.
    struct Options {
        std::vector<std::string> arguments;  // after the executable's own name
        std::optional<std::string> currentDirectory;
        int standardInput = -1;
        int standardOutput = -1;
        int standardError = -1;
    };

    /// Starts path. On failure returns nothing with errno set to the reason
    /// (for example ENOENT, EACCES or ENOEXEC from the exec, ENOENT from the
    /// working directory); no child is left behind. Callable from any thread.
    static std::optional<ChildProcess> spawn(const std::string& path, const Options& options);

    ChildProcess(ChildProcess&& other) noexcept;
    ChildProcess& operator=(ChildProcess&& other) noexcept;
    ChildProcess(const ChildProcess&) = delete;
    ChildProcess& operator=(const ChildProcess&) = delete;
    /// Closes the descriptor. A child that was not reaped yet is reaped by a
    /// detached waiter thread, so destruction never blocks and leaves no zombie.
    ~ChildProcess();

    pid_t pid() const { return pid_; }
    /// Readable (poll/epoll) once the child has ended. Owned by this object.
    int exitDescriptor() const { return exitDescriptor_; }

    /// Collects the ended child's status without blocking. Nothing while the
    /// child runs and on every call after the one that collected it.
    std::optional<ChildExit> reap();

private:
    ChildProcess(pid_t pid, int exitDescriptor) : pid_(pid), exitDescriptor_(exitDescriptor) {}

    pid_t pid_ = -1;
    int exitDescriptor_ = -1;
    bool reaped_ = false;
};

}  // namespace Posix
