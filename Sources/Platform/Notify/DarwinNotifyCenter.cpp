// DarwinNotifyCenter over sd-bus. One connection, made on first use; every
// sd-bus call on it is made under mutex_ (sd-bus objects are not thread-safe).
// A read source on the connection's descriptor drains it on the delivery
// queue; callbacks are called there after the lock is released.
#include "Notify/DarwinNotifyCenter.h"

#include <systemd/sd-bus.h>
#include <unistd.h>

#include <map>
#include <mutex>
#include <optional>
#include <system_error>
#include <utility>
#include <vector>

#include "Dispatch/DispatchQueue.h"
#include "Dispatch/DispatchSource.h"
#include "Foundation/UTF8.h"
#include "Notify/NotificationSignal.h"
#include "OSLog/ConsoleLog.h"

namespace Notify {

namespace {

constexpr const char* kBusService = "org.freedesktop.DBus";
constexpr const char* kBusPath = "/org/freedesktop/DBus";
constexpr const char* kBusInterface = "org.freedesktop.DBus";

struct BusCloser {
    void operator()(sd_bus* bus) const { sd_bus_flush_close_unref(bus); }
};
struct SlotUnref {
    void operator()(sd_bus_slot* slot) const { sd_bus_slot_unref(slot); }
};

std::string errnoText(int error) { return std::generic_category().message(error); }

// name as a console can show it: malformed bytes and NULs as U+FFFD.
std::string printable(const std::string& name) {
    std::string text = Foundation::repairingUTF8(name);
    for (std::size_t at; (at = text.find('\0')) != std::string::npos;) text.replace(at, 1, "\xEF\xBF\xBD");
    return text;
}

std::string errorText(const sd_bus_error& error, int status) {
    if (error.name) return std::string(error.name) + ": " + (error.message ? error.message : "no message");
    return errnoText(-status);
}

}  // namespace

class DarwinNotifyCenter::Impl : public std::enable_shared_from_this<Impl> {
public:
    Impl() : deliveryQueue_(DarwinNotifyCenter::deliveryQueueLabel) {}
    ~Impl() {
        if (source_) source_->cancel();
    }

    bool addObserver(const void* observer, const std::string& name, Callback callback);
    void removeObserver(const void* observer, const std::string& name);
    bool post(const std::string& name);

private:
    struct Registration {
        const void* observer;
        std::shared_ptr<const Callback> callback;
    };

    bool connected();                           // needs mutex_
    void unavailable(const std::string& why);   // needs mutex_
    void scheduleDrain();
    void drain();                               // on deliveryQueue_
    static int onMessage(sd_bus_message* message, void* userdata, sd_bus_error*);

    const Dispatch::DispatchQueue deliveryQueue_;

    std::mutex mutex_;
    const char* busKind_ = geteuid() == 0 ? "system" : "session";
    bool attempted_ = false;    // guarded by mutex_: the one connection attempt was made
    bool reported_ = false;     // guarded by mutex_: the missing bus was logged
    // Guarded by mutex_; released in this order: source, filter, connection.
    std::unique_ptr<sd_bus, BusCloser> bus_;
    std::unique_ptr<sd_bus_slot, SlotUnref> filter_;
    std::optional<Dispatch::DispatchSourceRead> source_;
    std::map<std::string, std::vector<Registration>> registrations_;  // guarded by mutex_
    // Guarded by mutex_: names received while sd-bus processed the
    // connection, waiting for drain() to call their observers.
    std::vector<std::string> received_;
};

bool DarwinNotifyCenter::Impl::connected() {
    if (bus_) return true;
    if (attempted_) return false;
    attempted_ = true;
    sd_bus* raw = nullptr;
    int status = geteuid() == 0 ? sd_bus_open_system(&raw) : sd_bus_open_user(&raw);
    bus_.reset(raw);
    sd_bus_slot* slot = nullptr;
    if (status >= 0) status = sd_bus_add_filter(bus_.get(), &slot, &Impl::onMessage, this);
    filter_.reset(slot);
    if (status < 0) {
        unavailable(errnoText(-status));
        return false;
    }
    source_ = Dispatch::DispatchSource::makeReadSource(sd_bus_get_fd(bus_.get()), deliveryQueue_);
    source_->setEventHandler([weakSelf = weak_from_this()] {
        if (auto self = weakSelf.lock()) self->drain();
    });
    source_->activate();
    return true;
}

void DarwinNotifyCenter::Impl::unavailable(const std::string& why) {
    if (!reported_) {
        reported_ = true;
        OSLog::consoleLog(std::string("DarwinNotifyCenter: no ") + busKind_ + " bus (" + why +
                          "): notifications are neither posted nor delivered");
    }
    if (source_) source_->cancel();
    source_.reset();
    filter_.reset();
    bus_.reset();
}

int DarwinNotifyCenter::Impl::onMessage(sd_bus_message* message, void* userdata, sd_bus_error*) {
    // Called by sd-bus inside a call made under mutex_.
    auto* self = static_cast<Impl*>(userdata);
    if (auto name = NotificationSignal::name(message)) self->received_.push_back(std::move(*name));
    return 0;  // let sd-bus go on with the message
}

void DarwinNotifyCenter::Impl::scheduleDrain() {
    // A call that waited for a reply may have read other messages off the
    // descriptor into sd-bus's queue, where the read source cannot see them.
    deliveryQueue_.async([weakSelf = weak_from_this()] {
        if (auto self = weakSelf.lock()) self->drain();
    });
}

void DarwinNotifyCenter::Impl::drain() {
    std::vector<std::pair<std::string, std::vector<std::shared_ptr<const Callback>>>> deliveries;
    {
        std::lock_guard guard(mutex_);
        if (!bus_) return;
        for (;;) {
            const int status = sd_bus_process(bus_.get(), nullptr);
            if (status < 0) {
                unavailable("lost the connection: " + errnoText(-status));
                break;
            }
            if (status == 0) break;
        }
        for (auto& name : received_) {
            auto entry = registrations_.find(name);
            if (entry == registrations_.end()) continue;
            std::vector<std::shared_ptr<const Callback>> callbacks;
            for (const auto& registration : entry->second) callbacks.push_back(registration.callback);
            deliveries.emplace_back(std::move(name), std::move(callbacks));
        }
        received_.clear();
    }
    for (const auto& [name, callbacks] : deliveries) {
        for (const auto& callback : callbacks) {
            try {
                (*callback)(name);
            } catch (...) {
                OSLog::consoleLog("DarwinNotifyCenter: an observer of " + name + " threw; ignored");
            }
        }
    }
}

bool DarwinNotifyCenter::Impl::addObserver(const void* observer, const std::string& name, Callback callback) {
    if (!NotificationSignal::isValidName(name)) {
        OSLog::consoleLog("DarwinNotifyCenter: cannot observe \"" + printable(name) + "\": not a valid name");
        return false;
    }
    std::lock_guard guard(mutex_);
    if (!connected()) return false;
    if (registrations_.find(name) == registrations_.end()) {
        const std::string rule = NotificationSignal::matchRule(name);
        sd_bus_error error = SD_BUS_ERROR_NULL;
        const int status = sd_bus_call_method(bus_.get(), kBusService, kBusPath, kBusInterface, "AddMatch", &error,
                                              nullptr, "s", rule.c_str());
        const std::string why = status < 0 ? errorText(error, status) : std::string();
        sd_bus_error_free(&error);
        scheduleDrain();
        if (status < 0) {
            if (sd_bus_is_open(bus_.get()) <= 0) {
                unavailable(why);
            } else {
                OSLog::consoleLog("DarwinNotifyCenter: cannot observe " + name + ": " + why);
            }
            return false;
        }
    }
    registrations_[name].push_back({observer, std::make_shared<const Callback>(std::move(callback))});
    return true;
}

void DarwinNotifyCenter::Impl::removeObserver(const void* observer, const std::string& name) {
    std::lock_guard guard(mutex_);
    auto entry = registrations_.find(name);
    if (entry == registrations_.end()) return;
    std::erase_if(entry->second, [observer](const Registration& r) { return r.observer == observer; });
    if (!entry->second.empty()) return;
    registrations_.erase(entry);
    if (!bus_) return;
    // No reply is awaited: a post that crosses the removal finds no registration.
    const std::string rule = NotificationSignal::matchRule(name);
    int status = sd_bus_call_method_async(bus_.get(), nullptr, kBusService, kBusPath, kBusInterface, "RemoveMatch",
                                          nullptr, nullptr, "s", rule.c_str());
    if (status >= 0) status = sd_bus_flush(bus_.get());
    scheduleDrain();
    if (status < 0 && sd_bus_is_open(bus_.get()) <= 0) unavailable(errnoText(-status));
}

bool DarwinNotifyCenter::Impl::post(const std::string& name) {
    if (!NotificationSignal::isValidName(name)) {
        OSLog::consoleLog("DarwinNotifyCenter: cannot post \"" + printable(name) + "\": not a valid name");
        return false;
    }
    std::lock_guard guard(mutex_);
    if (!connected()) return false;
    sd_bus_message* message = nullptr;
    int status = NotificationSignal::make(bus_.get(), name, &message);
    if (status >= 0) status = sd_bus_send(bus_.get(), message, nullptr);
    sd_bus_message_unref(message);
    if (status >= 0) status = sd_bus_flush(bus_.get());
    scheduleDrain();
    if (status < 0) {
        if (sd_bus_is_open(bus_.get()) <= 0) {
            unavailable(errnoText(-status));
        } else {
            OSLog::consoleLog("DarwinNotifyCenter: cannot post " + name + ": " + errnoText(-status));
        }
        return false;
    }
    return true;
}

DarwinNotifyCenter& DarwinNotifyCenter::darwinNotifyCenter() {
    // Never destroyed: a post or a delivery may come while the process exits.
    static auto* center = new DarwinNotifyCenter;
    return *center;
}

DarwinNotifyCenter::DarwinNotifyCenter() : impl_(std::make_shared<Impl>()) {}
DarwinNotifyCenter::~DarwinNotifyCenter() = default;

bool DarwinNotifyCenter::addObserver(const void* observer, const std::string& name, Callback callback,
                                     SuspensionBehavior) {
    return impl_->addObserver(observer, name, std::move(callback));
}

void DarwinNotifyCenter::removeObserver(const void* observer, const std::string& name) {
    impl_->removeObserver(observer, name);
}

bool DarwinNotifyCenter::postNotification(const std::string& name, bool) { return impl_->post(name); }

}  // namespace Notify
