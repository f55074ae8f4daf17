// Appends log records to one file shared by several processes of the product.
//
// Record (UTF-8): byte 0x1E, the date "y-MM-dd HH:mm:ss.SSS" in the local time
// zone, " %5d:%-8x " with the process id and the thread port, "[" + subsystem +
// "] ", the text with credentials stripped, a line feed. Without the prefix a
// record is the stripped text and the line feed. Only the handler's own
// headers start with 0x1E: the byte inside a text is written as "␞" (U+241E).
//
// Each record is one write(2), made while holding `lock` and then an exclusive
// flock on the file, with no buffering: records of threads and processes never
// interleave, and a crash loses at most the record being written. A record
// reaches the file whole or not at all: one the disk takes only in part is cut
// off again, and the next one starts where it began.
//
// Rotation: 5 s after creation, then 300 s after each check, a check on the
// serial queue "FileLogHandler Queue" copies a file of 50 MiB, or of 2 MiB
// last modified 48 hours ago, to the generation-1 name (one older generation,
// replaced by every rotation) and truncates the active file to 0. The older
// generation is replaced only by a complete copy: a rotation that fails (a full
// disk) is reported and leaves both files as they were, and the next check
// tries again.
//
// Removal: when the active file is deleted or renamed, a new one is opened at
// the same path; its first record is "Reopened the log file on removal".
//
// Failures: an open failure is reported ("Failed to open <path>: <error text>")
// and leaves the handler failed: records are dropped. A record the file cannot
// take whole (a full disk, an I/O error) is dropped and the first of a run of
// such losses is reported ("Failed to write <path>: <error text>"), to the
// unified log at least. Nothing throws out of it.
#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>
#include <string_view>

#include "Tovik/Logger/LogHandlerProtocol.h"

namespace Tovik {

class FileLogHandler final : public LogHandlerProtocol {
public:
    /// When the file is checked and when it is rotated. Production uses the
    /// defaults; tests pass shorter delays.
    struct Options {
        double firstCheckDelay = 5.0;   ///< seconds from creation to the first check
        double checkInterval = 300.0;   ///< seconds from the end of a check to the next
        int64_t maxSize = 52428800;     ///< rotated at this size, whatever its age
        int64_t agedSize = 2097152;     ///< rotated at this size once it is old enough
        int64_t maxAge = 172800;        ///< old enough: seconds since the last modification
    };

    static constexpr char RECORD_SEPARATOR = '\x1e';
    static constexpr std::string_view SUBSYSTEM_LEFT_DELIMETER = "[";
    static constexpr std::string_view SUBSYSTEM_RIGHT_DELIMETER = "]";

    /// Opens `filepath` (write-only, append, create, mode 0644), starts the
    /// watch for its removal and schedules the rotation checks. Failures are
    /// reported to the unified log (subsystem, category "logger") and leave
    /// the handler failed.
    FileLogHandler(std::string subsystem, std::string filepath, bool addPrefix);
    FileLogHandler(std::string subsystem, std::string filepath, bool addPrefix, Options options);
    /// Stops the checks and the watch and closes the file. A check or watch
    /// event already running finishes first; none starts afterwards.
    ~FileLogHandler() override;

    FileLogHandler(const FileLogHandler&) = delete;
    FileLogHandler& operator=(const FileLogHandler&) = delete;

    /// Writes one record on the caller's thread; any thread, concurrently.
    /// The level is unused (the text carries its letter); an empty text
    /// writes nothing. A record the file cannot take whole is dropped.
    void log(LogLevel level, Date date, std::string_view text) noexcept override;
    /// The same with the prefix choice given per call.
    void log(LogLevel level, Date date, bool addPrefix, std::string_view text) noexcept;

    const std::string& subsystem() const;
    const std::string& filepath() const;
    bool addPrefix() const;

    /// 0x1E + date + " %5d:%-8x " for the calling process and thread.
    static std::string headerPrefix(Date date);
    /// The same for a given process id and thread port.
    static std::string headerPrefix(Date date, int processId, uint32_t threadPort);
    /// headerPrefix(date) + "[" + subsystem + "] ".
    static std::string msgPrefix(std::string_view subsystem, Date date);
    /// The length of a header made for the current time (fixed on first use),
    /// and where the subsystem name starts: header length + 1.
    static std::size_t headerLength();
    static std::size_t subsystemOffset();

    /// The complete record the handler writes for `text`, line feed included
    /// ("" for an empty text), for a given process id and thread port.
    static std::string formatRecord(std::string_view subsystem, Date date, int processId, uint32_t threadPort,
                                    std::string_view text, bool addPrefix);
    /// Appends `text` with every match of the case-insensitive pattern
    /// "((set-)?cookie|authorization): ([^\n]+)" replaced by "$1: stripped".
    /// A text without a candidate header costs one scan and no allocation.
    static void stripCredentials(std::string_view text, std::string& out);

    /// Generation n >= 1 of a log file: the path without its extension, ".",
    /// n, ".", the extension ("a/x.log" -> "a/x.1.log"); n < 1 gives the path.
    static std::string rotatedFilePath(const std::string& path, int generation);
    /// Replaces `destination` with a complete copy of `source`, cloned where
    /// the file system allows it, with mode, times and extended attributes.
    /// Throws std::system_error labelled "clonefile(_:to:), copyfile (<source>,
    /// <destination>)" and then leaves `destination` as it was.
    static void clonefile(const std::string& source, const std::string& destination);
    /// The system's message for an error number, then ": " and the number
    /// when the system defines it ("Permission denied: 13").
    static std::string errorNumberText(int error);

private:
    struct State;
    std::shared_ptr<State> state_;
};

}  // namespace Tovik
