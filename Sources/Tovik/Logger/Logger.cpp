#include "Tovik/Logger/Logger.h"

#include <linux/membarrier.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <cstring>
#include <mutex>
#include <thread>
#include <utility>
#include <vector>

#include "Tovik/Logger/Handlers/NSLogHandler.h"

#if defined(__SANITIZE_THREAD__)
#define TOVIK_THREAD_SANITIZER 1
#elif defined(__has_feature)
#if __has_feature(thread_sanitizer)
#define TOVIK_THREAD_SANITIZER 1
#endif
#endif

namespace Tovik {

namespace {

// verbose (0), debug (1) and error (4) name the function in the location.
constexpr unsigned functionLevelsMask = 0x13;

bool locationNamesFunction(LogLevel level) {
    auto raw = static_cast<uint64_t>(level);
    return raw < 64 && ((functionLevelsMask >> raw) & 1U) != 0;
}

// Appends pieces to a fixed buffer while they fit.
struct TextBuffer {
    char* data;
    size_t capacity;
    size_t size = 0;
    bool fits = true;

    void append(std::string_view piece) {
        const size_t length = piece.size();
        if (!fits || length > capacity - size) {
            fits = false;
            return;
        }
        char* to = data + size;
        const char* from = piece.data();
        // Pieces are short: up to 32 bytes as two overlapping fixed-size
        // copies, which compile to a few moves instead of a memcpy call.
        if (length >= 16 && length <= 32) {
            std::memcpy(to, from, 16);
            std::memcpy(to + length - 16, from + length - 16, 16);
        } else if (length >= 8 && length < 16) {
            std::memcpy(to, from, 8);
            std::memcpy(to + length - 8, from + length - 8, 8);
        } else if (length >= 4 && length < 8) {
            std::memcpy(to, from, 4);
            std::memcpy(to + length - 4, from + length - 4, 4);
        } else if (length < 4) {
            for (size_t i = 0; i < length; ++i) to[i] = from[i];
        } else {
            std::memcpy(to, from, length);
        }
        size += length;
    }
};

template <class Out>
void appendFormatted(Out& out, LogLevel level, std::string_view message, std::string_view source,
                     std::string_view function) {
    const bool withFunction = locationNamesFunction(level);
    const char head[3] = {letter(level), ':', ' '};
    out.append(std::string_view(head, 3));
    if (!source.empty() || withFunction) {
        out.append("(");
        out.append(source);
        if (withFunction) {
            out.append(": ");
            out.append(function);
        }
        out.append(") ");
    }
    out.append(message);
}

// ---- Readers of handler lists ----------------------------------------------
//
// A call publishes the list it uses in its thread's slot; a replacement waits
// until no slot holds the old list before releasing it. Publishing is a plain
// store: the replacing side runs membarrier(2), which makes every running
// thread pass a full barrier, so a call either sees the new list when it
// checks again or has its slot seen by the replacement. Where membarrier is
// not offered (and under ThreadSanitizer, which does not model it) both sides
// use sequentially consistent operations instead.

struct ReaderSlot {
    std::atomic<const void*> inUse{nullptr};
    bool asymmetric = false;  // publishing needs no fence of its own
    // Lists this thread replaced while one of its own calls used them; they
    // are released when that call ends.
    std::vector<std::shared_ptr<const void>> deferred;
};

class Readers {
public:
    static Readers& shared() {
        // Never destroyed: threads may log while the process exits.
        static Readers* const readers = new Readers;
        return *readers;
    }

    // The calling thread's slot; nothing once the thread's thread-local
    // objects are being destroyed.
    static ReaderSlot* slot() {
        if (threadSlot != nullptr) return threadSlot;
        if (threadExited) return nullptr;
        return shared().registerThread();
    }

    // Releases a replaced list once no call of another thread uses it.
    void retire(std::shared_ptr<const void> list) {
        if (!list) return;
        ReaderSlot* own = threadSlot;
        if (own != nullptr && own->inUse.load(std::memory_order_relaxed) != nullptr) {
            // Inside a call (a handler replacing lists): waiting here could
            // wait for a thread that waits for this one.
            own->deferred.push_back(std::move(list));
            return;
        }
        waitUntilUnused(list.get());
    }

    // At the end of a call: the lists this thread replaced meanwhile.
    void releaseDeferred(ReaderSlot& own) {
        std::vector<std::shared_ptr<const void>> lists;
        lists.swap(own.deferred);
        for (const auto& list : lists) waitUntilUnused(list.get());
    }

private:
    struct ThreadExit {
        ~ThreadExit() {
            if (threadSlot == nullptr) return;
            Readers& readers = shared();
            std::lock_guard guard(readers.mutex_);
            readers.free_.push_back(threadSlot);
            threadSlot = nullptr;
            threadExited = true;
        }
    };

    Readers() {
#ifndef TOVIK_THREAD_SANITIZER
        const long commands = ::syscall(SYS_membarrier, MEMBARRIER_CMD_QUERY, 0);
        constexpr long needed =
            MEMBARRIER_CMD_GLOBAL | MEMBARRIER_CMD_PRIVATE_EXPEDITED | MEMBARRIER_CMD_REGISTER_PRIVATE_EXPEDITED;
        asymmetric_ = commands >= 0 && (commands & needed) == needed &&
                      ::syscall(SYS_membarrier, MEMBARRIER_CMD_REGISTER_PRIVATE_EXPEDITED, 0) == 0;
#endif
    }

    ReaderSlot* registerThread() {
        thread_local ThreadExit exit;  // returns the slot when the thread ends
        (void)exit;
        std::lock_guard guard(mutex_);
        if (free_.empty()) {
            all_.push_back(new ReaderSlot);  // slots live as long as the process
            threadSlot = all_.back();
        } else {
            threadSlot = free_.back();
            free_.pop_back();
        }
        threadSlot->asymmetric = asymmetric_;
        return threadSlot;
    }

    void waitUntilUnused(const void* list) {
        if (asymmetric_ && ::syscall(SYS_membarrier, MEMBARRIER_CMD_PRIVATE_EXPEDITED, 0) != 0 &&
            // A child of fork(2) may start unregistered; the global command
            // (slow, but needing no registration) is the last resort.
            (::syscall(SYS_membarrier, MEMBARRIER_CMD_REGISTER_PRIVATE_EXPEDITED, 0) != 0 ||
             ::syscall(SYS_membarrier, MEMBARRIER_CMD_PRIVATE_EXPEDITED, 0) != 0) &&
            ::syscall(SYS_membarrier, MEMBARRIER_CMD_GLOBAL, 0) != 0) {
            std::abort();  // calls would use lists that are released under them
        }
        std::vector<ReaderSlot*> slots;
        {
            std::lock_guard guard(mutex_);
            slots = all_;
        }
        for (ReaderSlot* slot : slots) {
            if (slot == threadSlot) continue;
            while (slot->inUse.load(std::memory_order_seq_cst) == list) std::this_thread::yield();
        }
    }

    static inline thread_local ReaderSlot* threadSlot = nullptr;
    static inline thread_local bool threadExited = false;

    bool asymmetric_ = false;
    std::mutex mutex_;
    std::vector<ReaderSlot*> all_;   // guarded by mutex_
    std::vector<ReaderSlot*> free_;  // guarded by mutex_: slots of ended threads
};

}  // namespace

Logger& Logger::shared() {
    // Never destroyed: code running in static destructors may still log.
    static Logger* const instance = new Logger(SharedTag{});
    return *instance;
}

Logger::Logger()
    : ownLogLevel_(static_cast<int64_t>(LogLevel::info)),
      logLevel_(&ownLogLevel_),
      handlers_(std::make_shared<const HandlerList>(HandlerList{std::make_shared<NSLogHandler>()})) {
    current_.store(handlers_.get(), std::memory_order_release);
}

Logger::Logger(SharedTag)
    : ownLogLevel_(static_cast<int64_t>(LogLevel::info)),
      logLevel_(&sharedLogLevel_),
      handlers_(std::make_shared<const HandlerList>(HandlerList{std::make_shared<NSLogHandler>()})) {
    current_.store(handlers_.get(), std::memory_order_release);
}

Logger::~Logger() = default;

Logger::HandlerList Logger::handlers() const {
    std::lock_guard guard(handlersLock_);
    return *handlers_;
}

void Logger::setHandlers(HandlerList handlers) {
    auto replacement = std::make_shared<const HandlerList>(std::move(handlers));
    std::shared_ptr<const HandlerList> old;
    {
        std::lock_guard guard(handlersLock_);
        old = std::exchange(handlers_, replacement);
        current_.store(replacement.get(), std::memory_order_seq_cst);
    }
    Readers::shared().retire(std::move(old));
}

void Logger::objcLog(LogLevel level, std::string_view message, std::string_view file, std::string_view function,
                     unsigned line) {
    log(level, [message] { return std::string(message); }, file, function, line);
}

std::string Logger::formattedText(LogLevel level, std::string_view message, std::string_view file,
                                  std::string_view function) {
    const std::string_view source = sourceName(file);
    std::string text;
    text.reserve(6 + source.size() + function.size() + message.size());
    appendFormatted(text, level, message, source, function);
    return text;
}

void Logger::dispatch(LogLevel level, Date date, const std::string& message, std::string_view source,
                      std::string_view function) {
    // Most lines fit on the stack; longer ones take one allocation.
    char stackText[512];
    TextBuffer buffer{stackText, sizeof stackText};
    appendFormatted(buffer, level, message, source, function);
    if (buffer.fits) {
        callHandlers(level, date, std::string_view(stackText, buffer.size));
    } else {
        std::string text;
        text.reserve(6 + source.size() + function.size() + message.size());
        appendFormatted(text, level, message, source, function);
        callHandlers(level, date, text);
    }
}

void Logger::callHandlers(LogLevel level, Date date, std::string_view text) {
    ReaderSlot* slot = Readers::slot();
    if (slot == nullptr || slot->inUse.load(std::memory_order_relaxed) != nullptr) {
        // A call from a handler, or from a thread that is ending: the list is
        // held by its reference count.
        std::shared_ptr<const HandlerList> list;
        {
            std::lock_guard guard(handlersLock_);
            list = handlers_;
        }
        for (const auto& handler : *list) handler->log(level, date, text);
        return;
    }
    const bool asymmetric = slot->asymmetric;
    const HandlerList* list = current_.load(std::memory_order_acquire);
    for (;;) {
        if (asymmetric) {
            slot->inUse.store(list, std::memory_order_relaxed);
            std::atomic_signal_fence(std::memory_order_seq_cst);
        } else {
            slot->inUse.store(list, std::memory_order_seq_cst);
        }
        const HandlerList* again = current_.load(asymmetric ? std::memory_order_acquire : std::memory_order_seq_cst);
        if (again == list) break;
        list = again;
    }
    for (const auto& handler : *list) handler->log(level, date, text);
    slot->inUse.store(nullptr, std::memory_order_release);
    if (!slot->deferred.empty()) Readers::shared().releaseDeferred(*slot);
}

}  // namespace Tovik

extern "C" void TovikLog(int level, const char* message, const char* file, const char* function,
                         unsigned line) {
    std::optional<Tovik::LogLevel> logLevel = Tovik::logLevelFromRawValue(level);
    if (!logLevel) return;
    Tovik::Logger::shared().objcLog(*logLevel, message ? message : "", file ? file : "", function ? function : "",
                                    line);
}
