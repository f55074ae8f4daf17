#include "Tovik/IPCDarwinMessage.h"

#include <chrono>
#include <condition_variable>
#include <exception>
#include <map>
#include <mutex>
#include <optional>
#include <utility>

#include "Dispatch/DispatchQueue.h"
#include "Notify/DarwinNotifyCenter.h"
#include "Tovik/Logger/Logger.h"

namespace Tovik {

namespace {

using Notify::DarwinNotifyCenter;
using Notify::SuspensionBehavior;

struct State {
    std::mutex configMutex;
    std::shared_ptr<const IPCDarwinMessageConfig> config;  // guarded by configMutex

    const Dispatch::DispatchQueue mainQueue{"IPCDarwinMessageQueue"};
    const Dispatch::DispatchQueue requestQueue{"IPCDarwinMessageQueue.Requests"};
    // Touched only on mainQueue.
    std::map<std::string, IPCDarwinMessage::Listener> listeners;

    // The response condition, shared by all requests.
    std::mutex responseMutex;
    std::condition_variable responseCondition;
};

State& state() {
    // Never destroyed: a delivery may reach a callback while the process exits.
    static auto* shared = new State;
    return *shared;
}

// The request name, or nothing (logged) before config().
std::optional<std::string> requestName(const std::string& request, std::string_view function) {
    std::shared_ptr<const IPCDarwinMessageConfig> config;
    {
        std::lock_guard guard(state().configMutex);
        config = state().config;
    }
    if (!config) {
        TLOG_ERROR(function, "Not configured: call config(_:) before using IPCDarwinMessage");
        return std::nullopt;
    }
    return config->notificationPrefix() + ".DARWIN_NOTIFICATION." + request;
}

// Runs on the delivery queue: hands the received name over to the main queue.
void requestReceived(const std::string& name) {
    state().mainQueue.async([name] {
        auto entry = state().listeners.find(name);
        if (entry == state().listeners.end()) return;
        const IPCDarwinMessage::Listener listener = entry->second;
        try {
            listener();
        } catch (const std::exception& error) {
            TLOG_ERROR("setRequestsListener(_:listener:)", "Listener for " + name + " threw: " + error.what());
        } catch (...) {
            TLOG_ERROR("setRequestsListener(_:listener:)", "Listener for " + name + " threw");
        }
    });
}

}  // namespace

void IPCDarwinMessage::config(std::shared_ptr<const IPCDarwinMessageConfig> config) {
    std::lock_guard guard(state().configMutex);
    state().config = std::move(config);
}

void IPCDarwinMessage::setRequestsListener(const std::string& request, Listener listener) {
    auto name = requestName(request, "setRequestsListener(_:listener:)");
    if (!name) return;
    state().mainQueue.async([name = std::move(*name), listener = std::move(listener)]() mutable {
        auto& listeners = state().listeners;
        auto& center = DarwinNotifyCenter::darwinNotifyCenter();
        if (auto entry = listeners.find(name); entry != listeners.end()) {
            listeners.erase(entry);
            if (!listener) {
                center.removeObserver(nullptr, name);
                return;
            }
            listeners.emplace(name, std::move(listener));  // the observer is already in place
            return;
        }
        if (!listener) return;
        // Without an observer the listener is not kept, so that a later call adds one.
        if (!center.addObserver(nullptr, name, requestReceived, SuspensionBehavior::deliverImmediately)) return;
        listeners.emplace(name, std::move(listener));
    });
}

bool IPCDarwinMessage::sendRequest(const std::string& request, const std::string& responseId) {
    auto name = requestName(request, "sendRequest(_:responseId:)");
    if (!name) return false;
    const std::string responseName = *name + "." + responseId;
    return state().requestQueue.sync([&] {
        State& s = state();
        auto& center = DarwinNotifyCenter::darwinNotifyCenter();
        // Locked before observing and posting: a response that comes before
        // the wait below starts is held by the lock, and the flag keeps it.
        std::unique_lock lock(s.responseMutex);
        TLOG_VERBOSE("sendRequest(_:responseId:)", "calling sendRequest");
        const bool awaitsResponse = !responseId.empty();
        auto responded = std::make_shared<bool>(false);  // guarded by responseMutex
        bool observing = false;
        if (awaitsResponse) {
            observing = center.addObserver(
                nullptr, responseName,
                [responded](const std::string&) {
                    std::lock_guard guard(state().responseMutex);
                    *responded = true;
                    state().responseCondition.notify_all();
                },
                SuspensionBehavior::deliverImmediately);
        }
        const bool posted = center.postNotification(*name, true);
        bool result = posted;
        if (awaitsResponse) {
            result = false;
            if (posted && observing) {
                const auto deadline = std::chrono::steady_clock::now() +
                                      std::chrono::duration_cast<std::chrono::steady_clock::duration>(
                                          std::chrono::duration<double>(IPCDarwinMessage::responseTimeout));
                result = s.responseCondition.wait_until(lock, deadline, [&] { return *responded; });
                TLOG_VERBOSE("sendRequest(_:responseId:)",
                             std::string("After waiting, result: ") + (result ? "true" : "false"));
            }
            if (observing) center.removeObserver(nullptr, responseName);
        }
        return result;
    });
}

void IPCDarwinMessage::sendResponse(const std::string& request, const std::string& id) {
    auto name = requestName(request, "sendResponse(_:id:)");
    if (!name) return;
    TLOG_VERBOSE("sendResponse(_:id:)", "calling sendResponse");
    (void)DarwinNotifyCenter::darwinNotifyCenter().postNotification(*name + "." + id, true);
}

}  // namespace Tovik
