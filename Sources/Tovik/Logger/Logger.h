// The process-wide logger.
//
// Every component logs through Logger::shared(), normally with the TLOG_*
// macros, which capture the source file and line and take the function label
// as written in the log format (for example "saveLogs(selecting:inFolder:opts:)"):
//
//     TLOG_ERROR("saveWholeLog(in:maxSize:)", "Failed to copy " + path);
//     TLOG_INFO("run()", fmt::format("{} returned {}", path, status));
//
// The message expression is evaluated only when the level passes the
// threshold, and at most once. A disabled macro call costs one relaxed load of
// a global and a comparison; it does not even reach Logger::shared().
//
// Formatted text: letter + ": (" + location + ") " + message, where location is
// the source file's name without folders and extension, followed by ": " and
// the function for verbose, debug and error only; an empty location gives
// letter + ": " + message.
//
// Threading: log calls may come from any thread. The logger takes no lock: it
// reads the threshold and the current handler list and calls each handler in
// list order on the caller's thread. logLevel and handlers are set during
// start-up; a call that overlaps a replacement uses the list it read, and
// setHandlers returns once no call of another thread uses the old list.
#pragma once

#include <atomic>
#include <memory>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "Tovik/Logger/LogHandlerProtocol.h"
#include "Tovik/Logger/LogLevel.h"
#include "Tovik/UnfairLock.h"

namespace Tovik {

class Logger {
public:
    using HandlerList = std::vector<std::shared_ptr<LogHandlerProtocol>>;

    /// Created on first use, once, even under concurrent first use; lives until
    /// the process ends. Starts at threshold `info` with one NSLogHandler.
    static Logger& shared();
    /// Whether the shared logger takes calls of this level, without creating it.
    static bool isSharedEnabled(LogLevel level) {
        return static_cast<int64_t>(level) >= sharedLogLevel_.load(std::memory_order_relaxed);
    }

    Logger();
    ~Logger();
    Logger(const Logger&) = delete;
    Logger& operator=(const Logger&) = delete;

    LogLevel logLevel() const { return static_cast<LogLevel>(logLevel_->load(std::memory_order_relaxed)); }
    void setLogLevel(LogLevel level) { logLevel_->store(static_cast<int64_t>(level), std::memory_order_relaxed); }

    HandlerList handlers() const;
    /// Replaces the whole list. Returns once no call on another thread uses
    /// the old list; a call of this thread that is still running (a handler
    /// replacing the list) keeps it until it ends.
    void setHandlers(HandlerList handlers);

    bool isEnabled(LogLevel level) const {
        return static_cast<int64_t>(level) >= logLevel_->load(std::memory_order_relaxed);
    }

    /// The log call: drops it below the threshold, else takes the timestamp,
    /// builds the message once, formats it and hands it to every handler.
    template <class MessageFn>
    void log(LogLevel level, MessageFn&& message, std::string_view file, std::string_view function,
             unsigned /*line*/) {
        if (!isEnabled(level)) return;
        Date date = std::chrono::system_clock::now();
        dispatch(level, date, std::forward<MessageFn>(message)(), sourceName(file), function);
    }
    /// The same with the source name already taken from the file (the macros
    /// do it at compile time).
    struct Source {
        std::string_view name;
    };
    template <class MessageFn>
    void log(LogLevel level, MessageFn&& message, Source source, std::string_view function) {
        if (!isEnabled(level)) return;
        Date date = std::chrono::system_clock::now();
        dispatch(level, date, std::forward<MessageFn>(message)(), source.name, function);
    }

    /// The plain-string bridge: the message is already built.
    void objcLog(LogLevel level, std::string_view message, std::string_view file, std::string_view function,
                 unsigned line);

    /// Level shortcuts on the shared instance.
    template <class MessageFn>
    static void verbose(MessageFn&& m, std::string_view file, std::string_view function, unsigned line) {
        shared().log(LogLevel::verbose, std::forward<MessageFn>(m), file, function, line);
    }
    template <class MessageFn>
    static void debug(MessageFn&& m, std::string_view file, std::string_view function, unsigned line) {
        shared().log(LogLevel::debug, std::forward<MessageFn>(m), file, function, line);
    }
    template <class MessageFn>
    static void info(MessageFn&& m, std::string_view file, std::string_view function, unsigned line) {
        shared().log(LogLevel::info, std::forward<MessageFn>(m), file, function, line);
    }
    template <class MessageFn>
    static void warn(MessageFn&& m, std::string_view file, std::string_view function, unsigned line) {
        shared().log(LogLevel::warning, std::forward<MessageFn>(m), file, function, line);
    }
    template <class MessageFn>
    static void error(MessageFn&& m, std::string_view file, std::string_view function, unsigned line) {
        shared().log(LogLevel::error, std::forward<MessageFn>(m), file, function, line);
    }

    /// The formatted text of a call (see the banner).
    static std::string formattedText(LogLevel level, std::string_view message, std::string_view file,
                                     std::string_view function);
    /// "Tovik/FileLogManager.cpp" -> "FileLogManager"; "" -> "".
    static constexpr std::string_view sourceName(std::string_view file) {
        if (auto slash = file.rfind('/'); slash != std::string_view::npos) file.remove_prefix(slash + 1);
        // A leading dot starts a hidden name, not an extension.
        if (auto dot = file.rfind('.'); dot != std::string_view::npos && dot != 0) file = file.substr(0, dot);
        return file;
    }

private:
    struct SharedTag {};
    explicit Logger(SharedTag);

    void dispatch(LogLevel level, Date date, const std::string& message, std::string_view source,
                  std::string_view function);
    void callHandlers(LogLevel level, Date date, std::string_view text);

    // The shared logger's threshold, a global so that a disabled macro call
    // needs neither the instance nor its guard.
    static inline constinit std::atomic<int64_t> sharedLogLevel_{static_cast<int64_t>(LogLevel::info)};

    std::atomic<int64_t> ownLogLevel_;
    std::atomic<int64_t>* const logLevel_;  // &sharedLogLevel_ or &ownLogLevel_
    // The list is replaced whole, never changed in place. current_ is what
    // calls read; handlers_ owns it and changes under handlersLock_.
    std::atomic<const HandlerList*> current_;
    mutable UnfairLock handlersLock_;
    std::shared_ptr<const HandlerList> handlers_;
};

}  // namespace Tovik

/// C-callable bridge for code in other languages: level 0...4 (others are
/// dropped), message, file and function as NUL-terminated UTF-8.
extern "C" void TovikLog(int level, const char* message, const char* file, const char* function,
                         unsigned line);

#define TLOG(level, function, ...)                                                                   \
    do {                                                                                             \
        if (::Tovik::Logger::isSharedEnabled(level)) {                                               \
            static constexpr ::Tovik::Logger::Source tovikSource_{::Tovik::Logger::sourceName(__FILE__)}; \
            ::Tovik::Logger::shared().log((level), [&]() -> std::string { return __VA_ARGS__; },     \
                                          tovikSource_, (function));                                 \
        }                                                                                            \
    } while (0)

#define TLOG_VERBOSE(function, ...) TLOG(::Tovik::LogLevel::verbose, function, __VA_ARGS__)
#define TLOG_DEBUG(function, ...) TLOG(::Tovik::LogLevel::debug, function, __VA_ARGS__)
#define TLOG_INFO(function, ...) TLOG(::Tovik::LogLevel::info, function, __VA_ARGS__)
#define TLOG_WARN(function, ...) TLOG(::Tovik::LogLevel::warning, function, __VA_ARGS__)
#define TLOG_ERROR(function, ...) TLOG(::Tovik::LogLevel::error, function, __VA_ARGS__)
