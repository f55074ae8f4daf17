#include "Launchd/Launchctl.h"

#include <errno.h>
#include <fcntl.h>
#include <poll.h>
#include <unistd.h>

#include <algorithm>
#include <cstring>
#include <exception>
#include <iostream>
#include <map>
#include <optional>
#include <string_view>
#include <utility>

#include "Foundation/PropertyList.h"
#include "Kernel/FileDescriptor.h"
#include "Posix/ChildProcess.h"

namespace Launchd {

namespace {

constexpr int kUsageError = 64;           // EX_USAGE
constexpr int kInternalError = 70;        // EX_SOFTWARE
constexpr int kServiceNotInDomain = 113;  // launchctl print: no such service
constexpr int kCouldNotRun = 127;

constexpr std::string_view kUsage =
    "Usage: launchctl <subcommand> ...\n"
    "Subcommands (system domain only; the service <label> is the systemd unit <label>.service):\n"
    "\tbootout system/<label>         Stops the service and disables it.\n"
    "\tbootstrap system <plist path>  Enables and starts the service the property list's Label names.\n"
    "\tprint system/<label>           Shows the service's state.\n";

// ---- Running systemctl

SystemctlResult cannotRun(int error) {
    std::cerr << "launchctl: cannot run systemctl: " << std::strerror(error) << "\n";
    return {kCouldNotRun, {}};
}

// The first executable "systemctl" in a folder of PATH.
std::optional<std::string> findSystemctl() {
    const char* path = ::getenv("PATH");
    std::string_view folders = path ? path : "/usr/bin:/bin";
    while (true) {
        const size_t colon = folders.find(':');
        std::string folder(folders.substr(0, colon));
        std::string candidate = (folder.empty() ? std::string(".") : folder) + "/systemctl";
        if (::access(candidate.c_str(), X_OK) == 0) return candidate;
        if (colon == std::string_view::npos) return std::nullopt;
        folders.remove_prefix(colon + 1);
    }
}

SystemctlResult spawnSystemctl(const std::vector<std::string>& args) {
    const auto systemctl = findSystemctl();
    if (!systemctl) return cannotRun(ENOENT);
    int ends[2];
    if (::pipe2(ends, O_CLOEXEC) != 0) return cannotRun(errno);
    Kernel::FileDescriptor readEnd(ends[0]);
    Kernel::FileDescriptor writeEnd(ends[1]);
    Posix::ChildProcess::Options options;
    options.arguments = args;
    options.standardOutput = writeEnd.get();
    auto child = Posix::ChildProcess::spawn(*systemctl, options);
    if (!child) return cannotRun(errno);
    writeEnd.reset();  // the child's copy is the only one: end of file comes when it is done

    // All output first, so that the child never blocks on a full pipe.
    std::string output;
    char buffer[4096];
    for (ssize_t got; (got = ::read(readEnd.get(), buffer, sizeof buffer)) != 0;) {
        if (got > 0) {
            output.append(buffer, static_cast<size_t>(got));
        } else if (errno != EINTR) {
            break;
        }
    }
    pollfd ended{.fd = child->exitDescriptor(), .events = POLLIN, .revents = 0};
    while (::poll(&ended, 1, -1) < 0 && errno == EINTR) {
    }
    const auto exit = child->reap();
    if (!exit || exit->reason == Posix::ChildExit::Reason::unknown) return {kCouldNotRun, std::move(output)};
    const int status = exit->reason == Posix::ChildExit::Reason::exit ? exit->status : 128 + exit->status;
    return {status, std::move(output)};
}

// ---- launchctl

bool isLabel(std::string_view label) {
    if (label.empty()) return false;
    for (char c : label) {
        const bool allowed = (c >= 'A' && c <= 'Z') || (c >= 'a' && c <= 'z') || (c >= '0' && c <= '9') ||
                             c == '.' || c == '_' || c == ':' || c == '-';
        if (!allowed) return false;
    }
    return true;
}

// The label of a "system/<label>" service target.
std::optional<std::string> systemLabel(std::string_view target) {
    constexpr std::string_view domain = "system/";
    if (!target.starts_with(domain)) return std::nullopt;
    target.remove_prefix(domain.size());
    if (!isLabel(target)) return std::nullopt;
    return std::string(target);
}

std::string unitOf(const std::string& label) { return label + ".service"; }

std::string_view trimmed(std::string_view text) {
    constexpr std::string_view space = " \t\r\n";
    const size_t first = text.find_first_not_of(space);
    if (first == std::string_view::npos) return {};
    return text.substr(first, text.find_last_not_of(space) - first + 1);
}

// Reports "<action> failed: <error>: <text> (<detail>)" and returns error.
int fail(std::ostream& err, std::string_view action, int error, const std::string& detail = {}) {
    err << action << " failed: " << error << ": " << std::strerror(error);
    if (!detail.empty()) err << " (" << detail << ")";
    err << "\n";
    return error;
}

std::string showFailed(int status) {
    return "systemctl exited with status " + std::to_string(status) + "; is systemd running?";
}

// The unit's LoadState ("loaded", "not-found", ...); nothing, reported as a
// failure of action, when systemctl cannot tell.
std::optional<std::string> loadState(const Systemctl& systemctl, const std::string& unit, std::string_view action,
                                     std::ostream& err) {
    auto result = systemctl({"show", "--property=LoadState", "--value", unit});
    if (result.status != 0) {
        fail(err, action, EIO, showFailed(result.status));
        return std::nullopt;
    }
    return std::string(trimmed(result.output));
}

int bootout(const std::string& label, const Systemctl& systemctl, std::ostream& err) {
    constexpr std::string_view action = "Boot-out";
    const std::string unit = unitOf(label);
    auto state = loadState(systemctl, unit, action, err);
    if (!state) return EIO;
    if (*state == "not-found") return fail(err, action, ESRCH);
    if (auto result = systemctl({"disable", "--now", unit}); result.status != 0)
        return fail(err, action, EIO, "systemctl disable exited with status " + std::to_string(result.status));
    return 0;
}

// The file's first bytes, enough for the property-list reader to accept or
// refuse it by size; 0 or the errno of the failure.
int readPropertyListFile(const std::string& path, std::string& bytes) {
    Kernel::FileDescriptor file(::open(path.c_str(), O_RDONLY | O_CLOEXEC));
    if (!file) return errno;
    constexpr size_t limit = Foundation::PropertyList::maxDataSize + 1;
    char buffer[16384];
    while (bytes.size() < limit) {
        ssize_t got = ::read(file.get(), buffer, std::min(sizeof buffer, limit - bytes.size()));
        if (got == 0) break;
        if (got < 0) {
            if (errno == EINTR) continue;
            return errno;
        }
        bytes.append(buffer, static_cast<size_t>(got));
    }
    return 0;
}

std::optional<std::string> labelOf(std::string_view bytes) {
    auto plist = Foundation::PropertyList::fromData(bytes);
    const auto* dictionary = plist ? plist->get<Foundation::PropertyList::Dictionary>() : nullptr;
    if (!dictionary) return std::nullopt;
    auto entry = dictionary->find("Label");
    if (entry == dictionary->end()) return std::nullopt;
    const auto* label = entry->second.get<std::string>();
    if (!label || !isLabel(*label)) return std::nullopt;
    return *label;
}

int bootstrap(const std::string& path, const Systemctl& systemctl, std::ostream& err) {
    constexpr std::string_view action = "Bootstrap";
    std::string bytes;
    if (int error = readPropertyListFile(path, bytes); error != 0) return fail(err, action, error, path);
    auto label = labelOf(bytes);
    if (!label) return fail(err, action, EIO, path + ": no Label");

    const std::string unit = unitOf(*label);
    auto state = loadState(systemctl, unit, action, err);
    if (!state) return EIO;
    if (*state == "not-found") return fail(err, action, ENOENT, "no systemd unit " + unit);
    if (auto result = systemctl({"enable", "--now", unit}); result.status != 0)
        return fail(err, action, EIO, "systemctl enable exited with status " + std::to_string(result.status));
    return 0;
}

int print(const std::string& label, const Systemctl& systemctl, std::ostream& out, std::ostream& err) {
    auto result = systemctl(
        {"show", "--property=Id,LoadState,ActiveState,SubState,UnitFileState,MainPID,ExecMainStatus", unitOf(label)});
    if (result.status != 0) return fail(err, "Print", EIO, showFailed(result.status));

    std::map<std::string, std::string, std::less<>> properties;
    std::string_view rest = result.output;
    while (!rest.empty()) {
        const size_t end = rest.find('\n');
        std::string_view line = rest.substr(0, end);
        rest.remove_prefix(end == std::string_view::npos ? rest.size() : end + 1);
        if (size_t equals = line.find('='); equals != std::string_view::npos)
            properties[std::string(line.substr(0, equals))] = std::string(trimmed(line.substr(equals + 1)));
    }
    if (properties["LoadState"] == "not-found") {
        err << "Could not find service \"" << label << "\" in domain for system\n";
        return kServiceNotInDomain;
    }

    const std::string& activeState = properties["ActiveState"];
    const std::string& mainPid = properties["MainPID"];
    out << "system/" << label << " = {\n"
        << "\tunit = " << properties["Id"] << "\n"
        << "\tstate = " << (activeState == "active" ? "running" : "not running") << "\n"
        << "\tsystemd state = " << activeState << "/" << properties["SubState"] << "\n"
        << "\tenabled = " << properties["UnitFileState"] << "\n";
    if (!mainPid.empty() && mainPid != "0") out << "\tpid = " << mainPid << "\n";
    out << "\tlast exit code = " << properties["ExecMainStatus"] << "\n"
        << "}\n";
    return 0;
}

int run(const std::vector<std::string>& args, const Systemctl& systemctl, std::ostream& out, std::ostream& err) {
    const std::string_view subcommand = args.empty() ? std::string_view() : std::string_view(args[0]);
    if (subcommand == "bootout" && args.size() == 2) {
        if (auto label = systemLabel(args[1])) return bootout(*label, systemctl, err);
    } else if (subcommand == "bootstrap" && args.size() == 3 && args[1] == "system") {
        return bootstrap(args[2], systemctl, err);
    } else if (subcommand == "print" && args.size() == 2) {
        if (auto label = systemLabel(args[1])) return print(*label, systemctl, out, err);
    }
    err << kUsage;
    return kUsageError;
}

}  // namespace

SystemctlResult runSystemctl(const std::vector<std::string>& args) noexcept {
    try {
        return spawnSystemctl(args);
    } catch (const std::exception&) {  // out of memory; a started child has been waited for
        return {kCouldNotRun, {}};
    }
}

int launchctl(const std::vector<std::string>& args, const Systemctl& systemctl, std::ostream& out,
              std::ostream& err) noexcept {
    try {
        return run(args, systemctl, out, err);
    } catch (const std::exception& error) {
        try {
            err << "launchctl: " << error.what() << "\n";
        } catch (...) {
        }
        return kInternalError;
    } catch (...) {
        return kInternalError;
    }
}

}  // namespace Launchd
