// What a manager of log files offers for a support request: saving the logs
// it manages into a folder, and emptying them. FileLogManager manages one log
// file; LogManager drives several managers as one.
#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <variant>
#include <vector>

#include "Tovik/Logger/LogHandlerProtocol.h"

namespace Tovik {

/// Which subsystems a save covers. `whole` with options that carry no dates
/// asks for the whole log cut to the size budget. With dates: `whole` gives
/// one file with every record of the period, `single` one file with the
/// records of the listed subsystems, `some` one file per listed subsystem and
/// `all` one file per subsystem found.
class LogSubsystemSelector {
public:
    enum class Kind { some, single, whole, all };

    static LogSubsystemSelector some(std::vector<std::string> names) { return {Kind::some, std::move(names)}; }
    static LogSubsystemSelector single(std::vector<std::string> names) { return {Kind::single, std::move(names)}; }
    static LogSubsystemSelector whole() { return {Kind::whole, {}}; }
    static LogSubsystemSelector all() { return {Kind::all, {}}; }

    Kind kind() const { return kind_; }
    /// The listed subsystem names (`some` and `single`; empty otherwise).
    const std::vector<std::string>& names() const { return names_; }

    friend bool operator==(const LogSubsystemSelector&, const LogSubsystemSelector&) = default;

private:
    LogSubsystemSelector(Kind kind, std::vector<std::string> names) : kind_(kind), names_(std::move(names)) {}

    Kind kind_;
    std::vector<std::string> names_;
};

/// The period and size budget of a save; every field may be absent.
struct LogSavingOpts {
    std::optional<Date> startDate;   ///< absent: no lower bound
    std::optional<Date> endDate;     ///< absent: no upper bound
    std::optional<int64_t> maxSize;  ///< bytes per delivered file; absent: no budget

    static LogSavingOpts init(std::optional<Date> startDate = std::nullopt, std::optional<Date> endDate = std::nullopt,
                              std::optional<int64_t> maxSize = std::nullopt) {
        return {startDate, endDate, maxSize};
    }
};

class LogManagerProtocol {
public:
    /// The block size managers read log files with (1 MiB).
    static constexpr std::size_t DEFAULT_READ_BUFSIZE = 1048576;

    virtual ~LogManagerProtocol() = default;

    /// Writes the selected logs into `folder`; returns the written paths.
    /// Throws std::system_error (or another std::exception) on failure.
    virtual std::vector<std::string> saveLogs(const LogSubsystemSelector& selecting, const std::string& inFolder,
                                              const LogSavingOpts& opts) = 0;
    /// Empties the managed logs. The default only logs "Do nothing".
    virtual void resetLog();
};

}  // namespace Tovik
