// A URL session: runs HTTP(S) data tasks and reports each one's outcome on the
// session's delegate queue.
//
// Transfers run on libcurl (opened on the first resumed task, once per
// process) on one transfer thread per session, started with the first task.
// A failed transfer is reported as the platform reports it (URLError.h has the
// mapping); an HTTP error status is not a failure: it arrives as a response.
//
// Completion handlers: each task's handler is called exactly once, on the
// delegate queue (a serial queue, so completions never overlap and arrive in
// the order the transfers ended). A handler may create and resume tasks, and
// may drop the last reference to the session. On success data and response are
// present and the error is absent; on failure only the error is present.
//
// Lifetime: the session is owned through shared_ptr. Destroying it cancels
// every task not yet completed (their handlers receive cancelled, -999) and
// waits for the transfer thread to end; handlers already queued still run. A
// task outlives its session harmlessly: resuming it then reports cancelled.
#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <vector>

#include "Dispatch/DispatchQueue.h"
#include "URLLoading/HTTPURLResponse.h"
#include "URLLoading/NSError.h"
#include "URLLoading/URLRequest.h"

namespace Foundation {

class URLSessionDataTask;
namespace detail {
class TransferEngine;
struct Transfer;
}  // namespace detail

class URLSession {
public:
    using Data = URLRequest::Data;
    using CompletionHandler =
        std::function<void(std::optional<Data>, std::optional<HTTPURLResponse>, std::optional<NSError>)>;

    /// delegateQueue must be serial; absent: the session makes a serial queue of its own.
    static std::shared_ptr<URLSession> create(std::optional<Dispatch::DispatchQueue> delegateQueue = std::nullopt);
    ~URLSession();
    URLSession(const URLSession&) = delete;
    URLSession& operator=(const URLSession&) = delete;

    const Dispatch::DispatchQueue& delegateQueue() const { return delegateQueue_; }

    /// A suspended task for request; nothing is sent before resume(). Any thread.
    std::shared_ptr<URLSessionDataTask> dataTask(URLRequest request, CompletionHandler completionHandler);

    /// The tasks resumed and not completed yet. Any thread.
    std::vector<std::shared_ptr<URLSessionDataTask>> allTasks() const;

    /// Cancels every task; tasks resumed later complete with cancelled at
    /// once. Returns when the transfer thread has ended. Any thread, completion
    /// handlers included (they never run on the transfer thread).
    void invalidateAndCancel();

private:
    explicit URLSession(Dispatch::DispatchQueue delegateQueue);

    Dispatch::DispatchQueue delegateQueue_;
    std::shared_ptr<detail::TransferEngine> engine_;
};

class URLSessionDataTask : public std::enable_shared_from_this<URLSessionDataTask> {
public:
    enum class State { running, suspended, canceling, completed };

    ~URLSessionDataTask();
    URLSessionDataTask(const URLSessionDataTask&) = delete;
    URLSessionDataTask& operator=(const URLSessionDataTask&) = delete;

    /// Starts a suspended task; does nothing otherwise. Any thread.
    void resume();
    /// Stops the task: its handler receives cancelled (-999), also when it was
    /// never resumed. Does nothing once the task has completed. Any thread.
    void cancel();

    State state() const;
    const URLRequest& originalRequest() const { return request_; }
    /// Unique within the process.
    std::uint64_t taskIdentifier() const { return identifier_; }

private:
    friend class URLSession;
    friend class detail::TransferEngine;

    URLSessionDataTask(std::shared_ptr<detail::TransferEngine> engine, URLRequest request,
                       URLSession::CompletionHandler completionHandler);

    const std::shared_ptr<detail::TransferEngine> engine_;
    const URLRequest request_;
    const std::uint64_t identifier_;
    // Guarded by the engine's lock.
    State state_ = State::suspended;
    URLSession::CompletionHandler completionHandler_;
    // The transfer in flight; touched by the transfer thread only.
    std::unique_ptr<detail::Transfer> transfer_;
};

}  // namespace Foundation
