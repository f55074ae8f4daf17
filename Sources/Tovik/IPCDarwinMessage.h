// Requests and responses between the product's processes over system-wide
// Darwin notifications. A message carries no data: the notification name is
// the whole message.
//
//     request name:  <prefix> + ".DARWIN_NOTIFICATION." + <request>
//     response name: <prefix> + ".DARWIN_NOTIFICATION." + <request> + "." + <response id>
//
// Queues (created on first use, live until the process ends):
// - "IPCDarwinMessageQueue" (serial): listener bookkeeping and listener calls;
// - "IPCDarwinMessageQueue.Requests" (serial): sendRequest(), one request in
//   flight per process.
//
// Every operation needs the prefix: before config() has been called each one
// logs an error and does nothing (sendRequest() returns false).
#pragma once

#include <functional>
#include <memory>
#include <string>

namespace Tovik {

/// Where the notification names of a product start.
class IPCDarwinMessageConfig {
public:
    virtual ~IPCDarwinMessageConfig() = default;
    /// The leading part of every name (a product- or group-wide identifier).
    virtual std::string notificationPrefix() const = 0;
};

class IPCDarwinMessage {
public:
    /// A listener for one request; an empty function stands for none.
    using Listener = std::function<void()>;

    /// How long sendRequest() waits for a response.
    static constexpr double responseTimeout = 10.0;

    IPCDarwinMessage() = delete;

    /// Replaces the stored configuration (null removes it). Any thread.
    static void config(std::shared_ptr<const IPCDarwinMessageConfig> config);

    /// Asynchronously, on "IPCDarwinMessageQueue": makes listener the one
    /// called (on that queue) each time the request is posted by any process,
    /// replacing a previous listener without observing the name twice; an
    /// empty listener removes the request's listener and its observer. Any
    /// thread.
    static void setRequestsListener(const std::string& request, Listener listener);

    /// Posts the request and, when responseId is not empty, blocks up to
    /// responseTimeout for a response with that id: true when one came, false
    /// on time-out. With an empty responseId returns true at once after
    /// posting. False when the request could not be posted (no bus, not
    /// configured). Serialised on "IPCDarwinMessageQueue.Requests": must not
    /// be called from that queue.
    static bool sendRequest(const std::string& request, const std::string& responseId);

    /// Posts the response to request with id, on the caller's thread.
    static void sendResponse(const std::string& request, const std::string& id);
};

}  // namespace Tovik
