#include "Support/PrivateBus.h"

#include <fcntl.h>
#include <signal.h>
#include <stdlib.h>
#include <unistd.h>

#include "Kernel/FileDescriptor.h"
#include "Support/TestSupport.h"

namespace TestSupport {

namespace {

std::optional<std::string> replaceVariable(const char* variable, const std::string& value) {
    std::optional<std::string> previous;
    if (const char* old = ::getenv(variable)) previous = old;
    ::setenv(variable, value.c_str(), 1);
    return previous;
}

void restoreVariable(const char* variable, const std::optional<std::string>& previous) {
    previous ? (void)::setenv(variable, previous->c_str(), 1) : (void)::unsetenv(variable);
}

}  // namespace

ScopedBusAddress::ScopedBusAddress(const std::string& address)
    : previousSession_(replaceVariable("DBUS_SESSION_BUS_ADDRESS", address)),
      previousSystem_(replaceVariable("DBUS_SYSTEM_BUS_ADDRESS", address)) {}

ScopedBusAddress::~ScopedBusAddress() {
    restoreVariable("DBUS_SESSION_BUS_ADDRESS", previousSession_);
    restoreVariable("DBUS_SYSTEM_BUS_ADDRESS", previousSystem_);
}

PrivateBus::PrivateBus(const std::filesystem::path& folder) {
    writeFile(folder / "bus.conf",
              "<busconfig><type>session</type><listen>unix:dir=" + folder.string() +
                  "</listen><auth>EXTERNAL</auth><policy context=\"default\">"
                  "<allow send_destination=\"*\"/><allow eavesdrop=\"true\"/><allow own=\"*\"/>"
                  "</policy></busconfig>");
    int ends[2];
    if (::pipe2(ends, O_CLOEXEC) != 0) return;
    Kernel::FileDescriptor readEnd(ends[0]), writeEnd(ends[1]);
    Kernel::FileDescriptor quiet(::open("/dev/null", O_WRONLY | O_CLOEXEC));  // its start-up warnings
    Posix::ChildProcess::Options options;
    options.arguments = {"--config-file=" + (folder / "bus.conf").string(), "--print-address", "--nofork"};
    options.standardOutput = writeEnd.get();
    options.standardError = quiet.get();
    daemon_ = Posix::ChildProcess::spawn("/usr/bin/dbus-daemon", options);
    writeEnd.reset();
    char c;
    while (::read(readEnd.get(), &c, 1) == 1 && c != '\n') address_ += c;
    scope_.emplace(address_);
}

PrivateBus::~PrivateBus() {
    if (daemon_) ::kill(daemon_->pid(), SIGTERM);
}

void PrivateBusEnvironment::SetUp() {
    folder_.emplace("private-bus");
    bus_.emplace(folder_->path());
    ASSERT_FALSE(bus_->address().empty()) << "dbus-daemon did not start";
}

void PrivateBusEnvironment::TearDown() {
    bus_.reset();
    folder_.reset();
}

}  // namespace TestSupport
