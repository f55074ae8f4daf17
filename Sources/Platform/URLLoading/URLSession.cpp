#include "URLLoading/URLSession.h"

#include <curl/curl.h>

#include <algorithm>
#include <atomic>
#include <cmath>
#include <mutex>
#include <string>
#include <thread>
#include <utility>

#include "URLLoading/URLError.h"
#include "VLVpnClient/CurlLibrary.h"

namespace Foundation {

using VLVpnClient::CurlLibrary;

namespace detail {

// The libcurl side of one task in flight.
struct Transfer {
    explicit Transfer(const CurlLibrary& curl)
        : easy(curl.easyInit(), curl.easyCleanup), headers(nullptr, curl.slistFreeAll) {}

    std::unique_ptr<CURL, void (*)(CURL*)> easy;
    std::unique_ptr<curl_slist, void (*)(curl_slist*)> headers;
    URLSession::Data received;
    std::vector<std::pair<std::string, std::string>> responseHeaders;
    char errorText[CURL_ERROR_SIZE] = {};
};

namespace {

size_t collectBody(char* bytes, size_t size, size_t count, void* context) {
    auto* transfer = static_cast<Transfer*>(context);
    transfer->received.insert(transfer->received.end(), bytes, bytes + size * count);
    return size * count;
}

// One header line per call; a status line starts a new head (after a redirect
// or an interim 1xx answer, only the last head counts).
size_t collectHeader(char* bytes, size_t size, size_t count, void* context) {
    auto* transfer = static_cast<Transfer*>(context);
    std::string_view line(bytes, size * count);
    while (!line.empty() && (line.back() == '\n' || line.back() == '\r')) line.remove_suffix(1);
    if (line.starts_with("HTTP/")) {
        transfer->responseHeaders.clear();
    } else if (auto colon = line.find(':'); colon != std::string_view::npos) {
        std::string_view value = line.substr(colon + 1);
        while (!value.empty() && (value.front() == ' ' || value.front() == '\t')) value.remove_prefix(1);
        transfer->responseHeaders.emplace_back(std::string(line.substr(0, colon)), std::string(value));
    }
    return size * count;
}

std::uint64_t nextIdentifier() {
    static std::atomic<std::uint64_t> last{0};
    return ++last;
}

}  // namespace

// Runs the transfers of one session on its own thread over a curl multi
// handle. Tasks reach it through start() and cancel(); the thread takes them
// up between polls, and wakes up for them at once.
class TransferEngine {
public:
    explicit TransferEngine(Dispatch::DispatchQueue delegateQueue) : delegateQueue_(std::move(delegateQueue)) {}

    ~TransferEngine() {
        invalidate();
        if (multi_ != nullptr) curl_->multiCleanup(multi_);
    }

    void start(const std::shared_ptr<URLSessionDataTask>& task) {
        std::unique_lock guard(mutex_);
        if (task->state_ != URLSessionDataTask::State::suspended) return;
        if (invalidated_ || !startWorker()) {
            const NSError error = invalidated_ ? makeURLError(URLError::cancelled, task->request_.url)
                                               : makeURLError(URLError::unknown, task->request_.url, loadError_);
            finishLocked(guard, *task, std::nullopt, std::nullopt, error);
            return;
        }
        task->state_ = URLSessionDataTask::State::running;
        pending_.push_back(task);
        live_.push_back(task);
        curl_->multiWakeup(multi_);
    }

    void cancel(URLSessionDataTask& task) {
        std::unique_lock guard(mutex_);
        switch (task.state_) {
            case URLSessionDataTask::State::suspended:
                finishLocked(guard, task, std::nullopt, std::nullopt,
                             makeURLError(URLError::cancelled, task.request_.url));
                return;
            case URLSessionDataTask::State::running:
                task.state_ = URLSessionDataTask::State::canceling;
                curl_->multiWakeup(multi_);
                return;
            case URLSessionDataTask::State::canceling:
            case URLSessionDataTask::State::completed: return;
        }
    }

    void invalidate() {
        {
            std::lock_guard guard(mutex_);
            invalidated_ = true;
            if (multi_ != nullptr) curl_->multiWakeup(multi_);
        }
        // The worker never runs callers' code, so it never gets here itself.
        if (worker_.joinable()) worker_.join();
    }

    std::vector<std::shared_ptr<URLSessionDataTask>> tasks() const {
        std::lock_guard guard(mutex_);
        return live_;
    }

    URLSessionDataTask::State state(const URLSessionDataTask& task) const {
        std::lock_guard guard(mutex_);
        return task.state_;
    }

private:
    // With mutex_ held: loads libcurl and starts the thread on first use.
    bool startWorker() {
        if (worker_.joinable()) return true;
        if (curl_ == nullptr) {
            curl_ = CurlLibrary::shared();
            if (curl_ == nullptr) {
                loadError_ = CurlLibrary::loadError();
                return false;
            }
        }
        if (multi_ == nullptr) multi_ = curl_->multiInit();
        if (multi_ == nullptr) {
            loadError_ = "curl_multi_init failed";
            return false;
        }
        worker_ = std::thread([this] { run(); });
        return true;
    }

    // Completes task once: takes its handler and queues the call (after
    // unlocking guard, so handlers are queued without the lock held).
    void finishLocked(std::unique_lock<std::mutex>& guard, URLSessionDataTask& task,
                      std::optional<URLSession::Data> data, std::optional<HTTPURLResponse> response,
                      std::optional<NSError> error) {
        if (task.state_ == URLSessionDataTask::State::completed) return;
        task.state_ = URLSessionDataTask::State::completed;
        std::erase_if(live_, [&](const auto& other) { return other.get() == &task; });
        URLSession::CompletionHandler handler = std::move(task.completionHandler_);
        guard.unlock();
        if (!handler) return;
        delegateQueue_.async([handler = std::move(handler), data = std::move(data), response = std::move(response),
                              error = std::move(error)]() mutable {
            handler(std::move(data), std::move(response), std::move(error));
        });
    }

    void finish(URLSessionDataTask& task, std::optional<URLSession::Data> data,
                std::optional<HTTPURLResponse> response, std::optional<NSError> error) {
        std::unique_lock guard(mutex_);
        // Cancelled while the transfer ended: cancelled it is.
        if (task.state_ == URLSessionDataTask::State::canceling) {
            data.reset();
            response.reset();
            error = makeURLError(URLError::cancelled, task.request_.url);
        }
        finishLocked(guard, task, std::move(data), std::move(response), std::move(error));
    }

    // Transfer thread: sets task's transfer up; false (task finished) when libcurl cannot.
    bool begin(URLSessionDataTask& task) {
        const URLRequest& request = task.request_;
        auto transfer = std::make_unique<Transfer>(*curl_);
        CURL* easy = transfer->easy.get();
        if (easy == nullptr) {
            finish(task, std::nullopt, std::nullopt, errorForTransfer(CURLE_FAILED_INIT, 0, request.url, {}));
            return false;
        }
        const CurlLibrary& c = *curl_;
        c.easySetopt(easy, CURLOPT_URL, request.url.c_str());
        c.easySetopt(easy, CURLOPT_PROTOCOLS_STR, "http,https");
        c.easySetopt(easy, CURLOPT_REDIR_PROTOCOLS_STR, "http,https");
        c.easySetopt(easy, CURLOPT_FOLLOWLOCATION, 1L);
        c.easySetopt(easy, CURLOPT_MAXREDIRS, 16L);
        c.easySetopt(easy, CURLOPT_NOSIGNAL, 1L);
        c.easySetopt(easy, CURLOPT_NOPROXY, "localhost,127.0.0.1,::1");
        c.easySetopt(easy, CURLOPT_PRIVATE, static_cast<void*>(&task));
        c.easySetopt(easy, CURLOPT_ERRORBUFFER, transfer->errorText);
        c.easySetopt(easy, CURLOPT_WRITEFUNCTION, collectBody);
        c.easySetopt(easy, CURLOPT_WRITEDATA, transfer.get());
        c.easySetopt(easy, CURLOPT_HEADERFUNCTION, collectHeader);
        c.easySetopt(easy, CURLOPT_HEADERDATA, transfer.get());
        if (request.timeoutInterval > 0) {
            const long milliseconds = std::max(1L, std::lround(request.timeoutInterval * 1000.0));
            c.easySetopt(easy, CURLOPT_TIMEOUT_MS, milliseconds);
        }

        const std::string& method = request.httpMethod;
        if (method == "HEAD") {
            c.easySetopt(easy, CURLOPT_NOBODY, 1L);
        } else if (method != "GET" || request.httpBody) {
            if (method != "POST") c.easySetopt(easy, CURLOPT_CUSTOMREQUEST, method.c_str());
            const URLSession::Data empty;
            const URLSession::Data& body = request.httpBody ? *request.httpBody : empty;
            if (method == "POST" || request.httpBody) {
                c.easySetopt(easy, CURLOPT_POSTFIELDSIZE_LARGE, static_cast<curl_off_t>(body.size()));
                // Never a null pointer: libcurl would then read the body from stdin.
                const char* bytes = body.empty() ? "" : reinterpret_cast<const char*>(body.data());
                c.easySetopt(easy, CURLOPT_COPYPOSTFIELDS, bytes);
            }
        }

        curl_slist* headers = nullptr;
        bool expectSet = false;
        for (const auto& [name, value] : request.allHTTPHeaderFields) {
            expectSet = expectSet || headerFieldNamesEqual(name, "Expect");
            // "Name;" is libcurl's way of sending a field with an empty value.
            const std::string line = value.empty() ? name + ";" : name + ": " + value;
            headers = c.slistAppend(headers, line.c_str());
        }
        if (!expectSet) headers = c.slistAppend(headers, "Expect:");
        transfer->headers.reset(headers);
        c.easySetopt(easy, CURLOPT_HTTPHEADER, headers);

        if (c.multiAddHandle(multi_, easy) != CURLM_OK) {
            finish(task, std::nullopt, std::nullopt, errorForTransfer(CURLE_FAILED_INIT, 0, request.url, {}));
            return false;
        }
        task.transfer_ = std::move(transfer);
        return true;
    }

    // Transfer thread: takes task's transfer out of the multi handle and reports it.
    void end(URLSessionDataTask& task, std::optional<CURLcode> result) {
        std::unique_ptr<Transfer> transfer = std::move(task.transfer_);
        CURL* easy = transfer->easy.get();
        curl_->multiRemoveHandle(multi_, easy);
        if (!result) {
            finish(task, std::nullopt, std::nullopt, makeURLError(URLError::cancelled, task.request_.url));
            return;
        }
        if (*result != CURLE_OK) {
            long osErrno = 0;
            curl_->easyGetinfo(easy, CURLINFO_OS_ERRNO, &osErrno);
            finish(task, std::nullopt, std::nullopt,
                   errorForTransfer(*result, static_cast<int>(osErrno), task.request_.url, transfer->errorText));
            return;
        }
        HTTPURLResponse response;
        curl_->easyGetinfo(easy, CURLINFO_RESPONSE_CODE, &response.statusCode);
        const char* effectiveURL = nullptr;
        curl_->easyGetinfo(easy, CURLINFO_EFFECTIVE_URL, &effectiveURL);
        response.url = effectiveURL != nullptr ? effectiveURL : task.request_.url;
        response.allHeaderFields = std::move(transfer->responseHeaders);
        finish(task, std::move(transfer->received), std::move(response), std::nullopt);
    }

    void run() {
        std::vector<std::shared_ptr<URLSessionDataTask>> active;  // in the multi handle
        for (;;) {
            std::vector<std::shared_ptr<URLSessionDataTask>> arrived;
            std::vector<std::shared_ptr<URLSessionDataTask>> cancelled;
            bool stopping = false;
            {
                std::lock_guard guard(mutex_);
                stopping = invalidated_;
                arrived.swap(pending_);
                auto canceling = [](const auto& task) {
                    return task->state_ == URLSessionDataTask::State::canceling;
                };
                for (auto& task : active)
                    if (stopping || canceling(task)) cancelled.push_back(task);
                std::erase_if(active, [&](const auto& task) { return stopping || canceling(task); });
                for (auto& task : arrived)
                    if (stopping || canceling(task)) cancelled.push_back(task);
                std::erase_if(arrived, [&](const auto& task) { return stopping || canceling(task); });
            }
            for (auto& task : cancelled) {
                if (task->transfer_)
                    end(*task, std::nullopt);
                else
                    finish(*task, std::nullopt, std::nullopt, makeURLError(URLError::cancelled, task->request_.url));
            }
            if (stopping) return;
            for (auto& task : arrived)
                if (begin(*task)) active.push_back(std::move(task));

            int running = 0;
            curl_->multiPerform(multi_, &running);
            int queued = 0;
            while (CURLMsg* message = curl_->multiInfoRead(multi_, &queued)) {
                if (message->msg != CURLMSG_DONE) continue;
                void* owner = nullptr;
                curl_->easyGetinfo(message->easy_handle, CURLINFO_PRIVATE, &owner);
                const CURLcode result = message->data.result;
                auto found = std::find_if(active.begin(), active.end(),
                                          [&](const auto& task) { return task.get() == owner; });
                if (found == active.end()) continue;
                std::shared_ptr<URLSessionDataTask> task = std::move(*found);
                active.erase(found);
                end(*task, result);
            }
            // Woken early by start(), cancel() and invalidate().
            curl_->multiPoll(multi_, nullptr, 0, 1000, nullptr);
        }
    }

    const Dispatch::DispatchQueue delegateQueue_;
    const CurlLibrary* curl_ = nullptr;  // set once under mutex_, before the worker starts
    CURLM* multi_ = nullptr;             // likewise; then used by the worker (wake-ups from anyone)
    std::thread worker_;                 // started under mutex_, joined by invalidate()
    std::string loadError_;              // guarded by mutex_

    mutable std::mutex mutex_;
    bool invalidated_ = false;                                  // guarded by mutex_
    std::vector<std::shared_ptr<URLSessionDataTask>> pending_;  // resumed, not yet taken up; guarded by mutex_
    std::vector<std::shared_ptr<URLSessionDataTask>> live_;     // resumed, not completed; guarded by mutex_
};

}  // namespace detail

std::shared_ptr<URLSession> URLSession::create(std::optional<Dispatch::DispatchQueue> delegateQueue) {
    if (!delegateQueue) delegateQueue.emplace("com.apple.NSURLSession-delegate");
    return std::shared_ptr<URLSession>(new URLSession(std::move(*delegateQueue)));
}

URLSession::URLSession(Dispatch::DispatchQueue delegateQueue)
    : delegateQueue_(std::move(delegateQueue)), engine_(std::make_shared<detail::TransferEngine>(delegateQueue_)) {}

URLSession::~URLSession() { engine_->invalidate(); }

std::shared_ptr<URLSessionDataTask> URLSession::dataTask(URLRequest request, CompletionHandler completionHandler) {
    return std::shared_ptr<URLSessionDataTask>(
        new URLSessionDataTask(engine_, std::move(request), std::move(completionHandler)));
}

std::vector<std::shared_ptr<URLSessionDataTask>> URLSession::allTasks() const { return engine_->tasks(); }

void URLSession::invalidateAndCancel() { engine_->invalidate(); }

URLSessionDataTask::URLSessionDataTask(std::shared_ptr<detail::TransferEngine> engine, URLRequest request,
                                       URLSession::CompletionHandler completionHandler)
    : engine_(std::move(engine)),
      request_(std::move(request)),
      identifier_(detail::nextIdentifier()),
      completionHandler_(std::move(completionHandler)) {}

URLSessionDataTask::~URLSessionDataTask() = default;

void URLSessionDataTask::resume() {
    // The engine keeps a running task alive until it has completed.
    engine_->start(shared_from_this());
}

void URLSessionDataTask::cancel() { engine_->cancel(*this); }

URLSessionDataTask::State URLSessionDataTask::state() const { return engine_->state(*this); }

}  // namespace Foundation
