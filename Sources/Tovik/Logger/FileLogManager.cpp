#include "Tovik/Logger/FileLogManager.h"

#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstring>
#include <filesystem>
#include <map>
#include <memory>
#include <system_error>
#include <utility>

#include "Kernel/FileDescriptor.h"
#include "Tovik/FileUtils.h"
#include "Tovik/Logger/Handlers/FileLogHandler.h"
#include "Tovik/Logger/Logger.h"

namespace Tovik {

namespace {

using SearchResult = FileLogManager::SearchResult;
using Kind = SearchResult::Kind;
using Range = FileLogManager::Range;

constexpr char RS = FileLogHandler::RECORD_SEPARATOR;
// After the key's "y-MM-dd HH:mm:ss", a header date holds ".SSS".
constexpr int64_t fractionLength = 4;
// A record whose subsystem is not known within this many bytes has none.
constexpr size_t maxHeaderLength = 512;
// Extracts are written once this much is waiting for them.
constexpr size_t maxPendingBytes = 4 << 20;

constexpr const char* doSaveLogsLabel = "doSaveLogs(_:selecting:in:opts:)";
constexpr const char* copyfileLabel = "copyfile(_:to:append:maxSize:seekSeparator:)";

// Throws errno, taken before `label()` builds the text.
template <class Label>
[[noreturn]] void throwErrno(Label&& label) {
    const int error = errno;
    throw std::system_error(error, std::generic_category(), label());
}

bool isDigit(char c) { return c >= '0' && c <= '9'; }
bool isHexDigit(char c) { return isDigit(c) || (c >= 'a' && c <= 'f'); }

std::string rangeText(int64_t start, int64_t end) { return std::to_string(start) + "..<" + std::to_string(end); }

// A subsystem name that can also be a file name: printable ASCII without "/",
// not "." or "..", short enough for ".log" and the temporary name of a copy
// (".<name>.log.XXXXXX") to stay within NAME_MAX.
constexpr size_t maxSubsystemNameLength = 128;
bool isUsableName(std::string_view name) {
    if (name.empty() || name.size() > maxSubsystemNameLength || name == "." || name == "..") return false;
    return std::all_of(name.begin(), name.end(), [](char c) { return c >= 0x20 && c < 0x7f && c != '/'; });
}

Kernel::FileDescriptor openFile(const std::string& path, int flags, const std::string& label) {
    Kernel::FileDescriptor file(::open(path.c_str(), flags | O_CLOEXEC, 0660));
    if (!file) throwErrno([&] { return label + ": open (" + path + ")"; });
    return file;
}

void writeFile(int fd, std::string_view bytes, const std::string& path, const std::string& label) {
    if (!Kernel::writeAll(fd, bytes)) throwErrno([&] { return label + ": write (" + path + ")"; });
}

// flock(LOCK_EX) for a scope, as FileLogHandler takes it.
class ExclusiveFileLock {
public:
    ExclusiveFileLock(int fd, const std::string& path, const std::string& label) : fd_(fd) {
        while (::flock(fd_, LOCK_EX) != 0) {
            if (errno != EINTR) throwErrno([&] { return label + ": flock (" + path + ")"; });
        }
    }
    ~ExclusiveFileLock() { ::flock(fd_, LOCK_UN); }
    ExclusiveFileLock(const ExclusiveFileLock&) = delete;
    ExclusiveFileLock& operator=(const ExclusiveFileLock&) = delete;

private:
    int fd_;
};

// A folder removed with its contents when the scope ends, however it ends.
class TemporaryFolder {
public:
    explicit TemporaryFolder(std::filesystem::path path) : path_(std::move(path)) {}
    ~TemporaryFolder() {
        std::error_code ignored;
        std::filesystem::remove_all(path_, ignored);
    }
    TemporaryFolder(const TemporaryFolder&) = delete;
    TemporaryFolder& operator=(const TemporaryFolder&) = delete;
    const std::filesystem::path& path() const { return path_; }

private:
    std::filesystem::path path_;
};

std::string fileName(const std::string& path) { return std::filesystem::path(path).filename().string(); }

// A new empty file ".<name>.XXXXXX" in a folder, removed when the scope ends
// unless it was moved away (a rename over it, or kept()).
class TemporaryFile {
public:
    TemporaryFile(const std::filesystem::path& folder, const std::string& name, const std::string& label) {
        std::string pattern = ".";
        pattern += name;
        pattern += ".XXXXXX";
        path_ = (folder / pattern).string();
        const Kernel::FileDescriptor file(::mkostemp(path_.data(), O_CLOEXEC));
        if (!file) throwErrno([&] { return label + ": mkstemp (" + path_ + ")"; });
    }
    ~TemporaryFile() {
        if (!path_.empty()) ::unlink(path_.c_str());
    }
    TemporaryFile(const TemporaryFile&) = delete;
    TemporaryFile& operator=(const TemporaryFile&) = delete;
    const std::string& path() const { return path_; }
    void kept() { path_.clear(); }

private:
    std::string path_;
};

// ---- Reading the files of a save ------------------------------------------

// A file opened for reading at any offset; every byte read is counted. A
// reader may stand for a part of another file copied out of it: `base` is
// where the part starts there, and offsets and reports are the other file's.
class CopyReader {
public:
    CopyReader(std::string path, std::atomic<int64_t>& counter)
        : CopyReader(path, openFile(path, O_RDONLY, doSaveLogsLabel), counter) {}
    CopyReader(std::string path, Kernel::FileDescriptor file, std::atomic<int64_t>& counter, int64_t base = 0)
        : path_(std::move(path)), file_(std::move(file)), counter_(counter), base_(base) {
        takeSize();
    }

    const std::string& path() const { return path_; }
    int fd() const { return file_.get(); }
    int64_t base() const { return base_; }
    int64_t size() const { return size_; }

    // Reads the file's size again (the live file, once its lock is held).
    void takeSize() {
        struct stat status {};
        if (::fstat(file_.get(), &status) != 0)
            throwErrno([&] { return std::string(doSaveLogsLabel) + ": fstat (" + path_ + ")"; });
        size_ = base_ + status.st_size;
    }

    // Up to `length` bytes from `offset`; fewer only at the end of the file.
    std::string_view read(int64_t offset, int64_t length) {
        length = std::max<int64_t>(0, std::min(length, size_ - offset));
        if (bufferSize_ < length) {
            buffer_.reset(new char[static_cast<size_t>(length)]);  // not zero-filled: read into at once
            bufferSize_ = length;
        }
        int64_t done = 0;
        while (done < length) {
            const ssize_t got = ::pread(file_.get(), buffer_.get() + done, static_cast<size_t>(length - done),
                                        offset - base_ + done);
            if (got < 0) {
                if (errno == EINTR) continue;
                throwErrno([&] { return std::string(doSaveLogsLabel) + ": read (" + path_ + ")"; });
            }
            if (got == 0) break;
            done += got;
        }
        counter_.fetch_add(done, std::memory_order_relaxed);
        return {buffer_.get(), static_cast<size_t>(done)};
    }

    // The first record separator in [offset, offset + within), or offset when
    // there is none; read in small pieces, as it is mostly near.
    int64_t separatorFrom(int64_t offset, int64_t within) {
        constexpr int64_t firstPiece = 16 << 10;
        for (int64_t at = offset, piece = firstPiece; at < std::min(size_, offset + within); piece *= 2) {
            const std::string_view data = read(at, std::min(piece, offset + within - at));
            if (data.empty()) break;
            const size_t separator = data.find(RS);
            if (separator != std::string_view::npos) return at + int64_t(separator);
            at += int64_t(data.size());
        }
        return offset;
    }

    // Copies [offset, offset + length) to the end of `out`; the bytes count
    // as read. Up to a few MiB go through a buffer, which on file systems
    // without shared extents (ext4) takes half the time of copy_file_range;
    // more are left to the kernel, which may share them instead of copying.
    void copyTo(int out, int64_t offset, int64_t length, const std::string& outPath, const std::string& label) {
        constexpr int64_t bufferedCopyLimit = 8 << 20;
        off_t in = offset - base_;
        while (length > bufferedCopyLimit) {
            const ssize_t copied = ::copy_file_range(file_.get(), &in, out, nullptr, static_cast<size_t>(length), 0);
            if (copied < 0 && errno == EINTR) continue;
            if (copied < 0 && (errno == EXDEV || errno == ENOSYS || errno == EINVAL || errno == EOPNOTSUPP)) break;
            if (copied < 0) throwErrno([&] { return label + ": copy_file_range (" + path_ + ", " + outPath + ")"; });
            if (copied == 0) return;
            counter_.fetch_add(copied, std::memory_order_relaxed);
            length -= copied;
        }
        for (int64_t at = in + base_; length > 0;) {
            const std::string_view data = read(at, std::min<int64_t>(length, 1 << 20));
            if (data.empty()) return;
            writeFile(out, data, outPath, label);
            at += int64_t(data.size());
            length -= int64_t(data.size());
        }
    }

private:
    std::string path_;
    Kernel::FileDescriptor file_;
    std::atomic<int64_t>& counter_;
    int64_t base_ = 0;
    int64_t size_ = 0;
    std::unique_ptr<char[]> buffer_;
    int64_t bufferSize_ = 0;
};

// ---- Finding a period in a clone -------------------------------------------

// Where records with a given predicate start in a clone: the first record
// not earlier than the key (afterKey false) or the first record later than
// it (afterKey true). Known so far: every record starting before `lo` fails
// the predicate, no record starts in [hi, answer), and the record at `answer`
// holds it (or answer is the end of the clone). Done once lo >= hi.
struct Boundary {
    std::string key;
    bool afterKey = false;
    int64_t lo = 0;
    int64_t hi = 0;
    int64_t answer = 0;

    bool done() const { return lo >= hi; }
};

// A block of a clone. Every record separator before `limit` starts either a
// whole header or none (the block does not cut it); records are known for
// every offset in [start, coveredEnd).
struct Block {
    int64_t start = 0;
    std::string_view data;
    int64_t limit = 0;
    int64_t coveredEnd = 0;
};

Block readBlock(CopyReader& reader, std::string_view key, int64_t start, int64_t length) {
    Block block{start, reader.read(start, length), 0, 0};
    const int64_t size = static_cast<int64_t>(block.data.size());
    const int64_t need = static_cast<int64_t>(key.size()) + fractionLength;
    block.limit = size;
    // The first separator whose header the end of the block cuts; one before
    // it either holds a whole header or holds none (a header reaching across
    // it would hold its 0x1E).
    for (size_t at = block.data.find(RS, size_t(std::max<int64_t>(size - need, 0))); at != std::string_view::npos;
         at = block.data.find(RS, at + 1)) {
        if (FileLogManager::compareDate(key, block.data, {int64_t(at), size}).kind() == Kind::incompleteData) {
            block.limit = int64_t(at);
            break;
        }
    }
    // At the end of the clone a cut header is no header: nothing follows it.
    block.coveredEnd = start + size >= reader.size() ? reader.size() : start + block.limit;
    return block;
}

// Narrows `bound` by what `block` shows; no record starts in [knownFrom,
// block.start). True when a record lies in the part of the block that matters.
bool learn(Boundary& bound, int64_t knownFrom, const Block& block) {
    if (bound.done()) return false;
    const int64_t from = std::max(block.start, bound.lo), to = std::min(block.coveredEnd, bound.hi);
    if (from >= to) return false;
    const Range range{from - block.start, std::min(to - block.start, block.limit)};
    const bool connected = knownFrom <= bound.lo;  // no record is unknown between lo and the block's part
    const SearchResult result = FileLogManager::searchDate(bound.key, block.data, range, !bound.afterKey);
    const int64_t at = block.start + result.offset();
    auto settle = [&](int64_t answer) { bound.answer = bound.hi = answer; };
    switch (result.kind()) {
        case Kind::notFound:
        case Kind::incompleteData:  // none: the range ends before the first cut header
            if (connected) bound.lo = to;
            if (to == bound.hi) bound.hi = knownFrom;
            return false;
        case Kind::foundEarlierDate:
            if (bound.afterKey) break;
            bound.lo = at + 1;  // every record of the part is earlier
            if (to == bound.hi) bound.lo = bound.hi;
            return true;
        case Kind::found:
            if (bound.afterKey) break;
            [[fallthrough]];
        case Kind::foundLaterDate: {
            settle(at);  // the first record with the predicate
            const auto first = FileLogManager::compareFirstDate(bound.key, block.data, range, false);
            if (connected || first.offset() != result.offset()) bound.lo = bound.hi;
            return true;
        }
    }
    // afterKey: `at` is the last record not later than the key.
    const auto next = FileLogManager::compareFirstDate(bound.key, block.data, {result.offset() + 1, range.end}, false);
    if (next.kind() != Kind::notFound && next.kind() != Kind::incompleteData) {
        settle(block.start + next.offset());
        bound.lo = bound.hi;
    } else {
        bound.lo = at + 1;
        if (to == bound.hi) bound.lo = bound.hi;
    }
    return true;
}

// Runs the bisections of `bounds` over one file, one after the other; every
// block read teaches all of them. While an interval is wider than a probe, a
// probe at its middle reads a small piece (a few records), twice as much each
// time a piece holds no whole header, up to a block; the last piece is then
// searched whole. The first probe is at the end of the file (periods asked
// for are mostly recent). True when a record was seen; failures are added to
// `reports`.
bool findBoundaries(CopyReader& reader, std::vector<Boundary*> bounds, int64_t blockSize,
                    std::vector<std::string>& reports) {
    const int64_t firstProbe = std::min<int64_t>(4 << 10, blockSize);
    const int64_t size = reader.size();
    bool seen = false;
    bool first = true;
    for (Boundary* bound : bounds) {
        while (!bound->done()) {
            const bool probing = bound->hi - bound->lo > firstProbe;
            int64_t probe = probing ? firstProbe : bound->hi - bound->lo;
            int64_t from = probing ? bound->lo + (bound->hi - bound->lo) / 2 : bound->lo;
            if (first) from = std::max(bound->lo, size - probe);
            first = false;
            bool found = false;
            int64_t at = from, scanned = from;
            while (!bound->done()) {
                const int64_t need = static_cast<int64_t>(bound->key.size()) + fractionLength;
                const int64_t length = std::min(probe, bound->hi - at + need);
                const Block block = readBlock(reader, bound->key, at, length);
                scanned = block.coveredEnd;
                for (Boundary* other : bounds) {
                    if (other != bound && learn(*other, from, block)) seen = true;
                }
                if (learn(*bound, from, block)) {
                    found = seen = true;
                    break;
                }
                if (block.coveredEnd >= bound->hi) break;
                at = std::max(block.coveredEnd, at + 1);  // no header here: go on to the next one
                probe = std::min(probe * 2, blockSize);
            }
            if (!found && scanned - from >= blockSize) {
                reports.push_back("Not found date in " + std::to_string(scanned - from) + " bytes");
            }
        }
    }
    return seen;
}

// The records of the period between the keys (absent: from the start, to
// the end) in `reader`: [start, end) in its offsets, nullopt when it holds no
// record date (added to `reports`).
std::optional<Range> findPeriod(CopyReader& reader, const std::optional<std::string>& startKey,
                                const std::optional<std::string>& endKey, int64_t blockSize,
                                std::vector<std::string>& reports) {
    const int64_t size = reader.size();
    if (size == 0) return Range{0, 0};
    Boundary start{startKey.value_or(""), false, 0, size, size};
    Boundary end{endKey.value_or(""), true, 0, size, size};
    std::vector<Boundary*> bounds;
    if (startKey) bounds.push_back(&start);
    if (endKey) bounds.push_back(&end);
    if (!bounds.empty() && !findBoundaries(reader, bounds, blockSize, reports)) {
        reports.push_back("No Date found in " + reader.path());
        return std::nullopt;
    }
    return Range{startKey ? start.answer : 0, endKey ? end.answer : size};
}

void reportErrors(std::vector<std::string>& reports) {
    for (const std::string& report : reports) TLOG_ERROR(doSaveLogsLabel, report);
    reports.clear();
}

// What a save reads of the log, taken while the live file's exclusive flock
// is held: generation 1 opened (rotation replaces it by rename and never
// writes it in place, so the descriptor keeps the generation of that moment)
// and the part of the live file that rangeOf picks, within the size it has
// under the lock, copied to `copyPath`. Once the lock is released, neither
// changes whatever the writers do.
struct Snapshot {
    std::optional<CopyReader> rotated;
    std::optional<CopyReader> live;  // the copied part, in the live file's offsets
};

template <class RangeOf>
Snapshot takeSnapshot(const std::string& path, const std::string& copyPath, std::atomic<int64_t>& counter,
                      const std::string& label, RangeOf&& rangeOf) {
    Snapshot snapshot;
    CopyReader live(path, openFile(path, O_RDONLY, label), counter);
    const ExclusiveFileLock lock(live.fd(), path, label);
    const std::string rotated = FileLogHandler::rotatedFilePath(path, 1);
    Kernel::FileDescriptor old(::open(rotated.c_str(), O_RDONLY | O_CLOEXEC));
    if (!old && errno != ENOENT) throwErrno([&] { return label + ": open (" + rotated + ")"; });
    if (old) snapshot.rotated.emplace(rotated, std::move(old), counter);
    live.takeSize();
    const Range range = rangeOf(live);
    // A new, empty file: no O_TRUNC, which on ext4 would have its close start
    // writing it back (the replace-by-truncate safeguard), for nothing.
    Kernel::FileDescriptor copy = openFile(copyPath, O_RDWR | O_CREAT, label);
    live.copyTo(copy.get(), range.start, range.end - range.start, copyPath, label);
    snapshot.live.emplace(path, std::move(copy), counter, range.start);
    return snapshot;
}

// ---- Sorting records by subsystem ------------------------------------------

// Writes the records of byte ranges of clones into per-subsystem files (or
// one file), reading each range in blocks and deciding each record by its
// own header. Output waits in memory up to maxPendingBytes in all.
class RecordSorter {
public:
    RecordSorter(const LogSubsystemSelector& selecting, std::filesystem::path folder, std::string singlePath,
                 int64_t blockSize)
        : selecting_(selecting), folder_(std::move(folder)), blockSize_(blockSize) {
        if (selecting_.kind() == LogSubsystemSelector::Kind::single) {
            single_ = &output(std::move(singlePath));
            ::close(openFile(single_->path, O_WRONLY | O_CREAT | O_APPEND, doSaveLogsLabel).release());
        }
    }

    void extract(CopyReader& reader, int64_t start, int64_t end) {
        path_ = &reader.path();
        state_ = State::outside;
        for (int64_t at = start; at < end;) {
            const std::string_view data = reader.read(at, std::min(blockSize_, end - at));
            if (data.empty()) break;
            feed(data, at);
            at += static_cast<int64_t>(data.size());
        }
        endRecord(end);
    }

    std::vector<std::string> finish() {
        flushAll();
        std::vector<std::string> paths;
        for (const Output* out : order_) paths.push_back(out->path);
        return paths;
    }

private:
    struct Output {
        std::string path;
        std::string pending;
    };
    enum class State { outside, header, writing, skipping };

    void feed(std::string_view data, int64_t offset) {
        size_t at = 0;
        while (at < data.size()) {
            const size_t separator = data.find(RS, at);
            const size_t end = separator == std::string_view::npos ? data.size() : separator;
            if (end > at) consume(data.substr(at, end - at), offset + int64_t(at));
            if (separator == std::string_view::npos) break;
            endRecord(offset + int64_t(separator));
            state_ = State::header;
            recordStart_ = offset + int64_t(separator);
            head_.assign(1, RS);
            at = separator + 1;
        }
    }

    void consume(std::string_view bytes, int64_t offset) {
        switch (state_) {
            case State::outside:
                TLOG_DEBUG(doSaveLogsLabel,
                           "No record separator at " + std::to_string(offset) + " position in " + *path_);
                state_ = State::skipping;
                break;
            case State::header: {
                const size_t take = std::min(bytes.size(), maxHeaderLength - head_.size());
                head_.append(bytes.substr(0, take));
                decide(false);
                if (state_ == State::writing) append(*target_, bytes.substr(take));
                break;
            }
            case State::writing:
                append(*target_, bytes);
                break;
            case State::skipping:
                break;
        }
    }

    void endRecord(int64_t end) {
        if (state_ == State::header) decide(true);
        if (state_ == State::skipping && unrecognized_) {
            TLOG_DEBUG(doSaveLogsLabel, "SKIP unrecognized subsystem in range " + rangeText(recordStart_, end));
        }
        state_ = State::outside;
        unrecognized_ = false;
    }

    // Settles where the record goes once its header shows its subsystem.
    void decide(bool complete) {
        const auto name = FileLogManager::getSubsystemNameData(head_, {0, int64_t(head_.size())});
        if (!name && !complete && head_.size() < maxHeaderLength) return;  // the header goes on
        Output* out = name && isUsableName(*name) ? select(*name) : nullptr;
        unrecognized_ = !name || !isUsableName(*name);
        if (out == nullptr) {
            state_ = State::skipping;
        } else {
            state_ = State::writing;
            target_ = out;
            append(*out, head_);
        }
        head_.clear();
    }

    Output* select(std::string_view name) {
        const auto& names = selecting_.names();
        const bool listed = std::find(names.begin(), names.end(), name) != names.end();
        switch (selecting_.kind()) {
            case LogSubsystemSelector::Kind::single:
                return listed ? single_ : nullptr;
            case LogSubsystemSelector::Kind::some:
                if (!listed) return nullptr;
                [[fallthrough]];
            case LogSubsystemSelector::Kind::all:
                return &output((folder_ / (std::string(name) + ".log")).string());
            case LogSubsystemSelector::Kind::whole:
                break;
        }
        return nullptr;
    }

    Output& output(std::string path) {
        auto [entry, added] = outputs_.try_emplace(path, Output{path, {}});
        if (added) order_.push_back(&entry->second);
        return entry->second;
    }

    void append(Output& out, std::string_view bytes) {
        out.pending.append(bytes);
        pendingBytes_ += bytes.size();
        if (pendingBytes_ > maxPendingBytes) flushAll();
    }

    void flushAll() {
        for (Output* out : order_) {
            if (out->pending.empty()) continue;
            Kernel::FileDescriptor file = openFile(out->path, O_WRONLY | O_CREAT | O_APPEND, doSaveLogsLabel);
            writeFile(file.get(), out->pending, out->path, doSaveLogsLabel);
            std::string().swap(out->pending);
        }
        pendingBytes_ = 0;
    }

    const LogSubsystemSelector& selecting_;
    const std::filesystem::path folder_;
    const int64_t blockSize_;
    const std::string* path_ = nullptr;  // the clone being read, for reports
    std::map<std::string, Output> outputs_;
    std::vector<Output*> order_;  // in the order first written
    Output* single_ = nullptr;
    size_t pendingBytes_ = 0;

    State state_ = State::outside;
    int64_t recordStart_ = 0;
    std::string head_;  // the record's bytes while its subsystem is not known yet
    Output* target_ = nullptr;
    bool unrecognized_ = false;
};

// The search keys of a period, widened by a second on each side.
std::pair<std::optional<std::string>, std::optional<std::string>> periodKeys(const LogSavingOpts& opts) {
    using namespace std::chrono_literals;
    return {opts.startDate ? std::optional(FileLogManager::searchKey(*opts.startDate - 1s)) : std::nullopt,
            opts.endDate ? std::optional(FileLogManager::searchKey(*opts.endDate + 1s)) : std::nullopt};
}

// Writes `destination`: [rotatedRange) of generation 1 when there is any,
// then the copied part of the live file, which becomes the destination
// itself when it is all.
void writeWhole(const std::string& destination, CopyReader* rotated, Range rotatedRange, CopyReader& live,
                const std::string& liveCopy, const std::string& label) {
    if (rotated == nullptr || rotatedRange.start >= rotatedRange.end) {
        if (::rename(liveCopy.c_str(), destination.c_str()) != 0)
            throwErrno([&] { return label + ": rename (" + liveCopy + ", " + destination + ")"; });
        return;
    }
    const Kernel::FileDescriptor out = openFile(destination, O_WRONLY | O_CREAT | O_TRUNC, label);
    rotated->copyTo(out.get(), rotatedRange.start, rotatedRange.end - rotatedRange.start, destination, label);
    live.copyTo(out.get(), live.base(), live.size() - live.base(), destination, label);
}

}  // namespace

// ---- FileLogManager ----------------------------------------------------------

FileLogManager::FileLogManager(std::string logPath, std::size_t readBufferSize)
    : filepath_(std::move(logPath)),
      blockSize_(static_cast<int64_t>(std::clamp<std::size_t>(readBufferSize, 64, std::size_t(1) << 30))) {}

std::vector<std::string> FileLogManager::saveLogs(const LogSubsystemSelector& selecting, const std::string& inFolder,
                                                  const LogSavingOpts& opts) {
    constexpr const char* label = "saveLogs(selecting:inFolder:opts:)";
    const bool whole = selecting.kind() == LogSubsystemSelector::Kind::whole;
    if (whole && !opts.startDate && !opts.endDate) return {saveWholeLog(inFolder, opts.maxSize)};
    const int64_t budget = std::max<int64_t>(0, opts.maxSize.value_or(INT64_MAX));
    // The whole selector makes one file: its copies wait as hidden files in
    // the output folder. Sorting by subsystem works in a temporary folder.
    std::optional<TemporaryFolder> temporary;
    std::optional<TemporaryFile> liveCopyFile, wholeFile;
    std::filesystem::path subsystems;
    if (whole) {
        liveCopyFile.emplace(inFolder, fileName(filepath_), label);
    } else {
        temporary.emplace(FileUtils::makeTemporaryFolder("log", inFolder, label));
        subsystems = temporary->path() / "subsystems";
        std::filesystem::create_directories(subsystems);
    }
    // Named variables, not structured bindings: the lambda below captures them.
    const auto keys = periodKeys(opts);
    const std::optional<std::string>& startKey = keys.first;
    const std::optional<std::string>& endKey = keys.second;

    // The live file is searched and its period copied out under its lock;
    // what the search has to report waits until the lock is released.
    std::vector<std::string> liveReports, rotatedReports;
    const std::string liveCopy = whole ? liveCopyFile->path() : (temporary->path() / "live").string();
    Snapshot snapshot = takeSnapshot(filepath_, liveCopy, bytesRead_, label, [&](CopyReader& live) {
        return findPeriod(live, startKey, endKey, blockSize_, liveReports).value_or(Range{});
    });
    CopyReader* rotated = snapshot.rotated ? &*snapshot.rotated : nullptr;
    CopyReader& live = *snapshot.live;
    const Range rotatedRange = rotated ? findPeriod(*rotated, startKey, endKey, blockSize_, rotatedReports).value_or(Range{})
                                       : Range{};
    reportErrors(rotatedReports);
    reportErrors(liveReports);

    // Each extract with the name it is saved under.
    std::vector<std::pair<std::string, std::string>> extracts;
    if (whole) {
        std::string extract = liveCopy;  // the whole period when generation 1 adds nothing
        if (rotated != nullptr && rotatedRange.start < rotatedRange.end) {
            wholeFile.emplace(inFolder, fileName(filepath_), label);
            writeWhole(wholeFile->path(), rotated, rotatedRange, live, liveCopy, label);
            extract = wholeFile->path();
        }
        extracts.emplace_back(extract, fileName(filepath_));
    } else {
        RecordSorter sorter(selecting, subsystems, (subsystems / fileName(filepath_)).string(), blockSize_);
        if (rotatedRange.start < rotatedRange.end) sorter.extract(*rotated, rotatedRange.start, rotatedRange.end);
        if (live.base() < live.size()) sorter.extract(live, live.base(), live.size());
        for (std::string& extract : sorter.finish()) {
            std::string name = fileName(extract);
            extracts.emplace_back(std::move(extract), std::move(name));
        }
    }
    std::vector<std::string> saved;
    for (const auto& [extract, name] : extracts) {
        const std::string destination = (std::filesystem::path(inFolder) / name).string();
        struct stat status {};
        if (::stat(extract.c_str(), &status) == 0 && status.st_size <= budget &&
            ::rename(extract.c_str(), destination.c_str()) == 0) {
            for (auto* file : {&liveCopyFile, &wholeFile}) {
                if (*file && (*file)->path() == extract) (*file)->kept();  // it is the saved file now
            }
            saved.push_back(destination);
            continue;
        }
        copyfile(extract, destination, false, -budget, RS);
        saved.push_back(destination);
    }
    return saved;
}

void FileLogManager::resetLog() {
    constexpr const char* label = "resetLog()";
    std::vector<std::string> failures;
    {
        const Kernel::FileDescriptor file = openFile(filepath_, O_RDWR, label);
        const ExclusiveFileLock lock(file.get(), filepath_, label);
        const std::string rotated = FileLogHandler::rotatedFilePath(filepath_, 1);
        struct stat status {};
        if (::lstat(rotated.c_str(), &status) == 0 && ::unlink(rotated.c_str()) != 0) {
            const int error = errno;
            failures.push_back("unlink (" + rotated + "). " + FileLogHandler::errorNumberText(error));
        }
        if (::ftruncate(file.get(), 0) != 0) {
            const int error = errno;
            failures.push_back("truncate (" + filepath_ + "). " + FileLogHandler::errorNumberText(error));
        }
    }
    // Only now: a handler of this process writing to this very file would
    // wait for the lock forever.
    for (const std::string& failure : failures) TLOG_ERROR(label, failure);
}

std::string FileLogManager::saveWholeLog(const std::string& in, std::optional<int64_t> maxSize) {
    constexpr const char* label = "saveWholeLog(in:maxSize:)";
    const int64_t budget = std::max<int64_t>(0, maxSize.value_or(INT64_MAX));
    const TemporaryFolder temporary(FileUtils::makeTemporaryFolder("log", in, label));
    const std::string destination = (std::filesystem::path(in) / fileName(filepath_)).string();
    // The newest `within` bytes of a file, from the first record start in their first block.
    auto newest = [&](CopyReader& file, int64_t within) {
        const int64_t offset = std::max<int64_t>(file.size() - within, 0);
        return Range{offset > 0 ? file.separatorFrom(offset, blockSize_) : 0, file.size()};
    };
    const std::string liveCopy = (temporary.path() / "live").string();
    Snapshot snapshot = takeSnapshot(filepath_, liveCopy, bytesRead_, label,
                                     [&](CopyReader& live) { return newest(live, budget); });
    CopyReader* rotated = snapshot.rotated ? &*snapshot.rotated : nullptr;
    CopyReader& live = *snapshot.live;
    // Generation 1 gets what the whole live file leaves of the budget.
    const int64_t remaining = budget - live.size();
    const Range rotatedRange = rotated && remaining > 0 ? newest(*rotated, remaining) : Range{};
    writeWhole(destination, rotated, rotatedRange, live, liveCopy, label);
    return destination;
}

std::vector<FileLogManager::TempFile> FileLogManager::prepareTempFiles(const std::string& in,
                                                                       std::optional<int64_t> maxSize) {
    std::vector<TempFile> files;
    int64_t listed = 0;
    for (const std::string& path : duplicateLogFiles(in)) {
        if (maxSize && listed > *maxSize) break;
        struct stat status {};
        if (::stat(path.c_str(), &status) != 0) {
            const std::system_error error(errno, std::generic_category(),
                                          "prepareTempFiles(in:maxSize:): stat (" + path + ")");
            TLOG_ERROR("prepareTempFiles(in:maxSize:)", error.what());
            continue;
        }
        files.push_back({path, status.st_size, listed});
        listed += status.st_size;
    }
    return files;
}

std::vector<std::string> FileLogManager::duplicateLogFiles(const std::string& to) {
    constexpr const char* label = "duplicateLogFiles(to:)";
    const Kernel::FileDescriptor file = openFile(filepath_, O_RDONLY, label);
    const ExclusiveFileLock lock(file.get(), filepath_, label);
    std::vector<std::string> clones{(std::filesystem::path(to) / fileName(filepath_)).string()};
    FileLogHandler::clonefile(filepath_, clones.back());
    const std::string rotated = FileLogHandler::rotatedFilePath(filepath_, 1);
    struct stat status {};
    if (::stat(rotated.c_str(), &status) == 0) {
        clones.push_back((std::filesystem::path(to) / fileName(rotated)).string());
        FileLogHandler::clonefile(rotated, clones.back());
    }
    return clones;
}

void FileLogManager::copyfile(const std::string& source, const std::string& to, bool append, int64_t maxSize,
                              std::optional<char> seekSeparator) {
    struct stat status {};
    if (::stat(source.c_str(), &status) != 0)
        throwErrno([&] { return std::string(copyfileLabel) + ": stat (" + source + ")"; });
    const int64_t size = status.st_size;
    const int64_t offset = maxSize < 0 ? std::max<int64_t>(size + maxSize, 0) : 0;
    const int64_t length = maxSize < 0 ? size - offset : std::min(size, maxSize);
    if (!append && offset == 0 && length == size) {
        FileLogHandler::clonefile(source, to);
        return;
    }
    copyfile(source, to, append, offset, length, seekSeparator);
}

void FileLogManager::copyfile(const std::string& source, const std::string& to, bool append, int64_t offset,
                              int64_t length, std::optional<char> seekSeparator) {
    const std::string label = copyfileLabel;
    const Kernel::FileDescriptor input = openFile(source, O_RDONLY, label);
    const Kernel::FileDescriptor output = openFile(to, O_WRONLY | O_CREAT | O_APPEND | (append ? 0 : O_TRUNC), label);
    if (offset > 0 && ::lseek(input.get(), offset, SEEK_SET) < 0) {
        throwErrno([&] {
            return label + ": lseek (" + source + ", " + std::to_string(offset) + ", " + std::to_string(0) + ")";
        });
    }
    // A separator is looked for only in the first block of a span that does
    // not start at 0.
    bool seeking = seekSeparator.has_value() && offset > 0;
    std::unique_ptr<char[]> buffer(new char[static_cast<size_t>(blockSize_)]);
    while (length > 0) {
        const ssize_t got = ::read(input.get(), buffer.get(), static_cast<size_t>(std::min(blockSize_, length)));
        if (got < 0) {
            if (errno == EINTR) continue;
            throwErrno([&] { return label + ": read (" + source + ")"; });
        }
        if (got == 0) break;
        bytesRead_.fetch_add(got, std::memory_order_relaxed);
        std::string_view block(buffer.get(), static_cast<size_t>(got));
        length -= got;
        if (seeking) {
            seeking = false;
            const size_t separator = block.find(*seekSeparator);
            if (separator != std::string_view::npos) block.remove_prefix(separator);
        }
        writeFile(output.get(), block, to, label);
    }
}

std::vector<std::string> FileLogManager::doSaveLogs(const std::vector<TempFile>& files,
                                                    const LogSubsystemSelector& selecting, const std::string& in,
                                                    const LogSavingOpts& opts) {
    const auto [startKey, endKey] = periodKeys(opts);
    const std::string named = (std::filesystem::path(in) / fileName(filepath_)).string();
    const bool whole = selecting.kind() == LogSubsystemSelector::Kind::whole;
    if (whole) ::close(openFile(named, O_WRONLY | O_CREAT | O_APPEND, doSaveLogsLabel).release());
    RecordSorter sorter(selecting, in, named, blockSize_);

    std::vector<std::string> reports;
    for (auto file = files.rbegin(); file != files.rend(); ++file) {
        CopyReader reader(file->path, bytesRead_);
        const std::optional<Range> period = findPeriod(reader, startKey, endKey, blockSize_, reports);
        reportErrors(reports);
        if (!period || period->start >= period->end) continue;
        if (whole) {
            copyfile(file->path, named, true, period->start, period->end - period->start, RS);
        } else {
            sorter.extract(reader, period->start, period->end);
        }
    }
    return whole ? std::vector<std::string>{named} : sorter.finish();
}

// ---- Looking into records ------------------------------------------------------

std::optional<std::string_view> FileLogManager::getSubsystemNameData(std::string_view data, Range recordRange) {
    const size_t end = static_cast<size_t>(std::clamp<int64_t>(recordRange.end, 0, int64_t(data.size())));
    size_t at = static_cast<size_t>(std::clamp<int64_t>(recordRange.start, 0, int64_t(end)));
    auto skip = [&](auto&& accepts, size_t least, size_t most) {
        size_t count = 0;
        while (at < end && count < most && accepts(data[at])) ++at, ++count;
        return count >= least;
    };
    auto literal = [&](char c) { return at < end && data[at] == c ? (++at, true) : false; };
    auto digits = [&](size_t n) { return skip(isDigit, n, n); };
    // 0x1E, "y-MM-dd HH:mm:ss.SSS", " %5d:%-8x ", "[".
    const bool header = literal(RS) && skip(isDigit, 1, 9) && literal('-') && digits(2) && literal('-') && digits(2) &&
                        literal(' ') && digits(2) && literal(':') && digits(2) && literal(':') && digits(2) &&
                        literal('.') && digits(3) && literal(' ') && skip([](char c) { return c == ' '; }, 0, 16) &&
                        skip(isDigit, 1, 10) && literal(':') && skip(isHexDigit, 1, 16) &&
                        skip([](char c) { return c == ' '; }, 1, 16) &&
                        literal(FileLogHandler::SUBSYSTEM_LEFT_DELIMETER[0]);
    if (!header) return std::nullopt;
    const size_t right = data.substr(0, end).find(FileLogHandler::SUBSYSTEM_RIGHT_DELIMETER, at);
    if (right == std::string_view::npos) return std::nullopt;
    return data.substr(at, right - at);
}

std::string FileLogManager::data(Date date, bool prependingRS) {
    // The handler's own header, so the text is the one its records carry.
    const std::string header = FileLogHandler::headerPrefix(date, 0, 0);
    const size_t end = header.find('.') + 1 + 3;
    return prependingRS ? header.substr(0, end) : header.substr(1, end - 1);
}

std::string FileLogManager::searchKey(Date date) {
    std::string key = data(date, true);
    key.resize(key.size() - fractionLength);
    return key;
}

FileLogManager::SearchResult FileLogManager::compareDate(std::string_view key, std::string_view data, Range range) {
    const int64_t end = std::min<int64_t>(range.end, int64_t(data.size()));
    const int64_t start = range.start;
    if (key.empty() || start < 0 || start >= end || data[size_t(start)] != RS) return SearchResult::notFound();
    const int64_t need = int64_t(key.size()) + fractionLength;
    const int64_t available = std::min(need, end - start);
    const char* header = data.data() + start;
    // The shape of the key's date (digits where it has digits), then ".SSS".
    for (int64_t i = 1; i < available; ++i) {
        const char c = header[i];
        const bool fits = i < int64_t(key.size()) ? (isDigit(key[size_t(i)]) ? isDigit(c) : c == key[size_t(i)])
                                                  : (i == int64_t(key.size()) ? c == '.' : isDigit(c));
        if (!fits) return SearchResult::notFound();
    }
    if (available < need) {
        return end == int64_t(data.size()) ? SearchResult::incompleteData(start) : SearchResult::notFound();
    }
    const int order = std::memcmp(header, key.data(), key.size());
    if (order == 0) return SearchResult::found(start);
    return order < 0 ? SearchResult::foundEarlierDate(start) : SearchResult::foundLaterDate(start);
}

FileLogManager::SearchResult FileLogManager::compareFirstDate(std::string_view key, std::string_view data,
                                                              Range searchRange, bool fromEnd) {
    const size_t start = size_t(std::clamp<int64_t>(searchRange.start, 0, int64_t(data.size())));
    const size_t end = size_t(std::clamp<int64_t>(searchRange.end, int64_t(start), int64_t(data.size())));
    const Range rest{0, int64_t(data.size())};
    if (!fromEnd) {
        for (size_t at = data.find(RS, start); at != std::string_view::npos && at < end; at = data.find(RS, at + 1)) {
            const SearchResult result = compareDate(key, data, {int64_t(at), rest.end});
            if (result.kind() != Kind::notFound) return result;
        }
        return SearchResult::notFound();
    }
    for (size_t limit = end; limit > start;) {
        const size_t at = data.substr(0, limit).rfind(RS);
        if (at == std::string_view::npos || at < start) break;
        const SearchResult result = compareDate(key, data, {int64_t(at), rest.end});
        if (result.kind() != Kind::notFound) return result;
        limit = at;
    }
    return SearchResult::notFound();
}

FileLogManager::SearchResult FileLogManager::searchDate(std::string_view key, std::string_view data, Range searchRange,
                                                        bool preferEarlier) {
    // Records that hold the predicate come after those that do not: with
    // preferEarlier "not earlier than the key", else "later than the key".
    auto holds = [&](const SearchResult& result) {
        return preferEarlier ? result.kind() != Kind::foundEarlierDate : result.kind() == Kind::foundLaterDate;
    };
    const SearchResult first = compareFirstDate(key, data, searchRange, false);
    if (first.kind() == Kind::notFound || first.kind() == Kind::incompleteData || holds(first)) return first;
    const SearchResult last = compareFirstDate(key, data, searchRange, true);
    if (last.kind() == Kind::incompleteData || !holds(last)) return last;
    // first fails and last holds: bisect between them over record starts.
    SearchResult fails = first, passes = last;
    for (;;) {
        const int64_t low = fails.offset() + 1, middle = fails.offset() + (passes.offset() - fails.offset()) / 2;
        SearchResult probe = compareFirstDate(key, data, {std::max(middle, low), passes.offset()}, false);
        if (probe.kind() == Kind::notFound && middle > low) {
            probe = compareFirstDate(key, data, {low, middle}, false);
        }
        if (probe.kind() == Kind::notFound || probe.kind() == Kind::incompleteData) break;  // neighbours
        (holds(probe) ? passes : fails) = probe;
    }
    return preferEarlier ? passes : fails;
}

}  // namespace Tovik
