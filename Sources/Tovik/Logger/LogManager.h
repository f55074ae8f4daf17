// Drives several log managers as one: saves the logs of all of them, in
// parallel, into one folder, and resets all of them.
#pragma once

#include <memory>
#include <string>
#include <vector>

#include "Tovik/Logger/LogManagerProtocol.h"

namespace Tovik {

class LogManager : public LogManagerProtocol {
public:
    using Handlers = std::vector<std::shared_ptr<LogManagerProtocol>>;

    /// The process-wide manager, created on first use as a LogManager with no
    /// handlers. Reading and replacing it are thread-safe; a save that already
    /// took the old one finishes with it.
    static std::shared_ptr<LogManagerProtocol> shared();
    static void setShared(std::shared_ptr<LogManagerProtocol> manager);

    explicit LogManager(Handlers handlers = {});

    /// The managers driven, in order. Not synchronised: set them before a
    /// save or reset starts, not while one runs.
    const Handlers& handlers() const { return handlers_; }
    void setHandlers(Handlers handlers) { handlers_ = std::move(handlers); }

    /// Runs saveLogs of every handler at the same time on the user-initiated
    /// global queue and blocks until all have finished. Returns their paths,
    /// grouped per handler in the order the handlers finished. A handler that
    /// throws is logged ("<type> Failed to save logs: <error>") and left out;
    /// the others are not affected. Never throws.
    std::vector<std::string> saveLogs(const LogSubsystemSelector& selecting, const std::string& inFolder,
                                      const LogSavingOpts& opts) override;

    /// Resets every handler in order, on the calling thread. A handler that
    /// throws is logged ("<type> Failed to reset log: <error>"); the next
    /// ones are still reset. Never throws.
    void resetLog() override;

private:
    Handlers handlers_;
};

}  // namespace Tovik
