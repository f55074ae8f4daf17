#include "Tovik/Logger/Logger.h"

#include "Tovik/Logger/Handlers/NSLogHandler.h"

namespace Tovik {

namespace {

// verbose (0), debug (1) and error (4) name the function in the location.
constexpr unsigned functionLevelsMask = 0x13;

bool locationNamesFunction(LogLevel level) {
    auto raw = static_cast<uint64_t>(level);
    return raw < 64 && ((functionLevelsMask >> raw) & 1U) != 0;
}

}  // namespace

Logger& Logger::shared() {
    // Never destroyed: code running in static destructors may still log.
    static Logger* const instance = new Logger();
    return *instance;
}

Logger::Logger()
    : logLevel_(static_cast<int64_t>(LogLevel::info)),
      handlers_(std::make_shared<const HandlerList>(HandlerList{std::make_shared<NSLogHandler>()})) {}

std::shared_ptr<const Logger::HandlerList> Logger::snapshot() const {
    std::lock_guard guard(handlersLock_);
    return handlers_;
}

Logger::HandlerList Logger::handlers() const { return *snapshot(); }

void Logger::setHandlers(HandlerList handlers) {
    auto replacement = std::make_shared<const HandlerList>(std::move(handlers));
    std::lock_guard guard(handlersLock_);
    handlers_.swap(replacement);  // the old list is released outside the lock
}

void Logger::objcLog(LogLevel level, std::string_view message, std::string_view file, std::string_view function,
                     unsigned line) {
    log(level, [message] { return std::string(message); }, file, function, line);
}

std::string_view Logger::sourceName(std::string_view file) {
    if (auto slash = file.rfind('/'); slash != std::string_view::npos) file.remove_prefix(slash + 1);
    // A leading dot starts a hidden name, not an extension.
    if (auto dot = file.rfind('.'); dot != std::string_view::npos && dot != 0) file = file.substr(0, dot);
    return file;
}

std::string Logger::formattedText(LogLevel level, std::string_view message, std::string_view file,
                                  std::string_view function) {
    std::string_view source = sourceName(file);
    bool withFunction = locationNamesFunction(level);

    std::string text;
    text.reserve(6 + source.size() + function.size() + message.size());
    text += letter(level);
    text += ": ";
    if (!source.empty() || withFunction) {
        text += '(';
        text += source;
        if (withFunction) {
            text += ": ";
            text += function;
        }
        text += ") ";
    }
    text += message;
    return text;
}

void Logger::dispatch(LogLevel level, Date date, std::string message, std::string_view file,
                      std::string_view function, unsigned /*line*/) {
    std::shared_ptr<const HandlerList> current = snapshot();
    if (current->empty()) return;
    const std::string text = formattedText(level, message, file, function);
    for (const auto& handler : *current) {
        handler->log(level, date, text);
    }
}

}  // namespace Tovik

extern "C" void TovikLog(int level, const char* message, const char* file, const char* function,
                         unsigned line) {
    std::optional<Tovik::LogLevel> logLevel = Tovik::logLevelFromRawValue(level);
    if (!logLevel) return;
    Tovik::Logger::shared().objcLog(*logLevel, message ? message : "", file ? file : "", function ? function : "",
                                    line);
}
