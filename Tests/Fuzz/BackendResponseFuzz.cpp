// Fuzzes the backend's answer to the uninstall report. A listener on
// 127.0.0.1 (one thread for the whole process) takes each connection, reads
// the request, answers with the raw input bytes and closes; the real client
// posts through libcurl and interprets the answer. Loopback only. The
// client's time-out is 2 s, so an answer that never completes cannot hang a run.
#include <arpa/inet.h>
#include <netinet/in.h>
#include <poll.h>
#include <strings.h>
#include <sys/socket.h>

#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <memory>
#include <mutex>
#include <string>
#include <thread>

#include "Fuzz/FuzzSupport.h"
#include "VLVpnClient/VLVpnBackendClient.h"

namespace {

class AnsweringServer {
public:
    AnsweringServer() {
        listener_.reset(::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0));
        sockaddr_in address{};
        address.sin_family = AF_INET;
        address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        socklen_t length = sizeof address;
        if (!listener_ || ::bind(listener_.get(), reinterpret_cast<sockaddr*>(&address), sizeof address) != 0 ||
            ::listen(listener_.get(), 16) != 0 ||
            ::getsockname(listener_.get(), reinterpret_cast<sockaddr*>(&address), &length) != 0) {
            std::perror("tovik-fuzz: loopback listener");
            std::abort();
        }
        port_ = ntohs(address.sin_port);
        // Lives as long as the process: the fuzzer ends with exit().
        std::thread([this] { serve(); }).detach();
    }

    std::string url() const { return "http://127.0.0.1:" + std::to_string(port_); }

    void setAnswer(std::string_view answer) {
        std::lock_guard guard(mutex_);
        answer_.assign(answer);
    }

private:
    void serve() {
        while (true) {
            Kernel::FileDescriptor connection(::accept4(listener_.get(), nullptr, nullptr, SOCK_CLOEXEC));
            if (!connection) continue;
            readRequest(connection.get());
            std::string answer;
            {
                std::lock_guard guard(mutex_);
                answer = answer_;
            }
            (void)Kernel::writeAll(connection.get(), answer);
            ::shutdown(connection.get(), SHUT_WR);
            // Drain until the client closes, so closing sends no reset that
            // could discard the answer before the client has read it.
            waitForClose(connection.get());
        }
    }

    // Reads the header block and the Content-Length body (the client always
    // sends one); gives up after 2 s of silence.
    static void readRequest(int connection) {
        std::string request;
        size_t needed = std::string::npos;
        char buffer[4096];
        while (request.size() < needed) {
            pollfd ready{connection, POLLIN, 0};
            if (::poll(&ready, 1, 2000) <= 0) return;
            const ssize_t count = ::recv(connection, buffer, sizeof buffer, 0);
            if (count <= 0) return;
            request.append(buffer, static_cast<size_t>(count));
            const size_t end = request.find("\r\n\r\n");
            if (end == std::string::npos) continue;
            size_t body = 0;
            const size_t field = request.find("Content-Length: ");
            if (field != std::string::npos && field < end)
                body = std::strtoul(request.c_str() + field + 16, nullptr, 10);
            needed = end + 4 + body;
        }
    }

    static void waitForClose(int connection) {
        char buffer[4096];
        while (true) {
            pollfd ready{connection, POLLIN, 0};
            if (::poll(&ready, 1, 2000) <= 0) return;
            if (::recv(connection, buffer, sizeof buffer, 0) <= 0) return;
        }
    }

    Kernel::FileDescriptor listener_;
    std::uint16_t port_ = 0;
    std::mutex mutex_;
    std::string answer_;  // guarded by mutex_
};

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    static AnsweringServer* const server = new AnsweringServer();
    static const std::shared_ptr<VLVpnClient::VLVBCAppsApi> api = [] {
        auto config = std::make_shared<VLVpnClient::VLVpnBackendClientConfig>();
        config->timeoutMs = 2000;
        config->appVersion = std::make_shared<VLVpnClient::VLVpnBackendClientConfigAppVersion>(
            VLVpnClient::VLVpnBackendClientConfigAppVersion{2, 11, 0, 1143});
        config->protocolConfigOverrides = std::make_shared<VLVpnClient::VLVpnBackendClientProtocolEv1Overrides>();
        config->protocolConfigOverrides->apiFallbackDomain = server->url();
        auto details = std::make_shared<VLVpnClient::VLVBCAppDetails>(
            VLVpnClient::VLVBCAppDetails{"0a0b0c0d0e0f", 8, "en", "en", "2.11.0"});
        auto client = VLVpnClient::VLVpnBackendClient::create(config, details, nullptr);
        FUZZ_CHECK(client);
        return client->appsApi();
    }();

    const std::string_view answer = FuzzSupport::bytesOf(data, size);
    server->setAnswer(answer);
    const auto error = api->trackAppUninstall();

    // Success needs an answer that starts as a status line does (the
    // transfer library takes "HTTP/" in any case followed by anything it
    // cannot read as "HTTP/1.0 200"); an HTTP error names a status outside
    // 2xx; anything else is a transport failure with the library's code.
    if (!error) {
        FUZZ_CHECK(answer.size() >= 5 && strncasecmp(answer.data(), "HTTP/", 5) == 0);
        return 0;
    }
    // The code ranges tell the two apart: below 1000 the status the backend
    // answered, from 1000 on a request that got no (usable) answer.
    FUZZ_CHECK(error->domain == VLVpnClient::VLVBCError::domainName);
    const bool answered = error->localizedDescription.starts_with("Backend answered HTTP status ");
    FUZZ_CHECK(answered == (error->code < VLVpnClient::VLVBCError::transportErrorBase));
    if (answered) {
        FUZZ_CHECK(error->code < 200 || error->code > 299);
    } else {
        FUZZ_CHECK(error->localizedDescription.starts_with("Request to "));
        FUZZ_CHECK(error->code != VLVpnClient::VLVBCError::transportErrorBase);  // CURLE_OK is no failure
    }
    return 0;
}
