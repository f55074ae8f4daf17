#include "Support/LoopbackHttpServer.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <strings.h>

#include <gtest/gtest.h>

namespace TestSupport {

namespace {

constexpr std::size_t maxRequestBytes = 1 << 20;

std::string trimmed(std::string_view text) {
    const auto first = text.find_first_not_of(" \t");
    if (first == std::string_view::npos) return {};
    const auto last = text.find_last_not_of(" \t");
    return std::string(text.substr(first, last - first + 1));
}

std::string_view reasonPhrase(int status) {
    switch (status) {
        case 200: return "OK";
        case 201: return "Created";
        case 204: return "No Content";
        case 400: return "Bad Request";
        case 404: return "Not Found";
        case 500: return "Internal Server Error";
        case 503: return "Service Unavailable";
        default: return "Status";
    }
}

/// Sends all of text before the deadline; false on failure.
bool sendAll(int fd, std::string_view text, std::chrono::steady_clock::time_point deadline) {
    while (!text.empty()) {
        const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(deadline - std::chrono::steady_clock::now());
        if (left.count() <= 0) return false;
        pollfd entry{fd, POLLOUT, 0};
        if (::poll(&entry, 1, static_cast<int>(left.count())) <= 0) {
            if (errno == EINTR) continue;
            return false;
        }
        const ssize_t sent = ::send(fd, text.data(), text.size(), MSG_NOSIGNAL);
        if (sent < 0) {
            if (errno == EINTR || errno == EAGAIN) continue;
            return false;
        }
        text.remove_prefix(static_cast<std::size_t>(sent));
    }
    return true;
}

}  // namespace

std::optional<std::string> HttpRequest::header(std::string_view name) const {
    for (const auto& [key, value] : headers)
        if (key.size() == name.size() && ::strncasecmp(key.data(), name.data(), key.size()) == 0) return value;
    return std::nullopt;
}

std::optional<HttpRequest> LoopbackHttpServer::parseRequest(std::string_view bytes) {
    const auto headerEnd = bytes.find("\r\n\r\n");
    if (headerEnd == std::string_view::npos) return std::nullopt;
    HttpRequest request;
    std::string_view head = bytes.substr(0, headerEnd);
    const auto lineEnd = head.find("\r\n");
    request.requestLine = std::string(head.substr(0, lineEnd));
    const auto firstSpace = request.requestLine.find(' ');
    const auto secondSpace = request.requestLine.find(' ', firstSpace + 1);
    if (firstSpace == std::string::npos || secondSpace == std::string::npos) return std::nullopt;
    request.method = request.requestLine.substr(0, firstSpace);
    request.target = request.requestLine.substr(firstSpace + 1, secondSpace - firstSpace - 1);

    head.remove_prefix(lineEnd == std::string_view::npos ? head.size() : lineEnd + 2);
    while (!head.empty()) {
        const auto end = std::min(head.find("\r\n"), head.size());
        const std::string_view line = head.substr(0, end);
        const auto colon = line.find(':');
        if (colon == std::string_view::npos) return std::nullopt;
        request.headers.emplace_back(std::string(line.substr(0, colon)), trimmed(line.substr(colon + 1)));
        head.remove_prefix(std::min(end + 2, head.size()));
    }

    std::size_t length = 0;
    if (auto text = request.header("Content-Length")) {
        char* end = nullptr;
        const unsigned long long value = std::strtoull(text->c_str(), &end, 10);
        if (end == text->c_str() || *end != '\0' || value > maxRequestBytes) return std::nullopt;
        length = static_cast<std::size_t>(value);
    }
    const std::string_view body = bytes.substr(headerEnd + 4);
    if (body.size() < length) return std::nullopt;
    request.body = std::string(body.substr(0, length));
    return request;
}

LoopbackHttpServer::LoopbackHttpServer(Options options) : options_(std::move(options)) {
    int wake[2];
    if (::pipe2(wake, O_CLOEXEC) != 0) {
        ADD_FAILURE() << "LoopbackHttpServer: pipe2: " << std::strerror(errno);
        return;
    }
    wakeRead_ = wake[0];
    wakeWrite_ = wake[1];

    listener_ = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    address.sin_port = 0;
    socklen_t size = sizeof address;
    if (listener_ < 0 || ::bind(listener_, reinterpret_cast<sockaddr*>(&address), sizeof address) != 0 ||
        ::listen(listener_, 8) != 0 ||
        ::getsockname(listener_, reinterpret_cast<sockaddr*>(&address), &size) != 0) {
        ADD_FAILURE() << "LoopbackHttpServer: cannot listen on 127.0.0.1: " << std::strerror(errno);
        if (listener_ >= 0) ::close(listener_);
        listener_ = -1;
        return;
    }
    port_ = ntohs(address.sin_port);
    thread_ = std::thread([this] { serve(); });
}

LoopbackHttpServer::~LoopbackHttpServer() {
    if (wakeWrite_ >= 0) {
        const char byte = 'x';
        [[maybe_unused]] const ssize_t written = ::write(wakeWrite_, &byte, 1);
    }
    if (thread_.joinable()) thread_.join();
    for (int fd : {listener_, wakeRead_, wakeWrite_})
        if (fd >= 0) ::close(fd);
}

std::string LoopbackHttpServer::url() const { return "http://127.0.0.1:" + std::to_string(port_); }

std::vector<HttpRequest> LoopbackHttpServer::requests() const {
    std::lock_guard<std::mutex> guard(mutex_);
    return requests_;
}

bool LoopbackHttpServer::waitForRequests(std::size_t count, std::chrono::milliseconds deadline) const {
    std::unique_lock<std::mutex> guard(mutex_);
    return changed_.wait_for(guard, deadline, [&] { return requests_.size() >= count; });
}

/// Waits for fd to become readable; false at the deadline or on shutdown.
bool LoopbackHttpServer::waitReadable(int fd, std::chrono::steady_clock::time_point deadline) const {
    for (;;) {
        const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(deadline - std::chrono::steady_clock::now());
        if (left.count() <= 0) return false;
        pollfd entries[2] = {{fd, POLLIN, 0}, {wakeRead_, POLLIN, 0}};
        const int ready = ::poll(entries, 2, static_cast<int>(std::min<std::int64_t>(left.count(), 60000)));
        if ((ready < 0 && errno == EINTR) || ready == 0) continue;
        if (ready < 0 || entries[1].revents != 0) return false;
        return true;
    }
}

void LoopbackHttpServer::serve() {
    std::size_t served = 0;
    while (served < options_.maxRequests) {
        if (!waitReadable(listener_, std::chrono::steady_clock::time_point::max())) break;
        const int connection = ::accept4(listener_, nullptr, nullptr, SOCK_CLOEXEC);
        if (connection < 0) {
            if (errno == EINTR || errno == ECONNABORTED) continue;
            break;
        }
        serveConnection(connection);
        ::close(connection);
        ++served;
    }
    // Served enough: later connections are refused.
    ::close(listener_);
    listener_ = -1;
}

void LoopbackHttpServer::serveConnection(int connection) {
    const auto deadline = std::chrono::steady_clock::now() + options_.ioTimeout;
    std::string received;
    bool continueSent = false;
    std::optional<HttpRequest> request;
    while (!(request = parseRequest(received))) {
        if (received.size() > maxRequestBytes || !waitReadable(connection, deadline)) return;
        char buffer[8192];
        const ssize_t count = ::recv(connection, buffer, sizeof buffer, 0);
        if (count < 0 && errno == EINTR) continue;
        if (count <= 0) return;
        received.append(buffer, static_cast<std::size_t>(count));
        const auto headerEnd = received.find("\r\n\r\n");
        if (!continueSent && headerEnd != std::string::npos &&
            received.substr(0, headerEnd).find("100-continue") != std::string::npos) {
            continueSent = true;
            if (!sendAll(connection, "HTTP/1.1 100 Continue\r\n\r\n", deadline)) return;
        }
    }
    {
        std::lock_guard<std::mutex> guard(mutex_);
        requests_.push_back(*request);
    }
    changed_.notify_all();

    if (!options_.respond) {
        // Hold the connection until the peer gives up, the time-out or shutdown.
        while (waitReadable(connection, deadline)) {
            char buffer[512];
            if (::recv(connection, buffer, sizeof buffer, 0) <= 0) return;
        }
        return;
    }
    const std::string response = "HTTP/1.1 " + std::to_string(options_.status) + " " +
                                 std::string(reasonPhrase(options_.status)) +
                                 "\r\nContent-Type: application/json\r\nContent-Length: " +
                                 std::to_string(options_.responseBody.size()) + "\r\nConnection: close\r\n\r\n" +
                                 options_.responseBody;
    sendAll(connection, response, deadline);
}

}  // namespace TestSupport
