// The URL session stand-in: what goes on the wire, where and how often
// completions arrive, cancellation and session teardown, and the error
// mapping (the failures no loopback peer can stage without outside traffic).
#include <curl/curl.h>
#include <gtest/gtest.h>

#include <atomic>
#include <cerrno>
#include <chrono>
#include <future>
#include <string>

#include "Support/LoopbackHttpServer.h"
#include "Support/TestSupport.h"
#include "URLLoading/URLError.h"
#include "URLLoading/URLSession.h"

namespace {

using Foundation::NSError;
using Foundation::URLRequest;
using Foundation::URLSession;

struct Outcome {
    std::optional<URLSession::Data> data;
    std::optional<Foundation::HTTPURLResponse> response;
    std::optional<NSError> error;
    bool onDelegateQueue = false;
};

class URLLoadingTest : public ::testing::Test {
protected:
    // A completion handler that records the first call and counts them all.
    URLSession::CompletionHandler recorder() {
        return [outcome = outcome_, calls = calls_, queue = queue_](auto data, auto response, auto error) {
            if (++*calls == 1)
                outcome->set_value({std::move(data), std::move(response), std::move(error), queue.isCurrent()});
        };
    }
    Outcome outcome() {
        auto future = outcome_->get_future();
        if (future.wait_for(std::chrono::seconds(20)) != std::future_status::ready) {
            ADD_FAILURE() << "no completion";
            return {};
        }
        queue_.sync([] {});  // later calls, if any, would be queued by now
        EXPECT_EQ(*calls_, 1);
        return future.get();
    }

    Dispatch::DispatchQueue queue_{"URLLoadingTest"};
    std::shared_ptr<URLSession> session_ = URLSession::create(queue_);
    // Shared with the handler, which may run after a failed test.
    std::shared_ptr<std::promise<Outcome>> outcome_ = std::make_shared<std::promise<Outcome>>();
    std::shared_ptr<std::atomic<int>> calls_ = std::make_shared<std::atomic<int>>(0);
};

TEST_F(URLLoadingTest, SendsMethodHeadersAndBodyAndDeliversTheAnswerOnTheDelegateQueue) {
    TestSupport::LoopbackHttpServer server(201);
    URLRequest request(server.url() + "/v1/events?x=1");
    request.httpMethod = "PUT";
    request.setValue("application/json", "Content-Type");
    request.setValue("one", "X-Trace");
    request.setValue("two", "x-trace");  // replaces, whatever the case
    request.httpBody = URLSession::Data{'{', '"', 'a', '"', ':', '1', '}'};
    session_->dataTask(request, recorder())->resume();

    Outcome result = outcome();
    EXPECT_TRUE(result.onDelegateQueue);
    EXPECT_FALSE(result.error);
    ASSERT_TRUE(result.response);
    EXPECT_EQ(result.response->statusCode, 201);
    EXPECT_EQ(result.response->url, request.url);
    EXPECT_EQ(result.response->value("content-type"), "application/json");
    EXPECT_EQ(result.data, URLSession::Data({'{', '}'}));

    const auto requests = server.requests();
    ASSERT_EQ(requests.size(), 1u);
    const TestSupport::HttpRequest& sent = requests[0];
    EXPECT_EQ(sent.requestLine, "PUT /v1/events?x=1 HTTP/1.1");
    EXPECT_EQ(sent.header("Content-Type"), "application/json");
    EXPECT_EQ(sent.header("X-Trace"), "two");
    EXPECT_EQ(sent.body, "{\"a\":1}");
}

TEST_F(URLLoadingTest, CancelBeforeResumeCompletesOnceAsCancelled) {
    auto task = session_->dataTask(URLRequest("http://127.0.0.1:9/"), recorder());
    task->cancel();
    task->resume();
    task->cancel();

    Outcome result = outcome();
    ASSERT_TRUE(result.error);
    EXPECT_EQ(result.error->domain, "NSURLErrorDomain");
    EXPECT_EQ(result.error->code, -999);
    EXPECT_EQ(task->state(), Foundation::URLSessionDataTask::State::completed);
}

TEST_F(URLLoadingTest, DestroyingTheSessionCancelsTasksInFlight) {
    TestSupport::LoopbackPort silent(true);
    auto task = session_->dataTask(URLRequest(silent.url() + "/"), recorder());
    task->resume();
    session_.reset();  // returns once the transfer thread has ended

    Outcome result = outcome();
    ASSERT_TRUE(result.error);
    EXPECT_EQ(result.error->code, -999);
    EXPECT_EQ(task->state(), Foundation::URLSessionDataTask::State::completed);
}

TEST(URLErrorMapping, TransferFailuresBecomeThePlatformsErrors) {
    struct Case {
        int curlCode;
        int osErrno;
        std::string_view domain;
        long code;
    };
    const std::string_view url = Foundation::NSURLErrorDomain;
    const std::string_view posix = Foundation::NSPOSIXErrorDomain;
    const Case cases[] = {
        {CURLE_OPERATION_TIMEDOUT, 0, url, -1001},
        {CURLE_COULDNT_RESOLVE_HOST, 0, url, -1003},
        {CURLE_COULDNT_CONNECT, ECONNREFUSED, url, -1004},
        {CURLE_COULDNT_CONNECT, ETIMEDOUT, url, -1001},
        {CURLE_COULDNT_CONNECT, ENETUNREACH, url, -1009},
        {CURLE_RECV_ERROR, ECONNRESET, url, -1005},
        {CURLE_GOT_NOTHING, 0, url, -1005},
        {CURLE_COULDNT_RESOLVE_PROXY, 0, url, -1006},
        {CURLE_ABORTED_BY_CALLBACK, 0, url, -999},
        {CURLE_SEND_ERROR, EPROTOTYPE, posix, EPROTOTYPE},
        {CURLE_RECV_ERROR, EIO, posix, EIO},
        {CURLE_PEER_FAILED_VERIFICATION, 0, url, -1202},
        {CURLE_FILESIZE_EXCEEDED, 0, url, -1},
    };
    for (const Case& c : cases) {
        const NSError error = Foundation::errorForTransfer(c.curlCode, c.osErrno, "http://h/", "");
        EXPECT_EQ(error.domain, c.domain) << "CURLcode " << c.curlCode << ", errno " << c.osErrno;
        EXPECT_EQ(error.code, c.code) << "CURLcode " << c.curlCode << ", errno " << c.osErrno;
    }
    EXPECT_EQ(Foundation::errorForTransfer(CURLE_COULDNT_RESOLVE_HOST, 0, "http://h/", "no such host").description(),
              "Error Domain=NSURLErrorDomain Code=-1003 \"A server with the specified hostname could not be found.\" "
              "UserInfo={NSErrorFailingURLStringKey=http://h/, NSLocalizedFailureReason=no such host}");
}

}  // namespace
