// The system-wide notify center: named notifications without data, posted by
// any process and delivered to every process that observes the name.
//
// On Linux the center runs over D-Bus (sd-bus): the system bus when the
// process runs as root, else the session bus (DBUS_SYSTEM_BUS_ADDRESS and
// DBUS_SESSION_BUS_ADDRESS are honoured). A post broadcasts one signal
//     path "/com/velmora/Tovik/DarwinNotify",
//     interface "com.velmora.Tovik.DarwinNotify", member "Posted",
//     one string argument: the name;
// observing a name installs a match rule on that argument (arg0) with the bus,
// so a process receives only the names it observes (Notify/NotificationSignal.h).
//
// The process has one connection, made on first use and owned by the center.
// When no bus can be reached, one console line says so; from then on every
// add and post fails (false) and nothing is delivered.
//
// Delivery
// - Callbacks run on the center's own serial queue (deliveryQueueLabel), one
//   at a time, in the order the bus delivered the notifications; the center
//   holds no lock while a callback runs, so a callback may add, remove and post.
// - Once addObserver() has returned true, every later post of the name, by
//   any process on the bus (this one included), reaches the callback.
// - A name observed several times (by one observer or several) calls each
//   registration once per post.
// - removeObserver() stops later deliveries; a callback that is already
//   running, or is about to run on the delivery queue, may still finish.
#pragma once

#include <functional>
#include <memory>
#include <string>

namespace Notify {

/// How notifications for a suspended observer are handled. On Linux no
/// process is ever suspended, so every behaviour delivers at once.
enum class SuspensionBehavior : long { drop = 1, coalesce = 2, hold = 3, deliverImmediately = 4 };

class DarwinNotifyCenter {
public:
    /// Receives the posted name.
    using Callback = std::function<void(const std::string& name)>;

    /// The serial queue every callback runs on.
    static constexpr const char* deliveryQueueLabel = "DarwinNotifyCenter";

    /// The process's center. Created on first use (it connects to the bus on
    /// first add or post) and lives until the process ends.
    static DarwinNotifyCenter& darwinNotifyCenter();

    DarwinNotifyCenter(const DarwinNotifyCenter&) = delete;
    DarwinNotifyCenter& operator=(const DarwinNotifyCenter&) = delete;

    /// Calls callback for each later post of name until removeObserver(observer,
    /// name). observer only identifies the registration (null is a valid one).
    /// Blocks until the bus has installed the match. False, with a console
    /// line, when the name is not valid (NotificationSignal::isValidName) or
    /// the bus refuses the match; false when there is no bus. Thread-safe.
    [[nodiscard]] bool addObserver(const void* observer, const std::string& name, Callback callback,
                                   SuspensionBehavior suspensionBehavior = SuspensionBehavior::deliverImmediately);

    /// Removes every registration of observer for name, and the bus match once
    /// the name has no registration left. Unknown pairs do nothing. Thread-safe.
    void removeObserver(const void* observer, const std::string& name);

    /// Broadcasts name to every observer on the bus; returns once the signal
    /// has been handed to the bus. False, with a console line, when the name
    /// is not valid or the bus fails; false when there is no bus. Thread-safe.
    [[nodiscard]] bool postNotification(const std::string& name, bool deliverImmediately = true);

private:
    class Impl;
    DarwinNotifyCenter();
    ~DarwinNotifyCenter();

    std::shared_ptr<Impl> impl_;
};

}  // namespace Notify
