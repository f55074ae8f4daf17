// A small HTTP/1.1 server on 127.0.0.1 for tests that need a real backend.
//
// It listens on a free loopback port from construction, serves the
// connections one at a time on its own thread, records each request and
// answers with the configured status and a "{}" body, then closes the
// connection. After one request it stops listening, so later connections are
// refused. Every read is bounded by 10 s; the destructor stops the thread and
// closes every socket.
#pragma once

#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <mutex>
#include <optional>
#include <string>
#include <string_view>
#include <thread>
#include <utility>
#include <vector>

namespace TestSupport {

struct HttpRequest {
    /// "POST /v1/apps/uninstall HTTP/1.1"
    std::string requestLine;
    /// In arrival order, names as sent.
    std::vector<std::pair<std::string, std::string>> headers;
    std::string body;

    /// The first header of that name (case-insensitive), or absent.
    std::optional<std::string> header(std::string_view name) const;
};

class LoopbackHttpServer {
public:
    /// Binds and listens at once; fails the current test (and then refuses
    /// every connection) when it cannot. respond false: record the request but
    /// never answer, holding the connection until the peer gives up, 10 s pass
    /// or shutdown (for client time-out tests).
    explicit LoopbackHttpServer(int status = 200, bool respond = true);
    ~LoopbackHttpServer();
    LoopbackHttpServer(const LoopbackHttpServer&) = delete;
    LoopbackHttpServer& operator=(const LoopbackHttpServer&) = delete;

    std::uint16_t port() const { return port_; }
    /// "http://127.0.0.1:<port>"
    std::string url() const { return "http://127.0.0.1:" + std::to_string(port_); }

    /// The requests received so far, complete ones only.
    std::vector<HttpRequest> requests() const;
    /// Waits until the request has been received and answered; false at the deadline.
    bool waitForRequest(std::chrono::milliseconds deadline) const;

private:
    void serve();
    void serveConnection(int connection);

    const int status_;
    const bool respond_;
    int listener_ = -1;
    std::uint16_t port_ = 0;
    std::thread thread_;

    mutable std::mutex mutex_;
    mutable std::condition_variable changed_;
    std::vector<HttpRequest> requests_;  // guarded by mutex_
    bool answered_ = false;              // guarded by mutex_
    int connection_ = -1;                // the one being served; guarded by mutex_
    bool stopping_ = false;              // guarded by mutex_
};

/// A port on 127.0.0.1 for client failure tests. listening true: connections
/// complete into the backlog but are never accepted nor answered (the client
/// times out); false: the port is bound but not listening, so every connection
/// is refused. The port is held until destruction.
class LoopbackPort {
public:
    explicit LoopbackPort(bool listening);
    ~LoopbackPort();
    LoopbackPort(const LoopbackPort&) = delete;
    LoopbackPort& operator=(const LoopbackPort&) = delete;

    std::uint16_t port() const { return port_; }
    /// "http://127.0.0.1:<port>"
    std::string url() const { return "http://127.0.0.1:" + std::to_string(port_); }

private:
    int socket_ = -1;
    std::uint16_t port_ = 0;
};

}  // namespace TestSupport
