// tovik-support: saves the product's logs for a support request, either as a
// zip archive (SupportUtils::createArchive) or as files in a folder
// (LogManager::saveLogs). parse() turns the command line into a request and
// run() carries it out, so both are testable without a process; main() is
// the program with its exit statuses.
#pragma once

#include <cstdint>
#include <filesystem>
#include <iosfwd>
#include <optional>
#include <string>
#include <string_view>
#include <variant>
#include <vector>

#include "Tovik/Logger/LogHandlerProtocol.h"
#include "Tovik/SupportUtils.h"

namespace TovikSupport {

struct HelpRequest {
    friend bool operator==(const HelpRequest&, const HelpRequest&) = default;
};

/// `archive`: the logs of a recent period and extra files in one zip archive.
struct ArchiveRequest {
    std::vector<std::filesystem::path> logs;    ///< --log, one FileLogManager each
    std::optional<Tovik::Date> since;           ///< --since; else the purpose's period
    Tovik::SupportLogsPurpose purpose = Tovik::SupportLogsPurpose::general;
    std::vector<std::string> subsystems;        ///< --subsystem: only their records
    std::optional<int64_t> maxSize;             ///< --max-size: replaces the purpose's budget
    std::vector<std::filesystem::path> add;     ///< --add: archived under their file names
    bool reveal = false;                        ///< --reveal: show the archive in the file manager
    bool verbose = false;
    std::filesystem::path output;               ///< -o
    friend bool operator==(const ArchiveRequest&, const ArchiveRequest&) = default;
};

/// `extract`: the logs, or those of a period, as files in a folder.
struct ExtractRequest {
    std::vector<std::filesystem::path> logs;
    std::optional<Tovik::Date> since;
    std::optional<Tovik::Date> until;
    std::vector<std::string> subsystems;
    std::optional<int64_t> maxSize;
    bool verbose = false;
    std::filesystem::path output;
    friend bool operator==(const ExtractRequest&, const ExtractRequest&) = default;
};

using Request = std::variant<HelpRequest, ArchiveRequest, ExtractRequest>;

/// Why a command line was refused: one line, without the program name.
struct UsageError {
    std::string message;
    friend bool operator==(const UsageError&, const UsageError&) = default;
};

class SupportCommand {
public:
    static constexpr int exitSuccess = 0;
    static constexpr int exitFailure = 1;      ///< failed; for extract: no file was saved
    static constexpr int exitUsage = 2;        ///< the command line was refused
    static constexpr int exitInterrupted = 130;  ///< Ctrl-C; nothing was left behind

    SupportCommand() = delete;

    /// The arguments after the program name.
    static std::variant<Request, UsageError> parse(const std::vector<std::string>& arguments);

    /// The --help text.
    static std::string usage();

    /// "YYYY-MM-DD", "YYYY-MM-DD HH:MM[:SS]" or "YYYY-MM-DDTHH:MM[:SS]" in the
    /// local time zone; nothing for other text and for times that do not
    /// exist (February 30, a time skipped by a clock change).
    static std::optional<Tovik::Date> parseDate(std::string_view text);

    /// Carries out an archive or extract request: paths written on `out`,
    /// failures on `err`; with progressBar a bar on `err`, redrawn in place.
    /// SIGINT (Ctrl-C) cancels while it runs: the work stops at its next step
    /// and removes what it wrote. Uses LogManager::shared() and puts the
    /// previous one back before returning. Returns the exit status.
    static int run(const Request& request, std::ostream& out, std::ostream& err, bool progressBar);

    /// The program: parses, prints usage or "tovik-support: <message>" (exit
    /// status 2), sets the shared logger's threshold (warning, or debug with
    /// --verbose) and runs.
    static int main(const std::vector<std::string>& arguments, std::ostream& out, std::ostream& err,
                    bool progressBar);
};

}  // namespace TovikSupport
