// Sending a request with automatic retry on transient network errors.
//
// execute(session, request, maxRetries, callback) sends request on session
// and, when an attempt fails with a transient error (time-out, host not
// found, cannot connect, connection lost, DNS failure, or POSIX EPROTOTYPE),
// sends it again at once, up to maxRetries attempts in all (at least one).
// Any other error, an HTTP answer of any status, or the last allowed attempt
// ends the request.
//
// The callback is called exactly once, on the session's delegate queue, with
// the data, response and error of the last attempt. Attempts of one request
// never overlap. The session is not kept alive by a request: when it is gone
// by the time a retry is due, the callback gets the failed attempt's outcome.
//
// With the shared logger at verbose, each failure and retry decision is
// logged (tag "URLSession: execute(_:)").
#pragma once

#include <functional>
#include <memory>
#include <optional>

#include "URLLoading/NSError.h"
#include "URLLoading/URLSession.h"

namespace Tovik {

/// One request carried from attempt to attempt.
struct URLSessionRequestRecord {
    using Callback = std::function<void(std::optional<Foundation::URLSession::Data>,
                                        std::optional<Foundation::HTTPURLResponse>,
                                        std::optional<Foundation::NSError>)>;

    /// Sent unchanged on every attempt.
    Foundation::URLRequest urlRequest;
    /// The number of the attempt in flight, from 1.
    unsigned retriesCount = 1;
    /// The highest attempt number allowed.
    unsigned maxRetries = 1;
    Callback callback;
};

/// Starts the request as attempt 1. No result; see the banner. session must
/// not be null.
void execute(const std::shared_ptr<Foundation::URLSession>& session, Foundation::URLRequest request,
             unsigned maxRetries, URLSessionRequestRecord::Callback callback);

/// Sends record's request as attempt record.retriesCount.
void execute(const std::shared_ptr<Foundation::URLSession>& session, URLSessionRequestRecord record);

/// True for the errors a request is retried on: NSURLErrorDomain -1001,
/// -1003, -1004, -1005, -1006 and NSPOSIXErrorDomain 41 (EPROTOTYPE).
bool isTransientNetworkError(const Foundation::NSError& error);

}  // namespace Tovik
