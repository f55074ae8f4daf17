// A D-Bus daemon of a test's own, so that no test depends on (or disturbs)
// the machine's buses.
#pragma once

#include <gtest/gtest.h>

#include <filesystem>
#include <optional>
#include <string>

#include "Posix/ChildProcess.h"
#include "Support/TestSupport.h"

namespace TestSupport {

/// DBUS_SESSION_BUS_ADDRESS and DBUS_SYSTEM_BUS_ADDRESS set to address while
/// the object lives (root processes use the system bus, others the session bus).
class ScopedBusAddress {
public:
    explicit ScopedBusAddress(const std::string& address);
    ~ScopedBusAddress();
    ScopedBusAddress(const ScopedBusAddress&) = delete;
    ScopedBusAddress& operator=(const ScopedBusAddress&) = delete;

private:
    std::optional<std::string> previousSession_, previousSystem_;
};

/// A bus daemon listening in folder, and both bus addresses pointing at it,
/// while the object lives. No service folders: nothing is started on demand;
/// every connection may send, receive and own any name. address() is empty
/// when the daemon could not be started.
class PrivateBus {
public:
    explicit PrivateBus(const std::filesystem::path& folder);
    ~PrivateBus();
    PrivateBus(const PrivateBus&) = delete;
    PrivateBus& operator=(const PrivateBus&) = delete;

    const std::string& address() const { return address_; }

private:
    std::optional<Posix::ChildProcess> daemon_;
    std::string address_;
    std::optional<ScopedBusAddress> scope_;
};

/// One PrivateBus for the whole test program, for code that connects once per
/// process:
///     auto* const bus = testing::AddGlobalTestEnvironment(new TestSupport::PrivateBusEnvironment);
class PrivateBusEnvironment : public testing::Environment {
public:
    void SetUp() override;
    void TearDown() override;
    /// Empty outside the program's run.
    std::string address() const { return bus_ ? bus_->address() : std::string(); }

private:
    std::optional<TemporaryDirectory> folder_;
    std::optional<PrivateBus> bus_;
};

}  // namespace TestSupport
