#include "Tovik/Process.h"

#include <errno.h>
#include <unistd.h>

#include <chrono>
#include <string_view>

#include "Dispatch/DispatchQueue.h"
#include "Dispatch/DispatchSemaphore.h"
#include "Dispatch/DispatchSource.h"
#include "Foundation/UTF8.h"
#include "Posix/ChildProcess.h"
#include "Tovik/Logger/Logger.h"

namespace Tovik {

namespace {

constexpr std::string_view runLabel = "run(_:args:workdir:inpipe:outpipe:errpipe:wait:)";

// The runner's records go straight to the handlers, tagged "Process" (with
// the function for errors), as the tool runner has always written them.
void emit(LogLevel level, const std::string& message) {
    Logger& logger = Logger::shared();
    if (!logger.isEnabled(level)) return;
    std::string text;
    text.reserve(message.size() + runLabel.size() + 16);
    text += letter(level);
    text += ": (Process";
    if (level == LogLevel::error) {
        text += ": ";
        text += runLabel;
    }
    text += ") ";
    text += message;
    auto date = std::chrono::system_clock::now();
    for (const auto& handler : logger.handlers()) handler->log(level, date, text);
}

std::string joined(const std::optional<std::vector<std::string>>& args) {
    std::string text;
    if (!args) return text;
    for (size_t i = 0; i < args->size(); ++i) {
        if (i) text += ' ';
        text += (*args)[i];
    }
    return text;
}

// A child's output, cut into lines. Lives on the tool's output queue only.
class LineAssembler {
public:
    explicit LineAssembler(std::string toolName) : toolName_(std::move(toolName)) {}

    void append(const Foundation::FileHandle::Data& data) {
        std::string text = std::move(pending_);
        pending_.clear();
        text.append(data.begin(), data.end());
        size_t start = 0;
        while (true) {
            size_t end = text.find_first_of("\n\r", start);
            if (end == std::string::npos) break;
            logLine(std::string_view(text).substr(start, end - start));
            start = end + 1;
        }
        pending_.assign(text, start);
    }

    void flush() {
        logLine(pending_);
        pending_.clear();
    }

private:
    void logLine(std::string_view line) const {
        if (line.empty() || !Foundation::isValidUTF8(line)) return;
        emit(LogLevel::info, toolName_ + "> " + std::string(line));
    }

    const std::string toolName_;
    std::string pending_;
};

struct StreamEnds {
    int childFd = -1;
    std::shared_ptr<Foundation::FileHandle> parentCopy;  // closed after launch
};

// The descriptor the child gets for a stream, and the parent's copy of that
// end when it is a pipe's.
StreamEnds endsFor(const std::optional<ProcessStream>& stream, bool childReads) {
    StreamEnds ends;
    if (!stream) return ends;
    if (const auto* pipe = std::get_if<std::shared_ptr<Foundation::Pipe>>(&*stream)) {
        if (!*pipe) return ends;
        ends.parentCopy = childReads ? (*pipe)->fileHandleForReading() : (*pipe)->fileHandleForWriting();
        ends.childFd = ends.parentCopy->fileDescriptor();
    } else if (const auto& handle = std::get<std::shared_ptr<Foundation::FileHandle>>(*stream)) {
        ends.childFd = handle->fileDescriptor();
    }
    return ends;
}

}  // namespace

bool Process::launch(std::error_code& error) {
    {
        std::lock_guard guard(mutex_);
        if (launched_) {
            error = std::make_error_code(std::errc::connection_already_in_progress);
            return false;
        }
    }
    StreamEnds input = endsFor(standardInput_, true);
    StreamEnds output = endsFor(standardOutput_, false);
    StreamEnds errors = endsFor(standardError_, false);

    Posix::ChildProcess::Options options;
    if (arguments_) options.arguments = *arguments_;
    if (currentDirectory_) options.currentDirectory = currentDirectory_->string();
    options.standardInput = input.childFd;
    options.standardOutput = output.childFd;
    options.standardError = errors.childFd;

    auto child = Posix::ChildProcess::spawn(launchPath_, options);
    if (!child) {
        error = std::error_code(errno, std::generic_category());
        return false;
    }
    for (const auto* ends : {&input, &output, &errors}) {
        if (ends->parentCopy) ends->parentCopy->closeFile();
    }
    {
        std::lock_guard guard(mutex_);
        launched_ = true;
        running_ = true;
        pid_ = child->pid();
    }

    // The source holds this object and the child until the child has been
    // reaped; the child's descriptor closes when the handlers are released.
    auto watched = std::make_shared<Posix::ChildProcess>(std::move(*child));
    auto source =
        Dispatch::DispatchSource::makeReadSource(watched->exitDescriptor(), Dispatch::DispatchQueue::global());
    source.setEventHandler([self = shared_from_this(), watched, source]() {
        auto ended = watched->reap();
        if (!ended) return;
        source.cancel();
        self->childEnded(ended->status, ended->reason == Posix::ChildExit::Reason::uncaughtSignal
                                            ? TerminationReason::uncaughtSignal
                                            : TerminationReason::exit);
    });
    source.setCancelHandler([watched] {});
    source.activate();
    return true;
}

void Process::childEnded(int status, TerminationReason reason) {
    TerminationHandler handler = std::move(terminationHandler_);
    terminationHandler_ = nullptr;
    {
        std::lock_guard guard(mutex_);
        running_ = false;
        status_ = status;
        reason_ = reason;
    }
    exited_.notify_all();
    if (handler) handler(*this);
}

pid_t Process::processIdentifier() const {
    std::lock_guard guard(mutex_);
    return pid_;
}

bool Process::isRunning() const {
    std::lock_guard guard(mutex_);
    return running_;
}

std::optional<int> Process::terminationStatus() const {
    std::lock_guard guard(mutex_);
    return status_;
}

Process::TerminationReason Process::terminationReason() const {
    std::lock_guard guard(mutex_);
    return reason_;
}

void Process::waitUntilExit() const {
    std::unique_lock guard(mutex_);
    exited_.wait(guard, [this] { return !running_; });
}

std::shared_ptr<Process> Process::run(const std::string& path,
                                      const std::optional<std::vector<std::string>>& args,
                                      const std::optional<std::string>& workdir,
                                      const std::optional<ProcessStream>& inpipe,
                                      const std::optional<ProcessStream>& outpipe,
                                      const std::optional<ProcessStream>& errpipe, bool wait) {
    if (access(path.c_str(), X_OK) != 0) {
        emit(LogLevel::error, "File " + path + " can not be executed");
        return nullptr;
    }

    auto task = create();
    task->setLaunchPath(path);
    if (args) task->setArguments(*args);
    if (workdir) task->setCurrentDirectoryURL(*workdir);
    if (inpipe) task->setStandardInput(*inpipe);

    std::shared_ptr<Foundation::Pipe> pipe;
    if (!outpipe || !errpipe) {
        pipe = Foundation::Pipe::create();
        if (!pipe) {
            std::error_code error(errno, std::generic_category());
            emit(LogLevel::error, "Failed to run `" + path + " " + joined(args) + "`. " + error.message());
            return nullptr;
        }
    }
    task->setStandardError(errpipe ? *errpipe : ProcessStream(pipe));
    task->setStandardOutput(outpipe ? *outpipe : ProcessStream(pipe));

    if (pipe) {
        std::string toolName = std::filesystem::path(path).filename().string();
        Dispatch::DispatchQueue outputQueue(toolName + ".output", Dispatch::DispatchQoS::unspecified,
                                            Dispatch::DispatchQueue::Attributes::serial,
                                            Dispatch::DispatchQueue::AutoreleaseFrequency::workItem);
        auto assembler = std::make_shared<LineAssembler>(toolName);
        pipe->fileHandleForReading()->setReadabilityHandler(
            [outputQueue, assembler](Foundation::FileHandle& handle) {
                auto data = handle.availableData();
                if (!data.empty()) {
                    outputQueue.async([assembler, data = std::move(data)] { assembler->append(data); });
                    return;
                }
                outputQueue.async([assembler] { assembler->flush(); });
                handle.setReadabilityHandler(nullptr);
            });
    }

    std::optional<Dispatch::DispatchSemaphore> semaphore;
    if (wait) semaphore.emplace(0);

    task->setTerminationHandler([semaphore](Process& process) {
        if (Logger::shared().isEnabled(LogLevel::info)) {
            emit(LogLevel::info, process.launchPath() + " (pid: " + std::to_string(process.processIdentifier()) +
                                     ") returned " + std::to_string(process.terminationStatus().value_or(-1)));
        }
        if (semaphore) semaphore->signal();
    });

    std::string message = "Running " + path + " " + joined(args) + " ";
    if (workdir) message += " in " + *workdir;
    emit(LogLevel::info, message);

    std::error_code error;
    if (!task->launch(error)) {
        emit(LogLevel::error, "Failed to run `" + path + " " + joined(args) + "`. " + error.message());
        if (pipe) pipe->fileHandleForReading()->setReadabilityHandler(nullptr);
        return nullptr;
    }

    if (semaphore) semaphore->wait();
    return task;
}

}  // namespace Tovik
