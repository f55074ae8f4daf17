// A loopback HTTP server for scripts: answers one request with one status,
// writes its port to a file once listening and the request it received to
// another, then exits after the request or `timeout` seconds.
//
// loopback-http-server --status 200 --port-file F --request-file R [--timeout 60]
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <string>
#include <string_view>

#include "Support/LoopbackHttpServer.h"

int main(int argc, char** argv) {
    int status = 200;
    std::string portFile, requestFile;
    long timeoutSeconds = 60;
    for (int i = 1; i + 1 < argc; i += 2) {
        const std::string_view flag = argv[i];
        const char* value = argv[i + 1];
        if (flag == "--status") status = std::atoi(value);
        else if (flag == "--port-file") portFile = value;
        else if (flag == "--request-file") requestFile = value;
        else if (flag == "--timeout") timeoutSeconds = std::atol(value);
    }
    if (portFile.empty() || requestFile.empty()) {
        std::fprintf(stderr, "usage: %s --status N --port-file F --request-file R [--timeout S]\n", argv[0]);
        return 2;
    }

    TestSupport::LoopbackHttpServer server(status);
    if (server.port() == 0) return 1;
    // Written whole, then renamed, so a reader never sees half a number.
    std::ofstream(portFile + ".tmp") << server.port() << "\n";
    std::rename((portFile + ".tmp").c_str(), portFile.c_str());

    const bool complete = server.waitForRequest(std::chrono::seconds(timeoutSeconds));
    std::ofstream out(requestFile);
    for (const auto& request : server.requests()) {
        out << request.requestLine << "\n";
        for (const auto& [name, value] : request.headers) out << name << ": " << value << "\n";
        out << "\n" << request.body;
    }
    return complete ? 0 : 1;
}
