#include "Support/LoopbackHttpServer.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <strings.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <sstream>

#include <gtest/gtest.h>

namespace TestSupport {

namespace {

/// One request from the bytes received so far; absent while it is incomplete.
std::optional<HttpRequest> parseRequest(const std::string& bytes) {
    const auto headerEnd = bytes.find("\r\n\r\n");
    if (headerEnd == std::string::npos) return std::nullopt;
    HttpRequest request;
    std::istringstream head(bytes.substr(0, headerEnd + 2));
    std::getline(head, request.requestLine);
    request.requestLine.pop_back();  // the '\r'
    for (std::string line; std::getline(head, line);) {
        line.pop_back();
        const auto colon = line.find(':');
        if (colon == std::string::npos) continue;
        std::string value = line.substr(colon + 1);
        value.erase(0, value.find_first_not_of(" \t"));
        request.headers.emplace_back(line.substr(0, colon), value);
    }
    const std::size_t length = std::strtoul(request.header("Content-Length").value_or("0").c_str(), nullptr, 10);
    if (bytes.size() < headerEnd + 4 + length) return std::nullopt;
    request.body = bytes.substr(headerEnd + 4, length);
    return request;
}

}  // namespace

std::optional<std::string> HttpRequest::header(std::string_view name) const {
    for (const auto& [key, value] : headers)
        if (key.size() == name.size() && ::strncasecmp(key.data(), name.data(), key.size()) == 0) return value;
    return std::nullopt;
}

LoopbackHttpServer::LoopbackHttpServer(int status, bool respond) : status_(status), respond_(respond) {
    listener_ = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t size = sizeof address;
    if (listener_ < 0 || ::bind(listener_, reinterpret_cast<sockaddr*>(&address), sizeof address) != 0 ||
        ::listen(listener_, 8) != 0 ||
        ::getsockname(listener_, reinterpret_cast<sockaddr*>(&address), &size) != 0) {
        ADD_FAILURE() << "LoopbackHttpServer: cannot listen on 127.0.0.1: " << std::strerror(errno);
        return;
    }
    port_ = ntohs(address.sin_port);
    thread_ = std::thread([this] { serve(); });
}

LoopbackHttpServer::~LoopbackHttpServer() {
    {
        // Shutting the sockets down wakes a blocked accept() or recv().
        std::lock_guard guard(mutex_);
        stopping_ = true;
        if (connection_ >= 0) ::shutdown(connection_, SHUT_RDWR);
    }
    if (listener_ >= 0) ::shutdown(listener_, SHUT_RDWR);
    if (thread_.joinable()) thread_.join();
    if (listener_ >= 0) ::close(listener_);
}

std::vector<HttpRequest> LoopbackHttpServer::requests() const {
    std::lock_guard guard(mutex_);
    return requests_;
}

bool LoopbackHttpServer::waitForRequest(std::chrono::milliseconds deadline) const {
    std::unique_lock guard(mutex_);
    return changed_.wait_for(guard, deadline, [&] { return answered_; });
}

void LoopbackHttpServer::serve() {
    const int connection = ::accept4(listener_, nullptr, nullptr, SOCK_CLOEXEC);
    if (connection >= 0) {
        {
            std::lock_guard guard(mutex_);
            connection_ = connection;
            if (stopping_) ::shutdown(connection, SHUT_RDWR);
        }
        serveConnection(connection);
        std::lock_guard guard(mutex_);
        ::close(std::exchange(connection_, -1));
    }
    // One request served: later connections are refused.
    ::shutdown(listener_, SHUT_RDWR);
}

void LoopbackHttpServer::serveConnection(int connection) {
    const timeval timeout{10, 0};
    ::setsockopt(connection, SOL_SOCKET, SO_RCVTIMEO, &timeout, sizeof timeout);

    std::string received;
    char buffer[8192];
    std::optional<HttpRequest> request;
    while (!(request = parseRequest(received))) {
        const ssize_t count = ::recv(connection, buffer, sizeof buffer, 0);
        if (count <= 0) return;
        received.append(buffer, static_cast<std::size_t>(count));
    }
    // Recorded before the answer, so a client that has its answer finds its
    // request in requests(); counted as answered after it, so a waiter that
    // then stops the server never cuts a response off.
    {
        std::lock_guard guard(mutex_);
        requests_.push_back(*request);
    }
    if (respond_) {
        const std::string response = "HTTP/1.1 " + std::to_string(status_) +
                                     " Status\r\nContent-Type: application/json\r\nContent-Length: 2\r\n"
                                     "Connection: close\r\n\r\n{}";
        [[maybe_unused]] const ssize_t sent = ::send(connection, response.data(), response.size(), MSG_NOSIGNAL);
    }
    {
        std::lock_guard guard(mutex_);
        answered_ = true;
    }
    changed_.notify_all();
    if (!respond_) {
        // Hold the connection until the peer gives up, the time-out or shutdown.
        while (::recv(connection, buffer, sizeof buffer, 0) > 0) {
        }
    }
}

LoopbackPort::LoopbackPort(bool listening) {
    socket_ = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t size = sizeof address;
    if (socket_ < 0 || ::bind(socket_, reinterpret_cast<sockaddr*>(&address), sizeof address) != 0 ||
        (listening && ::listen(socket_, 16) != 0) ||
        ::getsockname(socket_, reinterpret_cast<sockaddr*>(&address), &size) != 0) {
        ADD_FAILURE() << "LoopbackPort: cannot bind 127.0.0.1: " << std::strerror(errno);
        return;
    }
    port_ = ntohs(address.sin_port);
}

LoopbackPort::~LoopbackPort() {
    if (socket_ >= 0) ::close(socket_);
}

}  // namespace TestSupport
