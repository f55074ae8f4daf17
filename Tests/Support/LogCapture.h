// A scope that makes a RecordingLogHandler the shared logger's only handler.
#pragma once

#include <memory>

#include "Support/RecordingLogHandler.h"
#include "Tovik/Logger/Logger.h"

namespace TestSupport {

/// Installs a fresh RecordingLogHandler as the only handler of
/// Logger::shared() at `level`; restores the previous handlers and level when
/// it goes away.
class ScopedLogCapture {
public:
    explicit ScopedLogCapture(Tovik::LogLevel level = Tovik::LogLevel::verbose)
        : previousHandlers_(Tovik::Logger::shared().handlers()),
          previousLevel_(Tovik::Logger::shared().logLevel()) {
        Tovik::Logger::shared().setHandlers({recorder_});
        Tovik::Logger::shared().setLogLevel(level);
    }
    ~ScopedLogCapture() {
        Tovik::Logger::shared().setHandlers(previousHandlers_);
        Tovik::Logger::shared().setLogLevel(previousLevel_);
    }
    ScopedLogCapture(const ScopedLogCapture&) = delete;
    ScopedLogCapture& operator=(const ScopedLogCapture&) = delete;

    const RecordingLogHandler& recorder() const { return *recorder_; }

private:
    std::shared_ptr<RecordingLogHandler> recorder_ = std::make_shared<RecordingLogHandler>();
    Tovik::Logger::HandlerList previousHandlers_;
    Tovik::LogLevel previousLevel_;
};

}  // namespace TestSupport
