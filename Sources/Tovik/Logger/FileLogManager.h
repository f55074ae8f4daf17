// Saves one log file written by FileLogHandler, with its rotated generation,
// for a support request: the whole log cut to a byte budget that keeps the
// newest records, or the records of a period (all of them in one file, those
// of chosen subsystems in one file, or one file per subsystem).
//
// A save holds an exclusive flock on the live file, the lock FileLogHandler
// takes around every record and every rotation, only long enough to open
// generation 1, read the live file's size, find in the live file the bytes
// the save needs (a few small probes of a period search, or the first block
// of the budget's tail) and copy those bytes, no more, into a temporary
// folder inside the destination folder; the lock therefore lasts about the
// time of copying what is delivered from the live file. Generation 1 is read
// afterwards, without the lock, through the descriptor opened under it:
// rotation replaces that file by rename and never writes it in place, so the
// descriptor keeps the generation of the moment the live size was read. A
// save therefore holds whole records only, and no rotation falls between the
// two parts. The temporary folder is removed before a save returns, also when
// it throws. duplicateLogFiles and prepareTempFiles still clone both files
// whole for callers that want clones; the saves do not use them.
//
// A period is found without reading the files whole: a bisection over file
// offsets reads a small probe (16 KiB, doubled while a probe holds no whole
// header) at each midpoint until the interval fits in one block
// (DEFAULT_READ_BUFSIZE), then searches inside that block, so a save reads a
// few probes and a block per bound plus the records it delivers (those of the
// live file twice: copied, then extracted). Dates compare at whole seconds
// and the period is widened by one second on each side. Records are expected
// in date order; input that is not (foreign bytes, records without header, a
// cut last record, dates out of order) gives some contiguous part of it or
// nothing, reported and skipped, and never a crash or an endless search. A record's subsystem is
// read from its own header (date, process and thread columns of any width,
// then "[" name "]"); a name that cannot be a file name of its own (more than
// 128 bytes, other than printable ASCII, with "/", "." or "..") counts as
// unreadable.
//
// Errors: operations marked "throws" throw std::system_error with errno and a
// label "<operation>: <call> (<arguments>)". The manager keeps no state but
// its path and a read counter: any thread may call it, several at once.
#pragma once

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "Tovik/Logger/LogManagerProtocol.h"

namespace Tovik {

class FileLogManager final : public LogManagerProtocol {
public:
    /// The outcome of looking for a date in a block of log data: the record
    /// examined and how its date compares with the wanted one. Offsets are
    /// indices into the data searched.
    class SearchResult {
    public:
        enum class Kind { found, foundLaterDate, foundEarlierDate, incompleteData, notFound };

        /// A record with the wanted date (to the second) starts at offset.
        static SearchResult found(int64_t offset) { return {Kind::found, offset}; }
        /// The record at offset is later than the wanted date.
        static SearchResult foundLaterDate(int64_t offset) { return {Kind::foundLaterDate, offset}; }
        /// The record at offset is earlier than the wanted date.
        static SearchResult foundEarlierDate(int64_t offset) { return {Kind::foundEarlierDate, offset}; }
        /// The data ends inside the header of the record at offset: read again from there.
        static SearchResult incompleteData(int64_t offset) { return {Kind::incompleteData, offset}; }
        /// No record header in the range.
        static SearchResult notFound() { return {Kind::notFound, 0}; }

        Kind kind() const { return kind_; }
        /// 0 for notFound.
        int64_t offset() const { return offset_; }

        friend bool operator==(const SearchResult&, const SearchResult&) = default;

    private:
        SearchResult(Kind kind, int64_t offset) : kind_(kind), offset_(offset) {}
        Kind kind_;
        int64_t offset_;
    };

    /// [start, end) of a block of data or a file; shown as "start..<end".
    struct Range {
        int64_t start = 0;
        int64_t end = 0;
        friend bool operator==(const Range&, const Range&) = default;
    };

    /// One clone prepared for a save.
    struct TempFile {
        std::string path;
        int64_t size = 0;
        int64_t offset = 0;  ///< the bytes of all clones listed before this one
        friend bool operator==(const TempFile&, const TempFile&) = default;
    };

    /// Manages the log file at `logPath` (the path its FileLogHandler writes),
    /// reading in blocks of readBufferSize bytes (64 B to 1 GiB; tests pass
    /// small ones to cross many blocks with little data).
    explicit FileLogManager(std::string logPath, std::size_t readBufferSize = DEFAULT_READ_BUFSIZE);

    const std::string& filepath() const { return filepath_; }

    /// Saves into `inFolder`, returning the files written (throws). `whole`
    /// without dates: the whole log cut to the budget (saveWholeLog). With a
    /// date or another selector: the records of the period, per selector, each
    /// delivered file cut to its newest maxSize bytes from a record start.
    std::vector<std::string> saveLogs(const LogSubsystemSelector& selecting, const std::string& inFolder,
                                      const LogSavingOpts& opts) override;

    /// Deletes generation 1 and empties the live file under its flock.
    /// Throws when the live file cannot be opened; a failed deletion or
    /// truncation is logged at error ("unlink (<path>). <error text>",
    /// "truncate (<path>). <error text>") once the lock is released.
    void resetLog() override;

    /// Writes <folder>/<live file's name>: the newest records of generation 1
    /// and the live file within maxSize bytes (no limit when absent), oldest
    /// first, each piece starting at a record start (throws).
    std::string saveWholeLog(const std::string& in, std::optional<int64_t> maxSize);

    /// Clones the log files into `in` and lists the clones newest first with
    /// their sizes, stopping once the bytes listed exceed maxSize. A clone whose
    /// size cannot be read is logged and left out (throws for the clones).
    std::vector<TempFile> prepareTempFiles(const std::string& in, std::optional<int64_t> maxSize);

    /// Clones the live file and, when it exists, generation 1 into the folder
    /// `to` under their own names while holding the live file's exclusive
    /// flock; returns the clones' paths, live first (throws).
    std::vector<std::string> duplicateLogFiles(const std::string& to);

    /// Copies a span of `source` to `to` (throws). maxSize < 0: the last
    /// -maxSize bytes, maxSize >= 0: the first maxSize bytes. Not appending, a
    /// span that is the whole file is cloned; otherwise `to` is opened with
    /// append (truncated first unless appending), mode 0660. A span that does
    /// not start at 0 starts at the first seekSeparator within its first
    /// block, or at the span's start when the block holds none.
    void copyfile(const std::string& source, const std::string& to, bool append, int64_t maxSize,
                  std::optional<char> seekSeparator);
    /// The same for the span [offset, offset + length), always written
    /// through the descriptors.
    void copyfile(const std::string& source, const std::string& to, bool append, int64_t offset, int64_t length,
                  std::optional<char> seekSeparator);

    /// Extracts the period of `opts` from the clones (processed oldest first)
    /// into the folder `in` as the selector asks; returns the files written,
    /// in the order first written (throws). Copies without any record date
    /// are reported and skipped.
    std::vector<std::string> doSaveLogs(const std::vector<TempFile>& files, const LogSubsystemSelector& selecting,
                                        const std::string& in, const LogSavingOpts& opts);

    /// Bytes read so far, by every save, from the files a save works on (the
    /// log files, the copies and extracts it cuts), also those copied from
    /// one file to another inside the kernel; clones made by the file system
    /// (duplicateLogFiles) are not counted.
    int64_t bytesRead() const { return bytesRead_.load(std::memory_order_relaxed); }

    /// The subsystem name in the header of the record in `recordRange`
    /// (starting at its record separator): the bytes between the "[" that
    /// follows the date, process and thread columns and the first "]" after
    /// it within the record. Absent when the header is not one.
    static std::optional<std::string_view> getSubsystemNameData(std::string_view data, Range recordRange);

    /// The header date text of `date` ("y-MM-dd HH:mm:ss.SSS", local time),
    /// preceded by the record separator when prependingRS.
    static std::string data(Date date, bool prependingRS);

    /// A search key: the record separator and the date text of `date` without
    /// its fraction of a second, matching records at whole seconds.
    static std::string searchKey(Date date);

    /// Compares `key` with the date of the record starting at range.start:
    /// found, foundLaterDate or foundEarlierDate (offset range.start);
    /// notFound when no header with a date starts there; incompleteData when
    /// the range (that reaches the end of data) ends inside the header.
    static SearchResult compareDate(std::string_view key, std::string_view data, Range range);

    /// compareDate for the first record header in searchRange, or the last
    /// one when fromEnd; record separators without a date header are passed
    /// over. notFound when there is none; incompleteData when a separator's
    /// header is cut by the end of data before a record is found.
    static SearchResult compareFirstDate(std::string_view key, std::string_view data, Range searchRange, bool fromEnd);

    /// Bisects the records whose headers start in searchRange (dates in
    /// order). preferEarlier: the first record not earlier than the key
    /// (found or foundLaterDate), else foundEarlierDate with the last record.
    /// Otherwise: the last record not later than the key (found or
    /// foundEarlierDate), else foundLaterDate with the first record. Among
    /// records of the key's second preferEarlier picks the first, otherwise
    /// the last. notFound / incompleteData as compareFirstDate.
    static SearchResult searchDate(std::string_view key, std::string_view data, Range searchRange, bool preferEarlier);

private:
    const std::string filepath_;
    const int64_t blockSize_;
    std::atomic<int64_t> bytesRead_{0};
};

}  // namespace Tovik
