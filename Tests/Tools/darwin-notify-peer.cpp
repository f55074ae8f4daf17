// The other process of the IPCDarwinMessage tests, on the bus at <address>.
//
// darwin-notify-peer <address> answer <prefix> <request> <id>
//     Answers every <request> with <id>, writing "request" to standard output
//     before each answer. Writes "ready" once its listener is in place; runs
//     until standard input ends.
// darwin-notify-peer <address> ask <prefix> <request> <id>
//     Sends <request> with <id> before config(), then after it, then with an
//     empty id; writes each result ("true"/"false") on a line and exits.
#include <unistd.h>

#include <cstdio>
#include <memory>
#include <string>
#include <string_view>

#include "Dispatch/DispatchSemaphore.h"
#include "Kernel/FileDescriptor.h"
#include "Support/PrivateBus.h"
#include "Tovik/IPCDarwinMessage.h"

namespace {

using Tovik::IPCDarwinMessage;

class Prefix : public Tovik::IPCDarwinMessageConfig {
public:
    explicit Prefix(std::string prefix) : prefix_(std::move(prefix)) {}
    std::string notificationPrefix() const override { return prefix_; }

private:
    std::string prefix_;
};

void say(std::string_view line) { (void)Kernel::writeAll(STDOUT_FILENO, std::string(line) + "\n"); }

int answer(const std::string& request, const std::string& id) {
    IPCDarwinMessage::setRequestsListener(request, [request, id] {
        say("request");
        IPCDarwinMessage::sendResponse(request, id);
    });
    // Listeners are put in place in order on one serial queue: once a probe
    // reaches the one set last, the one above is in place too.
    Dispatch::DispatchSemaphore probed(0);
    IPCDarwinMessage::setRequestsListener("peer.probe", [probed] { probed.signal(); });
    bool ready = false;
    for (int attempt = 0; attempt < 500 && !ready; ++attempt) {
        if (!IPCDarwinMessage::sendRequest("peer.probe", "")) return 1;
        ready = probed.wait(Dispatch::DispatchTime::now() + 0.02) == Dispatch::DispatchTimeoutResult::success;
    }
    if (!ready) return 1;
    say("ready");
    char c;
    while (::read(STDIN_FILENO, &c, 1) > 0) {
    }
    return 0;
}

int ask(const std::string& prefix, const std::string& request, const std::string& id) {
    say(IPCDarwinMessage::sendRequest(request, id) ? "true" : "false");
    IPCDarwinMessage::config(std::make_shared<Prefix>(prefix));
    say(IPCDarwinMessage::sendRequest(request, id) ? "true" : "false");
    say(IPCDarwinMessage::sendRequest(request, "") ? "true" : "false");
    return 0;
}

}  // namespace

int main(int argc, char** argv) {
    if (argc != 6) {
        std::fprintf(stderr, "usage: %s <address> answer|ask <prefix> <request> <id>\n", argv[0]);
        return 2;
    }
    const TestSupport::ScopedBusAddress bus(argv[1]);
    const std::string mode = argv[2], prefix = argv[3], request = argv[4], id = argv[5];
    if (mode == "ask") return ask(prefix, request, id);
    IPCDarwinMessage::config(std::make_shared<Prefix>(prefix));
    return answer(request, id);
}
