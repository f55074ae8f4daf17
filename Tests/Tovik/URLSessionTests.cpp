// Request retry against loopback peers: a port that never answers (time-out),
// a refused port, a server that answers 500, and cancellation.
#include "Tovik/URLSession.h"

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <future>
#include <string>
#include <vector>

#include "Support/LogCapture.h"
#include "Support/LoopbackHttpServer.h"
#include "Support/TestSupport.h"

namespace {

using Foundation::URLRequest;
using Foundation::URLSession;

struct Outcome {
    std::optional<URLSession::Data> data;
    std::optional<Foundation::HTTPURLResponse> response;
    std::optional<Foundation::NSError> error;
};

constexpr std::string_view tag = "V: (URLSession: execute(_:)) ";

class URLSessionRetryTest : public ::testing::Test {
protected:
    // Sends request with retry and waits for the callback; then checks that
    // it came once and that no attempt is left running.
    Outcome send(URLRequest request, unsigned maxRetries, const std::function<void()>& whileWaiting = {}) {
        auto callback = callback_;
        Tovik::execute(session_, std::move(request), maxRetries,
                       [callback](auto data, auto response, auto error) {
                           callback->call({std::move(data), std::move(response), std::move(error)});
                       });
        if (whileWaiting) whileWaiting();
        return outcome();
    }
    Outcome outcome() {
        auto future = callback_->promise.get_future();
        if (future.wait_for(std::chrono::seconds(20)) != std::future_status::ready) {
            ADD_FAILURE() << "no callback";
            return {};
        }
        queue_.sync([] {});  // the completion that called back has returned
        EXPECT_TRUE(!session_ || session_->allTasks().empty());
        EXPECT_EQ(callback_->calls, 1);
        return future.get();
    }

    // Outlives the test when a late callback comes.
    struct Callback {
        std::promise<Outcome> promise;
        std::atomic<int> calls{0};
        void call(Outcome outcome) {
            if (++calls == 1) promise.set_value(std::move(outcome));
        }
    };

    // The retry records, without their tag.
    std::vector<std::string> retryLines() const { return retryLines(capture_); }
    static std::vector<std::string> retryLines(const TestSupport::ScopedLogCapture& capture) {
        std::vector<std::string> lines;
        for (const auto& line : capture.recorder().lines())
            if (line.starts_with(tag)) lines.push_back(line.substr(tag.size()));
        return lines;
    }

    static URLRequest request(const std::string& url, double timeout = 0.2) {
        return URLRequest(url, URLRequest::CachePolicy::useProtocolCachePolicy, timeout);
    }

    TestSupport::ScopedLogCapture capture_{Tovik::LogLevel::verbose};
    Dispatch::DispatchQueue queue_{"URLSessionRetryTest"};
    std::shared_ptr<URLSession> session_ = URLSession::create(queue_);
    std::shared_ptr<Callback> callback_ = std::make_shared<Callback>();
};

std::string failedWith(long code) {
    return "Request failed with error: Error Domain=NSURLErrorDomain Code=" + std::to_string(code);
}

TEST_F(URLSessionRetryTest, TimeOutIsRetriedUpToMaxRetries) {
    TestSupport::LoopbackPort silent(true);
    Outcome outcome = send(request(silent.url() + "/"), 3);

    ASSERT_TRUE(outcome.error);
    EXPECT_EQ(outcome.error->domain, "NSURLErrorDomain");
    EXPECT_EQ(outcome.error->code, -1001);
    EXPECT_FALSE(outcome.response);
    const auto lines = retryLines();
    ASSERT_EQ(lines.size(), 9u) << ::testing::PrintToString(lines);
    for (size_t i : {0u, 3u, 6u}) EXPECT_TRUE(lines[i].starts_with(failedWith(-1001))) << lines[i];
    EXPECT_EQ(lines[1], "Request retries count: 1");
    EXPECT_EQ(lines[2], "New attemp to send request");
    EXPECT_EQ(lines[4], "Request retries count: 2");
    EXPECT_EQ(lines[5], "New attemp to send request");
    EXPECT_EQ(lines[7], "Request retries count: 3");
    EXPECT_EQ(lines[8], "Request - exceeded limit");
}

TEST_F(URLSessionRetryTest, RefusedConnectionIsRetriedAndReportedAsCannotConnect) {
    TestSupport::LoopbackPort refusing(false);
    Outcome outcome = send(request(refusing.url() + "/"), 2);

    ASSERT_TRUE(outcome.error);
    EXPECT_EQ(outcome.error->code, -1004);
    const auto lines = retryLines();
    ASSERT_EQ(lines.size(), 6u) << ::testing::PrintToString(lines);
    EXPECT_TRUE(lines[3].starts_with(failedWith(-1004))) << lines[3];
    EXPECT_EQ(lines[4], "Request retries count: 2");
    EXPECT_EQ(lines[5], "Request - exceeded limit");
}

TEST_F(URLSessionRetryTest, MaxRetriesZeroOrOneMakesOneAttempt) {
    TestSupport::LoopbackPort refusing(false);
    for (unsigned maxRetries : {0u, 1u}) {
        TestSupport::ScopedLogCapture capture(Tovik::LogLevel::verbose);
        callback_ = std::make_shared<Callback>();
        Outcome outcome = send(request(refusing.url() + "/"), maxRetries);
        ASSERT_TRUE(outcome.error);
        EXPECT_EQ(outcome.error->code, -1004);
        const auto lines = retryLines(capture);
        ASSERT_EQ(lines.size(), 3u) << ::testing::PrintToString(lines);
        EXPECT_EQ(lines[1], "Request retries count: 1");
        EXPECT_EQ(lines[2], "Request - exceeded limit");
    }
}

TEST_F(URLSessionRetryTest, RecordsOnlyAtVerbose) {
    TestSupport::LoopbackPort refusing(false);
    TestSupport::ScopedLogCapture capture(Tovik::LogLevel::debug);
    Outcome outcome = send(request(refusing.url() + "/"), 2);
    ASSERT_TRUE(outcome.error);
    EXPECT_EQ(outcome.error->code, -1004);
    EXPECT_TRUE(capture.recorder().lines().empty());
}

TEST_F(URLSessionRetryTest, HttpErrorStatusIsAnAnswerNotARetry) {
    TestSupport::LoopbackHttpServer server(500);
    Outcome outcome = send(request(server.url() + "/stats", 10), 3);

    EXPECT_FALSE(outcome.error);
    ASSERT_TRUE(outcome.response);
    EXPECT_EQ(outcome.response->statusCode, 500);
    EXPECT_EQ(outcome.data, URLSession::Data({'{', '}'}));
    EXPECT_EQ(server.requests().size(), 1u);
    EXPECT_TRUE(retryLines().empty());
}

TEST_F(URLSessionRetryTest, CancelledRequestIsNotRetried) {
    TestSupport::LoopbackPort silent(true);
    Outcome outcome = send(request(silent.url() + "/", 60), 3, [&] {
        ASSERT_TRUE(TestSupport::waitUntil([&] { return !session_->allTasks().empty(); }));
        for (const auto& task : session_->allTasks()) task->cancel();
    });

    ASSERT_TRUE(outcome.error);
    EXPECT_EQ(outcome.error->code, -999);
    const auto lines = retryLines();
    ASSERT_EQ(lines.size(), 1u) << ::testing::PrintToString(lines);
    EXPECT_TRUE(lines[0].starts_with(failedWith(-999))) << lines[0];
}

TEST_F(URLSessionRetryTest, SessionGoneBeforeRetryReportsLastAttempt) {
    TestSupport::LoopbackPort refusing(false);
    // Completions wait behind this item until the session has been dropped.
    std::promise<void> release;
    std::shared_future<void> released = release.get_future().share();
    queue_.async([released] { released.wait(); });

    auto callback = callback_;
    Tovik::execute(session_, request(refusing.url() + "/"), 3, [callback](auto data, auto response, auto error) {
        callback->call({std::move(data), std::move(response), std::move(error)});
    });
    ASSERT_TRUE(TestSupport::waitUntil([&] { return session_->allTasks().empty(); }));
    session_.reset();
    release.set_value();

    Outcome result = outcome();
    ASSERT_TRUE(result.error);
    EXPECT_EQ(result.error->code, -1004);
    const auto lines = retryLines();
    ASSERT_EQ(lines.size(), 2u) << ::testing::PrintToString(lines);
    EXPECT_EQ(lines[1], "Request retries count: 1");
}

}  // namespace
