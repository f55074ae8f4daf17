#include "Tovik/Logger/Handlers/FileLogHandler.h"

#include <fcntl.h>
#include <pthread.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <time.h>
#include <unistd.h>

#define PCRE2_CODE_UNIT_WIDTH 8
#include <pcre2.h>

#if defined(__x86_64__)
#include <immintrin.h>
#endif

#include <cerrno>
#include <chrono>
#include <climits>
#include <cstring>
#include <filesystem>
#include <mutex>
#include <optional>
#include <system_error>

#include <fmt/format.h>

#include "Dispatch/DispatchQueue.h"
#include "Dispatch/DispatchSource.h"
#include "FileSystem/CloneFile.h"
#include "FileSystem/CreationTime.h"
#include "FileSystem/OpenForEvents.h"
#include "Kernel/ErrorNumber.h"
#include "Kernel/FileDescriptor.h"
#include "Kernel/ThreadPort.h"
#include "OSLog/OSLog.h"
#include "Tovik/Logger/Logger.h"
#include "Tovik/UnfairLock.h"

namespace Tovik {

namespace {

using Clock = std::chrono::system_clock;

// What a record shows for a 0x1E byte inside a text: "␞" (U+241E).
constexpr std::string_view recordSeparatorSymbol = "\xE2\x90\x9E";
constexpr std::string_view credentialPattern = "((set-)?cookie|authorization): ([^\n]+)";
constexpr std::string_view credentialTemplate = "$1: stripped";
// Records larger than this do not keep their buffer for the thread's next record.
constexpr size_t keptBufferCapacity = 64 * 1024;

// ---- Header pieces ---------------------------------------------------------

// Per thread: the " %5d:%-8x " text of its process and thread, and the date
// text of the last second it formatted. A fork's child forgets the ids.
struct ThreadHeaderCache {
    bool idsValid = false;
    size_t idsSize = 0;
    char ids[40];
    int64_t second = INT64_MIN;
    size_t dateSize = 0;
    char date[40];  // "y-MM-dd HH:mm:ss."
};
thread_local ThreadHeaderCache headerCache;

void forgetIdsInChild() { headerCache.idsValid = false; }

size_t formatIds(char* buffer, size_t capacity, int processId, uint32_t threadPort) {
    return fmt::format_to_n(buffer, capacity, " {:5}:{:<8x} ", processId, threadPort).size;
}

std::string_view currentIds() {
    ThreadHeaderCache& cache = headerCache;
    if (!cache.idsValid) {
        static std::once_flag forkHandler;
        std::call_once(forkHandler, [] { ::pthread_atfork(nullptr, nullptr, forgetIdsInChild); });
        cache.idsSize = std::min(sizeof cache.ids, formatIds(cache.ids, sizeof cache.ids, ::getpid(),
                                                             Kernel::threadPort()));
        cache.idsValid = true;
    }
    return {cache.ids, cache.idsSize};
}

// "y-MM-dd HH:mm:ss.SSS" in the local time zone (fixed when first used).
void appendDate(std::string& out, Date date) {
    const int64_t millis = std::chrono::floor<std::chrono::milliseconds>(date.time_since_epoch()).count();
    int64_t second = millis / 1000;
    int fraction = static_cast<int>(millis % 1000);
    if (fraction < 0) {
        fraction += 1000;
        second -= 1;
    }
    ThreadHeaderCache& cache = headerCache;
    if (cache.second != second) {
        const time_t seconds = static_cast<time_t>(second);
        struct tm local {};
        ::localtime_r(&seconds, &local);
        cache.dateSize = std::min(sizeof cache.date,
                                  fmt::format_to_n(cache.date, sizeof cache.date, "{}-{:02}-{:02} {:02}:{:02}:{:02}.",
                                                   local.tm_year + 1900, local.tm_mon + 1, local.tm_mday,
                                                   local.tm_hour, local.tm_min, local.tm_sec)
                                      .size);
        cache.second = second;
    }
    out.append(cache.date, cache.dateSize);
    const char digits[3] = {static_cast<char>('0' + fraction / 100), static_cast<char>('0' + fraction / 10 % 10),
                            static_cast<char>('0' + fraction % 10)};
    out.append(digits, 3);
}

void appendHeader(std::string& out, Date date, std::string_view ids) {
    out.push_back(FileLogHandler::RECORD_SEPARATOR);
    appendDate(out, date);
    out.append(ids);
}

void appendSubsystem(std::string& out, std::string_view subsystem) {
    out.append(FileLogHandler::SUBSYSTEM_LEFT_DELIMETER);
    out.append(subsystem);
    out.append(FileLogHandler::SUBSYSTEM_RIGHT_DELIMETER);
    out.push_back(' ');
}

// ---- Credential stripping --------------------------------------------------

// Every candidate holds a rare letter at a fixed place before its ": ":
// "cookie: " a k three bytes before the colon, "authorization: " a z six
// bytes before it. Vector compares find the places where such a letter (any
// case) has a colon at that distance, 16 or 64 at a time, at about what
// memchr costs; only those, nearly always none, are looked at closely.
constexpr char foldedK = 'k', foldedZ = 'z';
constexpr size_t kToColon = 3, zToColon = 6;

// Where the colon of the candidate whose marker is at `at` is, or npos.
size_t verifyCandidate(std::string_view text, size_t at) {
    const char* const data = text.data();
    const bool cookie = (data[at] | 0x20) == foldedK;
    const std::string_view word = cookie ? std::string_view("cookie") : std::string_view("authorization");
    const size_t toColon = cookie ? kToColon : zToColon;
    const size_t start = at + toColon - word.size();
    if (at + toColon < word.size()) return std::string_view::npos;  // the word would start before the text
    const size_t colon = at + toColon;
    if (colon + 2 >= text.size() || data[colon] != ':' || data[colon + 1] != ' ' || data[colon + 2] == '\n') {
        return std::string_view::npos;
    }
    for (size_t i = 0; i < word.size(); ++i) {
        // Folds ASCII letters only, which is all the words hold.
        if ((data[start + i] | 0x20) != word[i]) return std::string_view::npos;
    }
    return colon;
}

#if defined(__x86_64__)
// The places of a block of `width` holding a marker with its colon in the
// same block (bit i for place i), given the block's masks of ks, zs and
// colons; markers whose colon would lie past the block are checked one by one.
// The first verified candidate among the places whose bits are set in mask
// (bit i for place at + i), or npos. Out of line: it nearly never runs, and
// the vector loops stay small without it.
[[gnu::noinline]] size_t firstVerified(std::string_view text, size_t at, uint64_t mask) {
    for (; mask != 0; mask &= mask - 1) {
        const size_t colon = verifyCandidate(text, at + static_cast<size_t>(__builtin_ctzll(mask)));
        if (colon != std::string_view::npos) return colon;
    }
    return std::string_view::npos;
}

// The places of a block of `width` holding a marker with its colon in the
// same block (bit i for place i), given the block's masks of ks, zs and
// colons, and those of markers whose colon would lie past the block.
template <unsigned width>
uint64_t blockCandidates(uint64_t k, uint64_t z, uint64_t colons) {
    return (k & colons >> kToColon) | (z & colons >> zToColon) | (k >> (width - kToColon)) << (width - kToColon) |
           (z >> (width - zToColon)) << (width - zToColon);
}

// 16 places at a time; the last few read a zero-padded copy (zeros match nothing).
size_t firstCandidate16(std::string_view text) {
    const __m128i fold = _mm_set1_epi8(0x20), k = _mm_set1_epi8(foldedK), z = _mm_set1_epi8(foldedZ),
                  colon = _mm_set1_epi8(':');
    for (size_t at = 0; at < text.size(); at += 16) {
        __m128i bytes;
        if (text.size() - at >= 16) {
            bytes = _mm_loadu_si128(reinterpret_cast<const __m128i*>(text.data() + at));
        } else {
            alignas(16) char padded[16] = {};
            std::memcpy(padded, text.data() + at, text.size() - at);
            bytes = _mm_load_si128(reinterpret_cast<const __m128i*>(padded));
        }
        const __m128i folded = _mm_or_si128(bytes, fold);
        auto bits = [](__m128i equal) { return uint64_t{static_cast<uint16_t>(_mm_movemask_epi8(equal))}; };
        const uint64_t mask = blockCandidates<16>(bits(_mm_cmpeq_epi8(folded, k)), bits(_mm_cmpeq_epi8(folded, z)),
                                                  bits(_mm_cmpeq_epi8(bytes, colon)));
        if (mask == 0) continue;
        if (const size_t found = firstVerified(text, at, mask); found != std::string_view::npos) return found;
    }
    return std::string_view::npos;
}

// 64 places at a time; a masked load reads nothing past the text.
__attribute__((target("avx512bw"))) size_t firstCandidate64(std::string_view text) {
    const __m512i fold = _mm512_set1_epi8(0x20), k = _mm512_set1_epi8(foldedK), z = _mm512_set1_epi8(foldedZ),
                  colon = _mm512_set1_epi8(':');
    for (size_t at = 0; at < text.size(); at += 64) {
        const size_t remaining = text.size() - at;
        const __m512i bytes = remaining >= 64
                                  ? _mm512_loadu_si512(text.data() + at)
                                  : _mm512_maskz_loadu_epi8((__mmask64{1} << remaining) - 1, text.data() + at);
        const __m512i folded = _mm512_or_si512(bytes, fold);
        const uint64_t mask = blockCandidates<64>(_mm512_cmpeq_epi8_mask(folded, k),
                                                  _mm512_cmpeq_epi8_mask(folded, z), _mm512_cmpeq_epi8_mask(bytes, colon));
        if (mask == 0) continue;
        if (const size_t found = firstVerified(text, at, mask); found != std::string_view::npos) return found;
    }
    return std::string_view::npos;
}

const bool haveAvx512 = __builtin_cpu_supports("avx512bw");
#endif

// Where the first ": " that follows "cookie" or "authorization" (any case)
// and precedes a value starts, or npos: the text then cannot match the
// pattern and the expression is not run.
size_t firstCredentialCandidate(std::string_view text) {
#if defined(__x86_64__)
    return haveAvx512 ? firstCandidate64(text) : firstCandidate16(text);
#else
    for (size_t at = 0; at < text.size(); ++at) {
        if ((text[at] | 0x20) != foldedK && (text[at] | 0x20) != foldedZ) continue;
        if (const size_t colon = verifyCandidate(text, at); colon != std::string_view::npos) return colon;
    }
    return std::string_view::npos;
#endif
}

// The credential expression, compiled once and kept for the life of the
// process (records may still be written while static objects are destroyed).
class CredentialExpression {
public:
    static const CredentialExpression& shared() {
        static const CredentialExpression* const expression = new CredentialExpression;
        return *expression;
    }

    // Appends the substituted text; false (out unchanged) when PCRE2 fails.
    bool substitute(std::string_view text, std::string& out) const {
        if (code_ == nullptr) return false;
        const size_t base = out.size();
        PCRE2_SIZE capacity = text.size() + 64;
        for (int attempt = 0; attempt < 2; ++attempt) {
            out.resize(base + capacity);
            PCRE2_SIZE length = capacity;
            const int result = ::pcre2_substitute(
                code_, reinterpret_cast<PCRE2_SPTR>(text.data()), text.size(), 0,
                PCRE2_SUBSTITUTE_GLOBAL | PCRE2_SUBSTITUTE_OVERFLOW_LENGTH, nullptr, nullptr,
                reinterpret_cast<PCRE2_SPTR>(credentialTemplate.data()), credentialTemplate.size(),
                reinterpret_cast<PCRE2_UCHAR*>(out.data() + base), &length);
            if (result >= 0) {
                out.resize(base + length);
                return true;
            }
            if (result != PCRE2_ERROR_NOMEMORY) break;
            capacity = length;  // the length needed, with room for the terminating zero
        }
        out.resize(base);
        return false;
    }

private:
    CredentialExpression() {
        int error = 0;
        PCRE2_SIZE offset = 0;
        code_ = ::pcre2_compile(reinterpret_cast<PCRE2_SPTR>(credentialPattern.data()), credentialPattern.size(),
                                PCRE2_CASELESS, &error, &offset, nullptr);
        if (code_ != nullptr) ::pcre2_jit_compile(code_, PCRE2_JIT_COMPLETE);
    }

    pcre2_code* code_ = nullptr;
};

void appendStripped(std::string_view text, size_t candidate, std::string& out) {
    if (!CredentialExpression::shared().substitute(text, out)) {
        // Never let a value through: keep the text up to the first header.
        out.append(text.substr(0, candidate + 2));
        out.append("stripped");
    }
}

void appendEscapingSeparators(std::string& out, std::string_view text) {
    size_t start = 0;
    while (start < text.size()) {
        const void* hit = std::memchr(text.data() + start, FileLogHandler::RECORD_SEPARATOR, text.size() - start);
        if (hit == nullptr) break;
        const size_t at = static_cast<size_t>(static_cast<const char*>(hit) - text.data());
        out.append(text.substr(start, at - start));
        out.append(recordSeparatorSymbol);
        start = at + 1;
    }
    out.append(text.substr(start));
}

// The text as it goes into the file: credentials stripped, separators escaped.
void appendFileText(std::string& out, std::string_view text) {
    const size_t candidate = firstCredentialCandidate(text);
    if (candidate == std::string_view::npos) {
        appendEscapingSeparators(out, text);
        return;
    }
    std::string stripped;
    appendStripped(text, candidate, stripped);
    appendEscapingSeparators(out, stripped);
}

// ---- Files -----------------------------------------------------------------

// flock(fd, LOCK_EX) for a scope; nothing for a negative descriptor.
class FileLock {
public:
    explicit FileLock(int fd) : fd_(fd) { lockFile(fd_, LOCK_EX); }
    ~FileLock() { lockFile(fd_, LOCK_UN); }
    FileLock(const FileLock&) = delete;
    FileLock& operator=(const FileLock&) = delete;

    static void lockFile(int fd, int operation) {
        if (fd < 0) return;
        while (::flock(fd, operation) != 0 && errno == EINTR) {
        }
    }

private:
    int fd_;
};

// Appends a record whole or not at all. The caller holds the file lock and
// the descriptor appends, so the bytes of a record cut short (by a full disk)
// are the last ones of the file and are cut off again. A success costs the
// one write. Returns 0, or the error number of the write that failed.
int writeRecord(int fd, std::string_view bytes) {
    size_t written = 0;
    int error = 0;
    while (written < bytes.size()) {
        const ssize_t result = ::write(fd, bytes.data() + written, bytes.size() - written);
        if (result > 0) {
            written += static_cast<size_t>(result);
        } else if (result == 0) {
            error = ENOSPC;  // a regular file takes nothing more only when it has no room
            break;
        } else if (errno != EINTR) {
            error = errno;
            break;
        }
    }
    if (error == 0 || written == 0) return error;
    struct stat status {};
    if (::fstat(fd, &status) == 0 && status.st_size >= static_cast<off_t>(written) &&
        ::ftruncate(fd, status.st_size - static_cast<off_t>(written)) != 0) {
        // Nothing else undoes it: the next record follows the cut one.
    }
    return error;
}

std::string descriptorLabel(int fd, const std::string& path) { return std::to_string(fd) + "[" + path + "]"; }

}  // namespace

// ---- State ---------------------------------------------------------------

// Everything the queue's work may still touch after the handler is gone: its
// timer and watch handlers hold it weakly.
struct FileLogHandler::State : std::enable_shared_from_this<State> {
    State(std::string subsystem, std::string filepath, bool addPrefix, Options options)
        : subsystem(std::move(subsystem)),
          filepath(std::move(filepath)),
          queue("FileLogHandler Queue", Dispatch::DispatchQoS::utility, Dispatch::DispatchQueue::Attributes::serial,
                Dispatch::DispatchQueue::AutoreleaseFrequency::workItem),
          oslog(this->subsystem, "logger"),
          addPrefix(addPrefix),
          options(options) {}

    ~State() {
        if (fd >= 0) ::close(fd);
    }

    void start();
    void stop();
    void write(std::string_view record);

    void openFileLk();
    void startWatchLk();
    void reopenOnRemoval(uint64_t watch);
    void checkRotation();
    bool shouldRotateLk();
    void rotateFileLk();
    void loggerLogLk(std::string_view message, LogLevel level);

    const std::string subsystem;
    const std::string filepath;
    int fd = -1;  // guarded by lock
    UnfairLock lock;
    std::optional<Dispatch::DispatchSourceFileSystemObject> fdSource;  // guarded by lock
    Dispatch::DispatchQueue queue;
    OSLog::OSLog oslog;
    const bool addPrefix;
    const Options options;

    uint64_t watchGeneration = 0;  // guarded by lock; tells a current watch's events from stale ones
    bool stopped = false;          // guarded by lock
    bool writeFailing = false;     // guarded by lock; the last record was lost and reported
    std::optional<Dispatch::DispatchSourceTimer> rotationTimer;  // set in start(), then only used
};

void FileLogHandler::State::start() {
    {
        std::lock_guard guard(lock);
        openFileLk();
        startWatchLk();
    }
    std::weak_ptr<State> weak = weak_from_this();
    rotationTimer.emplace(Dispatch::DispatchSource::makeTimerSource(queue));
    rotationTimer->setEventHandler([weak] {
        std::shared_ptr<State> state = weak.lock();
        if (!state) return;
        state->checkRotation();
        // The next check comes checkInterval after this one finished.
        state->rotationTimer->schedule(Dispatch::DispatchTime::now() + state->options.checkInterval);
    });
    rotationTimer->schedule(Dispatch::DispatchTime::now() + options.firstCheckDelay);
    rotationTimer->activate();
}

void FileLogHandler::State::stop() {
    {
        std::lock_guard guard(lock);
        stopped = true;
        ++watchGeneration;
        if (fdSource) fdSource->cancel();
        fdSource.reset();
    }
    if (rotationTimer) rotationTimer->cancel();
}

void FileLogHandler::State::write(std::string_view record) {
    std::lock_guard guard(lock);
    if (fd < 0) return;
    FileLock fileLock(fd);
    if (const int error = writeRecord(fd, record); error == 0) {
        writeFailing = false;
    } else if (!writeFailing) {
        // Once until a record gets through again: a full disk would
        // otherwise add a report to every lost record.
        writeFailing = true;
        loggerLogLk("Failed to write " + filepath + ": " + errorNumberText(error), LogLevel::error);
    }
}

void FileLogHandler::State::openFileLk() {
    if (fd >= 0) ::close(fd);
    fd = ::open(filepath.c_str(), O_WRONLY | O_APPEND | O_CREAT | O_CLOEXEC, 0644);
    if (fd < 0) {
        const int error = errno;
        loggerLogLk("Failed to open " + filepath + ": " + errorNumberText(error), LogLevel::error);
    }
}

void FileLogHandler::State::startWatchLk() {
    const int watchDescriptor = FileSystem::openForEvents(filepath);
    if (watchDescriptor < 0) {
        const int error = errno;
        loggerLogLk("Failed to open " + filepath + ": " + errorNumberText(error), LogLevel::error);
        return;
    }
    auto descriptor = std::make_shared<Kernel::FileDescriptor>(watchDescriptor);
    const uint64_t watch = ++watchGeneration;
    std::weak_ptr<State> weak = weak_from_this();
    fdSource.emplace(Dispatch::DispatchSource::makeFileSystemObjectSource(
        watchDescriptor, Dispatch::FileSystemEvent::delete_() | Dispatch::FileSystemEvent::rename(), queue));
    fdSource->setEventHandler([weak, watch] {
        if (std::shared_ptr<State> state = weak.lock()) state->reopenOnRemoval(watch);
    });
    fdSource->setCancelHandler([descriptor] { descriptor->reset(); });
    fdSource->activate();
}

void FileLogHandler::State::reopenOnRemoval(uint64_t watch) {
    try {
        std::lock_guard guard(lock);
        if (stopped || watch != watchGeneration) return;
        FileLock::lockFile(fd, LOCK_EX);
        if (fdSource) fdSource->cancel();  // its cancel handler closes the watch descriptor
        fdSource.reset();
        openFileLk();  // closing the old descriptor releases its file lock
        FileLock fileLock(fd);
        startWatchLk();
        loggerLogLk("Reopened the log file on removal", LogLevel::info);
    } catch (...) {
        // Work on the queue must not throw; the handler simply stays as it is.
    }
}

void FileLogHandler::State::checkRotation() {
    try {
        std::lock_guard guard(lock);
        if (stopped) return;
        FileLock fileLock(fd);
        try {
            if (shouldRotateLk()) {
                rotateFileLk();
                loggerLogLk("Log file has been rotated", LogLevel::info);
            }
        } catch (const std::exception& error) {
            loggerLogLk("Failed to rotate file " + filepath + ": " + error.what(), LogLevel::error);
        }
    } catch (...) {
        // Work on the queue must not throw; the next check tries again.
    }
}

bool FileLogHandler::State::shouldRotateLk() {
    struct stat status {};
    if (::fstat(fd, &status) != 0) {
        int error = errno;
        if (!Kernel::isDefinedErrorNumber(error)) error = Kernel::highestErrorNumber();
        throw std::system_error(error, std::generic_category(),
                                "shouldRotateLk(), fstat (" + descriptorLabel(fd, filepath) + ")");
    }
    const int64_t size = status.st_size;
    if (size >= options.maxSize) {
        loggerLogLk("Log file size is " + std::to_string(size) + " bytes, which is more than " +
                        std::to_string(options.maxSize) + ". It needs to be rotated.",
                    LogLevel::info);
        return true;
    }
    if (size >= options.agedSize) {
        // The age counts from the last modification, not from the creation
        // time that rotation resets.
        const auto modified = Clock::time_point(std::chrono::duration_cast<Clock::duration>(
            std::chrono::seconds(status.st_mtim.tv_sec) + std::chrono::nanoseconds(status.st_mtim.tv_nsec)));
        const int64_t age = std::chrono::duration_cast<std::chrono::seconds>(Clock::now() - modified).count();
        if (age >= options.maxAge) {
            loggerLogLk("File too old. It needs to be rotated.", LogLevel::info);
            return true;
        }
    }
    loggerLogLk("No need rotating the log file. File size is " + std::to_string(size) + " bytes.", LogLevel::info);
    return false;
}

void FileLogHandler::State::rotateFileLk() {
    clonefile(filepath, rotatedFilePath(filepath, 1));
    if (::ftruncate(fd, 0) != 0) {
        const int error = errno;
        throw std::system_error(error, std::generic_category(),
                                "rotateFileLk(), truncate (" + descriptorLabel(fd, filepath) + ")");
    }
    // The file starts anew: record its creation time. Linux keeps it in an
    // extended attribute, which some file systems do not offer; the rotation
    // has happened all the same, so the answer is not checked.
    (void)FileSystem::setCreationTime(fd, Clock::now());
}

void FileLogHandler::State::loggerLogLk(std::string_view message, LogLevel level) {
    if (fd >= 0) {
        // As the logger formats a call from here, then as log() writes it, but
        // with the prefix always and without the logger's threshold.
        const std::string text = Logger::formattedText(level, message, __FILE__, "loggerLogLk(_:level:)");
        std::string record;
        appendHeader(record, Clock::now(), currentIds());
        appendSubsystem(record, subsystem);
        appendFileText(record, text);
        record.push_back('\n');
        writeRecord(fd, record);
    }
    oslog.log(level == LogLevel::error ? OSLog::OSLogType::error : OSLog::OSLogType::default_, message);
}

// ---- FileLogHandler ------------------------------------------------------

FileLogHandler::FileLogHandler(std::string subsystem, std::string filepath, bool addPrefix)
    : FileLogHandler(std::move(subsystem), std::move(filepath), addPrefix, Options{}) {}

FileLogHandler::FileLogHandler(std::string subsystem, std::string filepath, bool addPrefix, Options options)
    : state_(std::make_shared<State>(std::move(subsystem), std::move(filepath), addPrefix, options)) {
    state_->start();
}

FileLogHandler::~FileLogHandler() { state_->stop(); }

void FileLogHandler::log(LogLevel level, Date date, std::string_view text) noexcept {
    log(level, date, state_->addPrefix, text);
}

void FileLogHandler::log(LogLevel, Date date, bool addPrefix, std::string_view text) noexcept {
    if (text.empty()) return;
    const int savedErrno = errno;  // a log call between a failure and its report must not change errno
    try {
        thread_local std::string record;
        record.clear();
        if (addPrefix) {
            appendHeader(record, date, currentIds());
            appendSubsystem(record, state_->subsystem);
        }
        appendFileText(record, text);
        record.push_back('\n');
        state_->write(record);
        if (record.capacity() > keptBufferCapacity) std::string().swap(record);
    } catch (...) {
        // A handler never throws; the record is lost.
    }
    errno = savedErrno;
}

const std::string& FileLogHandler::subsystem() const { return state_->subsystem; }
const std::string& FileLogHandler::filepath() const { return state_->filepath; }
bool FileLogHandler::addPrefix() const { return state_->addPrefix; }

std::string FileLogHandler::headerPrefix(Date date) {
    std::string header;
    appendHeader(header, date, currentIds());
    return header;
}

std::string FileLogHandler::headerPrefix(Date date, int processId, uint32_t threadPort) {
    char ids[40];
    const size_t size = std::min(sizeof ids, formatIds(ids, sizeof ids, processId, threadPort));
    std::string header;
    appendHeader(header, date, std::string_view(ids, size));
    return header;
}

std::string FileLogHandler::msgPrefix(std::string_view subsystem, Date date) {
    std::string prefix = headerPrefix(date);
    appendSubsystem(prefix, subsystem);
    return prefix;
}

std::size_t FileLogHandler::headerLength() {
    static const std::size_t length = headerPrefix(Clock::now()).size();
    return length;
}

std::size_t FileLogHandler::subsystemOffset() { return headerLength() + SUBSYSTEM_LEFT_DELIMETER.size(); }

std::string FileLogHandler::formatRecord(std::string_view subsystem, Date date, int processId, uint32_t threadPort,
                                         std::string_view text, bool addPrefix) {
    if (text.empty()) return {};
    std::string record = addPrefix ? headerPrefix(date, processId, threadPort) : std::string();
    if (addPrefix) appendSubsystem(record, subsystem);
    appendFileText(record, text);
    record.push_back('\n');
    return record;
}

void FileLogHandler::stripCredentials(std::string_view text, std::string& out) {
    const size_t candidate = firstCredentialCandidate(text);
    if (candidate == std::string_view::npos) {
        out.append(text);
    } else {
        appendStripped(text, candidate, out);
    }
}

std::string FileLogHandler::rotatedFilePath(const std::string& path, int generation) {
    if (generation < 1) return path;
    const std::string extension = std::filesystem::path(path).extension().string();  // ".log" or ""
    return path.substr(0, path.size() - extension.size()) + "." + std::to_string(generation) + "." +
           (extension.empty() ? std::string() : extension.substr(1));
}

void FileLogHandler::clonefile(const std::string& source, const std::string& destination) {
    if (FileSystem::cloneFile(source, destination) != 0) {
        const int error = errno;
        throw std::system_error(error, std::generic_category(),
                                "clonefile(_:to:), copyfile (" + source + ", " + destination + ")");
    }
}

std::string FileLogHandler::errorNumberText(int error) {
    std::string text = std::generic_category().message(error);
    if (Kernel::isDefinedErrorNumber(error)) text += ": " + std::to_string(error);
    return text;
}

}  // namespace Tovik
