// A child process: launch path, arguments, working directory, three standard
// streams, termination status and a termination handler; and the runner that
// logs a tool's output line by line.
//
// A launched Process keeps itself alive until its child has ended and been
// reaped, so dropping the object right after launch() never leaves a zombie.
// Termination is observed through a descriptor watched by a dispatch source,
// not through SIGCHLD.
#pragma once

#include <sys/types.h>

#include <condition_variable>
#include <filesystem>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <system_error>
#include <variant>
#include <vector>

#include "Foundation/FileHandle.h"
#include "Foundation/Pipe.h"

namespace Tovik {

/// A standard stream of a child: a pipe, of which the child gets the end that
/// fits the stream (and the parent's copy of that end is closed at launch), or
/// a file handle, which the child shares.
using ProcessStream = std::variant<std::shared_ptr<Foundation::Pipe>, std::shared_ptr<Foundation::FileHandle>>;

class Process : public std::enable_shared_from_this<Process> {
public:
    enum class TerminationReason { exit, uncaughtSignal };
    /// Runs once on a global dispatch queue after the child ended, with its
    /// status already readable; released after it ran.
    using TerminationHandler = std::function<void(Process&)>;

    /// Starts tool at path and logs through Logger::shared(), with the tag
    /// "Process": "Running <path> <args> " (then "in <workdir>" when given)
    /// before the launch, "<path> (pid: <pid>) returned <status>" when the
    /// child ends, and each non-empty UTF-8 line the child writes to a stream
    /// left absent as "<tool name>> <line>" (lines end at CR or LF; the
    /// output is assembled on the serial queue "<tool name>.output" and keeps
    /// being logged after the call returned, until end of file).
    /// args absent: no arguments; workdir absent: the caller's folder; a
    /// stream absent: standard input stays the caller's, standard output and
    /// error go to the log. With wait, returns once the termination message
    /// was logged.
    /// Returns nothing after logging an error when path is not an executable
    /// file ("File <path> can not be executed", no child is created) or the
    /// launch fails ("Failed to run `<path> <args>`. <error>").
    /// Callable from any thread.
    static std::shared_ptr<Process> run(const std::string& path,
                                        const std::optional<std::vector<std::string>>& args,
                                        const std::optional<std::string>& workdir,
                                        const std::optional<ProcessStream>& inpipe,
                                        const std::optional<ProcessStream>& outpipe,
                                        const std::optional<ProcessStream>& errpipe, bool wait);

    static std::shared_ptr<Process> create() { return std::shared_ptr<Process>(new Process()); }

    /// Configuration; set before launch() from one thread.
    void setLaunchPath(std::string path) { launchPath_ = std::move(path); }
    const std::string& launchPath() const { return launchPath_; }
    void setArguments(std::vector<std::string> arguments) { arguments_ = std::move(arguments); }
    const std::optional<std::vector<std::string>>& arguments() const { return arguments_; }
    void setCurrentDirectoryURL(std::filesystem::path folder) { currentDirectory_ = std::move(folder); }
    const std::optional<std::filesystem::path>& currentDirectoryURL() const { return currentDirectory_; }
    void setStandardInput(ProcessStream stream) { standardInput_ = std::move(stream); }
    void setStandardOutput(ProcessStream stream) { standardOutput_ = std::move(stream); }
    void setStandardError(ProcessStream stream) { standardError_ = std::move(stream); }
    void setTerminationHandler(TerminationHandler handler) { terminationHandler_ = std::move(handler); }

    /// Starts the child. False with error set (the errno of the spawn, or
    /// EALREADY on a second launch); nothing is left running then.
    [[nodiscard]] bool launch(std::error_code& error);

    /// The child's pid once launched, else 0.
    pid_t processIdentifier() const;
    /// True from a successful launch until the child has been reaped.
    bool isRunning() const;
    /// The exit status, or the signal number for reason uncaughtSignal; nothing
    /// until the child has been reaped.
    std::optional<int> terminationStatus() const;
    TerminationReason terminationReason() const;
    /// Blocks until the child has been reaped (at once if never launched).
    void waitUntilExit() const;

private:
    Process() = default;
    void childEnded(int status, TerminationReason reason);

    std::string launchPath_;
    std::optional<std::vector<std::string>> arguments_;
    std::optional<std::filesystem::path> currentDirectory_;
    std::optional<ProcessStream> standardInput_;
    std::optional<ProcessStream> standardOutput_;
    std::optional<ProcessStream> standardError_;
    TerminationHandler terminationHandler_;  // moved out when it runs

    mutable std::mutex mutex_;
    mutable std::condition_variable exited_;
    bool launched_ = false;   // guarded by mutex_
    bool running_ = false;    // guarded by mutex_
    pid_t pid_ = 0;           // guarded by mutex_
    std::optional<int> status_;  // guarded by mutex_
    TerminationReason reason_ = TerminationReason::exit;  // guarded by mutex_
};

}  // namespace Tovik
