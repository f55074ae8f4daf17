// Workspace::activateFileViewerSelecting over sd-bus.
#include <systemd/sd-bus.h>

#include <cerrno>
#include <chrono>
#include <exception>
#include <memory>
#include <string>
#include <system_error>
#include <vector>

#include "OSLog/ConsoleLog.h"
#include "Workspace/Workspace.h"

namespace Workspace {

namespace {

constexpr const char* kFileManagerService = "org.freedesktop.FileManager1";
constexpr const char* kFileManagerPath = "/org/freedesktop/FileManager1";

struct BusCloser {
    void operator()(sd_bus* bus) const { sd_bus_flush_close_unref(bus); }
};
struct MessageUnref {
    void operator()(sd_bus_message* message) const { sd_bus_message_unref(message); }
};
struct SlotUnref {
    void operator()(sd_bus_slot* slot) const { sd_bus_slot_unref(slot); }
};

// "file://" + the path with every byte but unreserved ones and '/' percent-encoded.
std::string fileUri(const std::filesystem::path& path) {
    std::error_code error;
    std::filesystem::path absolute = std::filesystem::absolute(path, error);
    const std::string text = (error ? path : absolute).string();
    static constexpr char hex[] = "0123456789ABCDEF";
    std::string uri = "file://";
    for (unsigned char c : text) {
        const bool unreserved = (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') ||
                                c == '/' || c == '-' || c == '.' || c == '_' || c == '~';
        if (unreserved) {
            uri += static_cast<char>(c);
        } else {
            uri += '%';
            uri += hex[c >> 4];
            uri += hex[c & 0xF];
        }
    }
    return uri;
}

std::string errnoText(int error) { return std::generic_category().message(error); }

// What the answer handler leaves for the caller.
struct Answer {
    bool received = false;
    std::string error;  // empty: the call succeeded
};

int onAnswer(sd_bus_message* reply, void* userdata, sd_bus_error*) {
    auto* answer = static_cast<Answer*>(userdata);
    answer->received = true;
    if (const sd_bus_error* error = sd_bus_message_get_error(reply)) {
        answer->error = std::string(error->name ? error->name : "error") + ": " +
                        (error->message ? error->message : "no message");
    }
    return 0;
}

// One call with its own connection. Empty on success, else why it failed.
std::string showItems(const std::vector<std::filesystem::path>& urls) {
    sd_bus* rawBus = nullptr;
    int status = sd_bus_open_user(&rawBus);
    std::unique_ptr<sd_bus, BusCloser> bus(rawBus);
    if (status < 0) return "no session bus: " + errnoText(-status);

    sd_bus_message* rawMessage = nullptr;
    status = sd_bus_message_new_method_call(bus.get(), &rawMessage, kFileManagerService, kFileManagerPath,
                                            kFileManagerService, "ShowItems");
    std::unique_ptr<sd_bus_message, MessageUnref> message(rawMessage);
    if (status < 0) return "cannot build the call: " + errnoText(-status);
    std::vector<std::string> uris;
    for (const auto& url : urls) uris.push_back(fileUri(url));
    std::vector<char*> strv;
    for (auto& uri : uris) strv.push_back(uri.data());
    strv.push_back(nullptr);
    status = sd_bus_message_append_strv(message.get(), strv.data());
    if (status >= 0) status = sd_bus_message_append(message.get(), "s", "");
    if (status < 0) return "cannot build the call: " + errnoText(-status);

    // Asynchronous call and an own loop: connecting and authenticating count
    // against the same deadline as the answer (sd_bus_call waits for the
    // connection without a limit).
    const auto timeout = std::chrono::duration_cast<std::chrono::microseconds>(Workspace::fileViewerTimeout);
    Answer answer;
    sd_bus_slot* rawSlot = nullptr;
    status = sd_bus_call_async(bus.get(), &rawSlot, message.get(), onAnswer, &answer, timeout.count());
    std::unique_ptr<sd_bus_slot, SlotUnref> slot(rawSlot);
    if (status < 0) return "cannot send the call: " + errnoText(-status);
    const auto deadline = std::chrono::steady_clock::now() + Workspace::fileViewerTimeout;
    while (!answer.received) {
        status = sd_bus_process(bus.get(), nullptr);
        if (status < 0) return "session bus: " + errnoText(-status);
        if (status > 0) continue;
        const auto left = deadline - std::chrono::steady_clock::now();
        if (left <= std::chrono::steady_clock::duration::zero()) return "no answer in time";
        status = sd_bus_wait(bus.get(), std::chrono::duration_cast<std::chrono::microseconds>(left).count());
        if (status < 0 && status != -EINTR) return "session bus: " + errnoText(-status);
    }
    return answer.error;
}

}  // namespace

bool Workspace::activateFileViewerSelecting(const std::vector<std::filesystem::path>& urls) const {
    if (urls.empty()) return true;
    std::string failure;
    try {
        failure = showItems(urls);
    } catch (const std::exception& error) {  // memory
        failure = error.what();
    }
    if (failure.empty()) return true;
    std::string paths;
    for (const auto& url : urls) paths += (paths.empty() ? "" : ", ") + url.string();
    OSLog::consoleLog("Workspace: cannot reveal " + paths + " in the file manager: " + failure);
    return false;
}

}  // namespace Workspace
