#include "Tovik/URLSession.h"

#include <algorithm>
#include <array>
#include <chrono>
#include <string>
#include <string_view>
#include <utility>

#include "Tovik/Logger/Logger.h"

namespace Tovik {

namespace {

struct TransientError {
    std::string_view domain;
    long code;
};

constexpr std::array<TransientError, 6> transientErrors{{
    {Foundation::NSURLErrorDomain, -1001},   // timed out
    {Foundation::NSURLErrorDomain, -1003},   // cannot find host
    {Foundation::NSURLErrorDomain, -1004},   // cannot connect to host
    {Foundation::NSURLErrorDomain, -1005},   // network connection lost
    {Foundation::NSURLErrorDomain, -1006},   // DNS lookup failed
    {Foundation::NSPOSIXErrorDomain, 41},    // EPROTOTYPE
}};

// The retry records go straight to the handlers, and only at verbose.
void trace(const std::string& message) {
    Logger& logger = Logger::shared();
    if (logger.logLevel() != LogLevel::verbose) return;
    const std::string text = "V: (URLSession: execute(_:)) " + message;
    const auto date = std::chrono::system_clock::now();
    for (const auto& handler : logger.handlers()) handler->log(LogLevel::verbose, date, text);
}

}  // namespace

bool isTransientNetworkError(const Foundation::NSError& error) {
    return std::any_of(transientErrors.begin(), transientErrors.end(), [&](const TransientError& transient) {
        return transient.domain == error.domain && transient.code == error.code;
    });
}

void execute(const std::shared_ptr<Foundation::URLSession>& session, Foundation::URLRequest request,
             unsigned maxRetries, URLSessionRequestRecord::Callback callback) {
    execute(session, URLSessionRequestRecord{std::move(request), 1, maxRetries, std::move(callback)});
}

void execute(const std::shared_ptr<Foundation::URLSession>& session, URLSessionRequestRecord record) {
    std::weak_ptr<Foundation::URLSession> weakSession = session;
    Foundation::URLRequest request = record.urlRequest;
    auto completion = [weakSession, record = std::move(record)](std::optional<Foundation::URLSession::Data> data,
                                                                std::optional<Foundation::HTTPURLResponse> response,
                                                                std::optional<Foundation::NSError> error) mutable {
        if (!error) {
            record.callback(std::move(data), std::move(response), std::nullopt);
            return;
        }
        trace("Request failed with error: " + error->description());
        if (!isTransientNetworkError(*error)) {
            record.callback(std::move(data), std::move(response), std::move(error));
            return;
        }
        trace("Request retries count: " + std::to_string(record.retriesCount));
        record.retriesCount += 1;
        if (record.retriesCount <= record.maxRetries) {
            if (auto session = weakSession.lock()) {
                trace("New attemp to send request");
                execute(session, std::move(record));
                return;
            }
            // The session is gone: no attempt can be made, report this one.
            record.callback(std::move(data), std::move(response), std::move(error));
            return;
        }
        trace("Request - exceeded limit");
        record.callback(std::move(data), std::move(response), std::move(error));
    };
    session->dataTask(std::move(request), std::move(completion))->resume();
}

}  // namespace Tovik
