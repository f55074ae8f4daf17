// launchctl for Linux hosts: the subcommands the daemon and its installer
// use, on the system domain only, carried out by systemd. A launchd job
// "system/<label>" is the systemd unit "<label>.service".
//
//   bootout system/<label>           stops the unit and disables it
//   bootstrap system <plist path>    enables and starts the unit named by the
//                                    property list's Label
//   print system/<label>             shows the unit's state
//
// Exit statuses and messages follow launchctl's: 0 on success, an error
// number on failure (3 ESRCH: no such service, 2 ENOENT: no such unit or
// file, 5 EIO: systemd did not do it), 113 when print finds nothing, 64 for a
// usage error. A label is non-empty and made of [A-Za-z0-9._:-] only.
#pragma once

#include <functional>
#include <ostream>
#include <string>
#include <vector>

namespace Launchd {

/// How one systemctl run ended.
struct SystemctlResult {
    /// The exit status; 128 + the signal number when a signal ended it; 127
    /// when it could not be run (not on PATH, out of processes, ...).
    int status;
    /// What it wrote to its standard output.
    std::string output;
};

/// Runs systemctl with args (after its own name).
using Systemctl = std::function<SystemctlResult(const std::vector<std::string>& args)>;

/// Runs the `systemctl` found on PATH and waits for it to end. Its standard
/// output is captured, its standard error and input are this process's. Why
/// it could not be started is written to standard error. Never throws.
SystemctlResult runSystemctl(const std::vector<std::string>& args) noexcept;

/// One launchctl invocation: args are the command line after the program's
/// name. Results go to out, failures and usage to err; returns the exit
/// status. Never throws.
int launchctl(const std::vector<std::string>& args, const Systemctl& systemctl, std::ostream& out,
              std::ostream& err) noexcept;

}  // namespace Launchd
