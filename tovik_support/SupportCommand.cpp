#include "tovik_support/SupportCommand.h"

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <charconv>
#include <ctime>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <ostream>
#include <thread>

#include "Kernel/FileDescriptor.h"
#include "Tovik/Logger/FileLogManager.h"
#include "Tovik/Logger/LogManager.h"
#include "Tovik/Logger/Logger.h"

namespace TovikSupport {

namespace fs = std::filesystem;
using Tovik::LogManager;
using Tovik::LogManagerProtocol;
using Tovik::LogSubsystemSelector;

namespace {

constexpr const char* kProgram = "tovik-support";

// ---- Command line --------------------------------------------------------

enum class Option { log, since, until, purpose, subsystem, maxSize, add, reveal, verbose, output };

struct OptionSpec {
    Option option;
    bool takesValue;
    bool repeatable;
};

const std::map<std::string, OptionSpec>& optionsOf(const std::string& command) {
    static const std::map<std::string, OptionSpec> archive{
        {"--log", {Option::log, true, true}},          {"--since", {Option::since, true, false}},
        {"--purpose", {Option::purpose, true, false}}, {"--subsystem", {Option::subsystem, true, true}},
        {"--max-size", {Option::maxSize, true, false}}, {"--add", {Option::add, true, true}},
        {"--reveal", {Option::reveal, false, false}},  {"--verbose", {Option::verbose, false, false}},
        {"-o", {Option::output, true, false}},         {"--output", {Option::output, true, false}},
    };
    static const std::map<std::string, OptionSpec> extract{
        {"--log", {Option::log, true, true}},           {"--since", {Option::since, true, false}},
        {"--until", {Option::until, true, false}},      {"--subsystem", {Option::subsystem, true, true}},
        {"--max-size", {Option::maxSize, true, false}}, {"--verbose", {Option::verbose, false, false}},
        {"-o", {Option::output, true, false}},          {"--output", {Option::output, true, false}},
    };
    return command == "archive" ? archive : extract;
}

std::optional<int64_t> parseSize(std::string_view text) {
    int64_t value = 0;
    const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), value);
    if (error != std::errc() || end != text.data() + text.size() || value <= 0) return std::nullopt;
    return value;
}

struct ParseFailure {
    std::string message;
};

// Options common to both commands, gathered before the request is built.
struct Parsed {
    std::vector<fs::path> logs, add;
    std::vector<std::string> subsystems;
    std::optional<Tovik::Date> since, until;
    std::optional<Tovik::SupportLogsPurpose> purpose;
    std::optional<int64_t> maxSize;
    std::optional<fs::path> output;
    bool reveal = false, verbose = false, help = false;
};

Parsed parseOptions(const std::string& command, const std::vector<std::string>& arguments) {
    const auto& options = optionsOf(command);
    Parsed parsed;
    std::map<Option, bool> seen;
    for (size_t i = 1; i < arguments.size(); ++i) {
        std::string name = arguments[i];
        std::optional<std::string> value;
        if (name == "--help" || name == "-h") {
            parsed.help = true;
            return parsed;
        }
        if (const auto equals = name.find('='); name.starts_with("--") && equals != std::string::npos) {
            value = name.substr(equals + 1);
            name.resize(equals);
        }
        if (!name.starts_with("-") || name == "-") throw ParseFailure{"unexpected argument '" + name + "'"};
        const auto found = options.find(name);
        if (found == options.end()) throw ParseFailure{"unknown option '" + name + "' for " + command};
        const OptionSpec rule = found->second;
        if (!rule.takesValue && value) throw ParseFailure{"option '" + name + "' takes no value"};
        if (rule.takesValue && !value) {
            // A following option means the value was forgotten; "--log=-x" names a file "-x".
            if (i + 1 < arguments.size() && !arguments[i + 1].starts_with("-")) value = arguments[++i];
        }
        if (rule.takesValue && (!value || value->empty())) throw ParseFailure{"option '" + name + "' needs a value"};
        if (!rule.repeatable && std::exchange(seen[rule.option], true)) {
            throw ParseFailure{"option '" + name + "' given twice"};
        }
        const auto date = [&] {
            auto parsedDate = SupportCommand::parseDate(*value);
            if (!parsedDate) {
                throw ParseFailure{"invalid date '" + *value + "' for " + name +
                                   " (YYYY-MM-DD, YYYY-MM-DD HH:MM[:SS] or YYYY-MM-DDTHH:MM[:SS])"};
            }
            return parsedDate;
        };
        switch (rule.option) {
            case Option::log: parsed.logs.emplace_back(*value); break;
            case Option::add: parsed.add.emplace_back(*value); break;
            case Option::subsystem: parsed.subsystems.push_back(*value); break;
            case Option::since: parsed.since = date(); break;
            case Option::until: parsed.until = date(); break;
            case Option::purpose:
                if (*value == "general") parsed.purpose = Tovik::SupportLogsPurpose::general;
                else if (*value == "connection") parsed.purpose = Tovik::SupportLogsPurpose::connection;
                else throw ParseFailure{"invalid purpose '" + *value + "' (connection or general)"};
                break;
            case Option::maxSize:
                parsed.maxSize = parseSize(*value);
                if (!parsed.maxSize) throw ParseFailure{"invalid size '" + *value + "' (a positive number of bytes)"};
                break;
            case Option::output: parsed.output = *value; break;
            case Option::reveal: parsed.reveal = true; break;
            case Option::verbose: parsed.verbose = true; break;
        }
    }
    if (parsed.logs.empty()) throw ParseFailure{command + " needs at least one --log"};
    if (!parsed.output) throw ParseFailure{command + " needs -o"};
    if (parsed.since && parsed.purpose) throw ParseFailure{"--since and --purpose exclude each other"};
    if (parsed.since && parsed.until && *parsed.since > *parsed.until) {
        throw ParseFailure{"--since is later than --until"};
    }
    std::map<fs::path, bool> names;
    for (const auto& file : parsed.add) {
        if (file.filename().empty()) throw ParseFailure{"--add needs a file, not '" + file.string() + "'"};
        if (std::exchange(names[file.filename()], true)) {
            throw ParseFailure{"two --add files are named '" + file.filename().string() + "'"};
        }
    }
    return parsed;
}

// ---- Running -------------------------------------------------------------

// A non-blocking pipe that wakes the waiting thread; any thread may notify.
class WakePipe {
public:
    WakePipe() {
        int ends[2] = {-1, -1};
        if (::pipe2(ends, O_CLOEXEC | O_NONBLOCK) == 0) {
            readEnd_.reset(ends[0]);
            writeEnd_.reset(ends[1]);
        }
    }
    int fd() const { return readEnd_.get(); }
    void notify() const { (void)!::write(writeEnd_.get(), "w", 1); }  // a full pipe already wakes
    void drain() const {
        char buffer[64];
        while (::read(readEnd_.get(), buffer, sizeof buffer) > 0) {
        }
    }
    int writeFd() const { return writeEnd_.get(); }

private:
    Kernel::FileDescriptor readEnd_, writeEnd_;
};

std::atomic<int> interruptFd{-1};
static_assert(std::atomic<int>::is_always_lock_free);

extern "C" void onInterrupt(int) {
    const int saved = errno;
    if (const int fd = interruptFd.load(); fd >= 0) (void)!::write(fd, "i", 1);
    errno = saved;
}

// Turns SIGINT into a byte on a pipe while it lives; restores the previous action.
class InterruptWatch {
public:
    InterruptWatch() {
        interruptFd.store(pipe_.writeFd());
        struct sigaction action {};
        action.sa_handler = onInterrupt;
        action.sa_flags = SA_RESTART;
        sigemptyset(&action.sa_mask);
        ::sigaction(SIGINT, &action, &previous_);
    }
    ~InterruptWatch() {
        ::sigaction(SIGINT, &previous_, nullptr);
        interruptFd.store(-1);
    }
    InterruptWatch(const InterruptWatch&) = delete;
    InterruptWatch& operator=(const InterruptWatch&) = delete;
    const WakePipe& pipe() const { return pipe_; }

private:
    WakePipe pipe_;
    struct sigaction previous_ {};
};

// Waits until done() holds; onWake runs after each wake-up, onInterrupt on
// the first Ctrl-C.
void waitLoop(const WakePipe& wake, const InterruptWatch& interrupt, const std::function<bool()>& done,
              const std::function<void()>& onWake, const std::function<void()>& onInterrupt) {
    bool interrupted = false;
    while (!done()) {
        pollfd fds[2] = {{interrupt.pipe().fd(), POLLIN, 0}, {wake.fd(), POLLIN, 0}};
        if (::poll(fds, 2, -1) < 0) continue;  // EINTR
        if (fds[0].revents != 0) {
            interrupt.pipe().drain();
            if (!std::exchange(interrupted, true)) onInterrupt();
        }
        if (fds[1].revents != 0) {
            wake.drain();
            if (onWake) onWake();
        }
    }
}

void drawBar(std::ostream& err, const Foundation::Progress& progress) {
    constexpr int width = 30;
    const int filled = static_cast<int>(progress.fractionCompleted() * width + 0.5);
    err << "\r[" << std::string(static_cast<size_t>(std::clamp(filled, 0, width)), '#')
        << std::string(static_cast<size_t>(width - std::clamp(filled, 0, width)), '-') << "] "
        << progress.completedUnitCount() << "/" << progress.totalUnitCount() << std::flush;
}

void clearBar(std::ostream& err) { err << "\r" << std::string(50, ' ') << "\r" << std::flush; }

// Puts the previous process-wide log manager back when it goes away.
class ScopedSharedLogManager {
public:
    explicit ScopedSharedLogManager(std::shared_ptr<LogManagerProtocol> manager)
        : previous_(LogManager::shared()) {
        LogManager::setShared(std::move(manager));
    }
    ~ScopedSharedLogManager() { LogManager::setShared(previous_); }
    ScopedSharedLogManager(const ScopedSharedLogManager&) = delete;
    ScopedSharedLogManager& operator=(const ScopedSharedLogManager&) = delete;

private:
    std::shared_ptr<LogManagerProtocol> previous_;
};

std::optional<fs::path> firstMissing(const std::vector<fs::path>& logs) {
    for (const auto& log : logs) {
        std::error_code error;
        if (!fs::is_regular_file(log, error)) return log;
    }
    return std::nullopt;
}

}  // namespace

/// Saves with the subsystems and budget of the command line, whatever the
/// caller asks for: createArchive always asks for `whole` with the purpose's
/// budget. `single` keeps one file per log, named like the log, so two logs
/// that carry the same subsystem never write the same file.
class NarrowedLogManager : public LogManagerProtocol {
public:
    NarrowedLogManager(std::shared_ptr<LogManagerProtocol> manager, std::vector<std::string> subsystems,
                       std::optional<int64_t> maxSize)
        : manager_(std::move(manager)), subsystems_(std::move(subsystems)), maxSize_(maxSize) {}

    std::vector<std::string> saveLogs(const LogSubsystemSelector& selecting, const std::string& inFolder,
                                      const Tovik::LogSavingOpts& opts) override {
        Tovik::LogSavingOpts narrowed = opts;
        if (maxSize_) narrowed.maxSize = maxSize_;
        return manager_->saveLogs(subsystems_.empty() ? selecting : LogSubsystemSelector::single(subsystems_),
                                  inFolder, narrowed);
    }
    void resetLog() override { manager_->resetLog(); }

private:
    std::shared_ptr<LogManagerProtocol> manager_;
    std::vector<std::string> subsystems_;
    std::optional<int64_t> maxSize_;
};

namespace {

// One FileLogManager per log; narrowed when subsystems or a budget are given.
LogManager::Handlers fileLogManagers(const std::vector<fs::path>& logs, const std::vector<std::string>& subsystems,
                                     std::optional<int64_t> maxSize) {
    LogManager::Handlers handlers;
    for (const auto& log : logs) {
        auto manager = std::make_shared<Tovik::FileLogManager>(log.string());
        if (subsystems.empty() && !maxSize) handlers.push_back(std::move(manager));
        else handlers.push_back(std::make_shared<NarrowedLogManager>(std::move(manager), subsystems, maxSize));
    }
    return handlers;
}

int runArchive(const ArchiveRequest& request, std::ostream& out, std::ostream& err, bool progressBar) {
    if (auto missing = firstMissing(request.logs)) {
        err << kProgram << ": no log file at " << missing->string() << "\n";
        return SupportCommand::exitFailure;
    }
    ScopedSharedLogManager shared(
        std::make_shared<LogManager>(fileLogManagers(request.logs, request.subsystems, request.maxSize)));
    Tovik::SupportUtils::Items items;
    for (const auto& file : request.add) items.emplace(file.filename().string(), file);

    // The callbacks keep what they touch alive; the result is set and
    // announced under one lock, so it is only seen once announced.
    struct Outcome {
        WakePipe wake;
        std::mutex mutex;
        bool done = false;  // guarded by mutex
        std::optional<Tovik::SupportLogArchivingError> error;  // guarded by mutex
    };
    auto outcome = std::make_shared<Outcome>();
    InterruptWatch interrupt;
    auto progress = Tovik::SupportUtils::createArchive(
        request.output, std::move(items), request.purpose, request.since, request.reveal,
        [outcome](std::optional<Tovik::SupportLogArchivingError> error) {
            std::lock_guard guard(outcome->mutex);
            outcome->error = std::move(error);
            outcome->done = true;
            outcome->wake.notify();
        });
    if (progressBar) {
        progress->setObserver([outcome](const Foundation::Progress&) { outcome->wake.notify(); });
        drawBar(err, *progress);
    }
    waitLoop(
        outcome->wake, interrupt,
        [&] {
            std::lock_guard guard(outcome->mutex);
            return outcome->done;
        },
        [&] {
            if (progressBar) drawBar(err, *progress);
        },
        [&] {
            progress->cancel();
            if (progressBar) clearBar(err);
            err << kProgram << ": cancelling once the step in progress ends\n";
        });
    progress->setObserver(nullptr);
    if (progressBar) clearBar(err);

    std::lock_guard guard(outcome->mutex);
    if (!outcome->error) {
        out << request.output.string() << "\n";
        return SupportCommand::exitSuccess;
    }
    if (outcome->error->kind() == Tovik::SupportLogArchivingError::Kind::cancelled) {
        err << kProgram << ": cancelled; nothing was written\n";
        return SupportCommand::exitInterrupted;
    }
    err << kProgram << ": the archive was not made: " << outcome->error->what() << "\n";
    return SupportCommand::exitFailure;
}

int runExtract(const ExtractRequest& request, std::ostream& out, std::ostream& err) {
    if (auto missing = firstMissing(request.logs)) {
        err << kProgram << ": no log file at " << missing->string() << "\n";
        return SupportCommand::exitFailure;
    }
    std::error_code error;
    const bool existed = fs::exists(request.output, error);
    fs::create_directories(request.output, error);
    if (error) {
        err << kProgram << ": cannot create " << request.output.string() << ": " << error.message() << "\n";
        return SupportCommand::exitFailure;
    }
    auto manager = std::make_shared<LogManager>(fileLogManagers(request.logs, {}, std::nullopt));
    const auto selector =
        request.subsystems.empty() ? LogSubsystemSelector::whole() : LogSubsystemSelector::single(request.subsystems);
    const auto opts = Tovik::LogSavingOpts::init(request.since, request.until, request.maxSize);

    struct Outcome {
        WakePipe wake;
        std::mutex mutex;
        std::optional<std::vector<std::string>> paths;  // guarded by mutex
    };
    auto outcome = std::make_shared<Outcome>();
    InterruptWatch interrupt;
    // LogManager::saveLogs cannot be cancelled: Ctrl-C waits for it and then
    // removes what it wrote.
    std::thread worker([manager, selector, opts, outcome, folder = request.output.string()] {
        auto paths = manager->saveLogs(selector, folder, opts);
        std::lock_guard guard(outcome->mutex);
        outcome->paths = std::move(paths);
        outcome->wake.notify();
    });
    bool interrupted = false;
    waitLoop(
        outcome->wake, interrupt,
        [&] {
            std::lock_guard guard(outcome->mutex);
            return outcome->paths.has_value();
        },
        nullptr,
        [&] {
            interrupted = true;
            err << kProgram << ": stopping once the save in progress ends\n";
        });
    worker.join();

    const auto& paths = *outcome->paths;
    if (interrupted) {
        for (const auto& path : paths) fs::remove(path, error);
        if (!existed) fs::remove_all(request.output, error);
        err << kProgram << ": interrupted; nothing was kept\n";
        return SupportCommand::exitInterrupted;
    }
    if (paths.empty()) {
        err << kProgram << ": no logs were saved\n";
        return SupportCommand::exitFailure;
    }
    for (const auto& path : paths) out << path << "\n";
    return SupportCommand::exitSuccess;
}

}  // namespace

std::variant<Request, UsageError> SupportCommand::parse(const std::vector<std::string>& arguments) {
    if (arguments.empty()) return UsageError{"missing command (archive or extract); see --help"};
    const std::string& command = arguments[0];
    if (command == "--help" || command == "-h" || command == "help") return HelpRequest{};
    if (command != "archive" && command != "extract") {
        return UsageError{"unknown command '" + command + "' (archive or extract); see --help"};
    }
    try {
        Parsed parsed = parseOptions(command, arguments);
        if (parsed.help) return HelpRequest{};
        if (command == "archive") {
            return ArchiveRequest{parsed.logs,
                                  parsed.since,
                                  parsed.purpose.value_or(Tovik::SupportLogsPurpose::general),
                                  parsed.subsystems,
                                  parsed.maxSize,
                                  parsed.add,
                                  parsed.reveal,
                                  parsed.verbose,
                                  *parsed.output};
        }
        return ExtractRequest{parsed.logs,    parsed.since,   parsed.until,  parsed.subsystems,
                              parsed.maxSize, parsed.verbose, *parsed.output};
    } catch (const ParseFailure& failure) {
        return UsageError{failure.message};
    }
}

std::optional<Tovik::Date> SupportCommand::parseDate(std::string_view text) {
    // Fields at fixed places: YYYY-MM-DD, then [ T]HH:MM, then :SS.
    if (text.size() != 10 && text.size() != 16 && text.size() != 19) return std::nullopt;
    const auto number = [&](size_t at, size_t length) -> std::optional<int> {
        int value = 0;
        const char* begin = text.data() + at;
        const auto [end, error] = std::from_chars(begin, begin + length, value);
        if (error != std::errc() || end != begin + length || *begin == '-' || *begin == '+') return std::nullopt;
        return value;
    };
    const auto at = [&](size_t index, char expected) { return text[index] == expected; };
    if (!at(4, '-') || !at(7, '-')) return std::nullopt;
    if (text.size() >= 16 && (!(at(10, ' ') || at(10, 'T')) || !at(13, ':'))) return std::nullopt;
    if (text.size() == 19 && !at(16, ':')) return std::nullopt;
    const auto year = number(0, 4), month = number(5, 2), day = number(8, 2);
    const auto hour = text.size() >= 16 ? number(11, 2) : 0, minute = text.size() >= 16 ? number(14, 2) : 0;
    const auto second = text.size() == 19 ? number(17, 2) : 0;
    if (!year || !month || !day || !hour || !minute || !second || *second > 59) return std::nullopt;

    std::tm fields{};
    fields.tm_year = *year - 1900;
    fields.tm_mon = *month - 1;
    fields.tm_mday = *day;
    fields.tm_hour = *hour;
    fields.tm_min = *minute;
    fields.tm_sec = *second;
    fields.tm_isdst = -1;
    std::tm normalized = fields;
    const std::time_t time = std::mktime(&normalized);
    // mktime moves fields that are out of range (or in a skipped hour); such a date does not exist.
    if (time == static_cast<std::time_t>(-1) || normalized.tm_year != fields.tm_year ||
        normalized.tm_mon != fields.tm_mon || normalized.tm_mday != fields.tm_mday ||
        normalized.tm_hour != fields.tm_hour || normalized.tm_min != fields.tm_min) {
        return std::nullopt;
    }
    return std::chrono::system_clock::from_time_t(time);
}

std::string SupportCommand::usage() {
    return R"(Usage:
  tovik-support archive --log PATH... [--since DATE | --purpose connection|general]
                        [--subsystem NAME...] [--max-size BYTES] [--add FILE...] [--reveal] -o OUT.zip
  tovik-support extract --log PATH... [--since DATE] [--until DATE] [--subsystem NAME...]
                        [--max-size BYTES] -o FOLDER
  tovik-support --help

archive: saves the records of a recent period from every log, adds the given
files, and writes one zip archive holding a folder named like OUT.
extract: saves the logs, or the records of a period, as files in FOLDER
(created when missing) and prints their paths.

Options:
  --log PATH         a log file written by the product (its rotated generation
                     PATH-without-extension.1.ext is read too); repeat for
                     several logs; at least one
  --since DATE       the first records to save; archive: replaces the purpose's
                     period and keeps the general budget
  --until DATE       (extract) the last records to save
  --purpose P        (archive) general: the last 48 hours, each file cut to
                     30 MiB (the default); connection: the last 24 hours, uncut
  --subsystem NAME   only the records of this subsystem; repeat for several;
                     each log still gives one file, named like the log
  --max-size BYTES   each saved file keeps its newest BYTES bytes, starting at
                     a whole record (archive: replaces the purpose's budget;
                     extract: without dates, the whole log is cut to it)
  --add FILE         (archive) a file or folder to include under its own name;
                     repeat for several
  --reveal           (archive) show the archive in the file manager
  -o, --output PATH  the archive (archive) or the folder (extract)
  --verbose          log progress details on standard error
  -h, --help         this text

DATE is local time: YYYY-MM-DD, YYYY-MM-DD HH:MM[:SS] or YYYY-MM-DDTHH:MM[:SS].
An option's value may also follow "=" (--log=PATH).

On a terminal a progress bar is drawn on standard error. Ctrl-C stops the
work at its next step and removes what it wrote.

Exit status: 0 done (a log that cannot be saved is reported on standard error
and left out), 1 failed, 2 bad arguments, 130 interrupted.
)";
}

int SupportCommand::run(const Request& request, std::ostream& out, std::ostream& err, bool progressBar) {
    if (const auto* archive = std::get_if<ArchiveRequest>(&request)) return runArchive(*archive, out, err, progressBar);
    if (const auto* extract = std::get_if<ExtractRequest>(&request)) return runExtract(*extract, out, err);
    out << usage();
    return exitSuccess;
}

int SupportCommand::main(const std::vector<std::string>& arguments, std::ostream& out, std::ostream& err,
                         bool progressBar) {
    auto parsed = parse(arguments);
    if (const auto* error = std::get_if<UsageError>(&parsed)) {
        err << kProgram << ": " << error->message << "\n";
        return exitUsage;
    }
    const Request& request = std::get<Request>(parsed);
    const bool verbose = std::visit(
        [](const auto& r) {
            if constexpr (std::is_same_v<std::decay_t<decltype(r)>, HelpRequest>) return false;
            else return r.verbose;
        },
        request);
    Tovik::Logger::shared().setLogLevel(verbose ? Tovik::LogLevel::debug : Tovik::LogLevel::warning);
    return run(request, out, err, progressBar);
}

}  // namespace TovikSupport
