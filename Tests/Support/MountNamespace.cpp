#include "Support/MountNamespace.h"

#include <dirent.h>
#include <errno.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <limits.h>
#include <poll.h>
#include <sched.h>
#include <signal.h>
#include <spawn.h>
#include <stdlib.h>
#include <string.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <nlohmann/json.hpp>
#include <set>
#include <sstream>
#include <string>

#include "Support/TestSupport.h"

extern char** environ;

namespace TestSupport {

namespace {

namespace fs = std::filesystem;
using nlohmann::json;

constexpr const char* specVariable = "TOVIK_MOUNT_NAMESPACE";
constexpr int childTimeoutMs = 240 * 1000;

// Set in the child before main(): the report file and whether the namespace is up.
int reportFd = -1;
bool namespaceReady = false;

void report(const json& record) {
    if (reportFd < 0) return;
    std::string line = record.dump() + "\n";
    // One write per record; O_APPEND keeps records whole.
    [[maybe_unused]] ssize_t n = write(reportFd, line.data(), line.size());
}

// ---- child side: set-up before main() ----

struct SetUpError {
    std::string what;
};

[[noreturn]] void fail(const std::string& what) { throw SetUpError{what + ": " + strerror(errno)}; }

void checked(int rc, const std::string& what) {
    if (rc != 0) fail(what);
}

std::string join(const std::string& root, const std::string& path) { return root + path; }

// Copies every top-level entry of "/" into the tmpfs at newRoot.
void populateRoot(const std::string& newRoot) {
    DIR* dir = opendir("/");
    if (!dir) fail("opendir /");
    std::vector<std::string> names;
    while (dirent* entry = readdir(dir)) {
        std::string name = entry->d_name;
        if (name != "." && name != "..") names.push_back(name);
    }
    closedir(dir);

    for (const auto& name : names) {
        std::string source = "/" + name;
        std::string target = newRoot + source;
        struct stat info {};
        if (lstat(source.c_str(), &info) != 0) continue;  // vanished meanwhile
        if (S_ISLNK(info.st_mode)) {
            char link[PATH_MAX];
            ssize_t n = readlink(source.c_str(), link, sizeof link - 1);
            if (n < 0) fail("readlink " + source);
            link[n] = '\0';
            checked(symlink(link, target.c_str()), "symlink " + target);
        } else if (S_ISDIR(info.st_mode)) {
            checked(mkdir(target.c_str(), info.st_mode & 07777), "mkdir " + target);
            checked(mount(source.c_str(), target.c_str(), nullptr, MS_BIND | MS_REC, nullptr),
                    "bind " + source);
            // The recursive copy also holds the new root's own mount when it
            // lies below this entry: drop that copy.
            if (newRoot.rfind(source + "/", 0) == 0) umount2(join(newRoot, newRoot).c_str(), MNT_DETACH);
        } else if (S_ISREG(info.st_mode)) {
            int fd = open(target.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, info.st_mode & 07777);
            if (fd < 0) fail("create " + target);
            close(fd);
            checked(mount(source.c_str(), target.c_str(), nullptr, MS_BIND, nullptr), "bind " + source);
        }
    }
}

// Splits target into its deepest existing ancestor (symlinks resolved) and
// the missing components below it.
std::pair<std::string, std::vector<std::string>> existingPart(const fs::path& target) {
    std::string current = "/";
    std::vector<std::string> parts;
    for (const auto& part : target.relative_path()) {
        if (part.empty() || part == ".") continue;
        parts.push_back(part.string());
    }
    for (size_t i = 0; i < parts.size(); ++i) {
        std::string next = (current == "/" ? "" : current) + "/" + parts[i];
        struct stat info {};
        if (lstat(next.c_str(), &info) != 0) {
            if (errno != ENOENT) fail("lstat " + next);
            return {current, std::vector<std::string>(parts.begin() + static_cast<long>(i), parts.end())};
        }
        char resolved[PATH_MAX];
        if (!realpath(next.c_str(), resolved)) fail("realpath " + next);
        current = resolved;
    }
    return {current, {}};
}

void replace(const json& replacement, std::set<std::string>& writable, int& overlays) {
    fs::path target = replacement.at("target").get<std::string>();
    std::string source = replacement.at("source").get<std::string>();
    bool readOnly = replacement.value("readOnly", false);
    if (!target.is_absolute()) {
        errno = EINVAL;
        fail("target " + target.string() + " is not absolute");
    }
    struct stat sourceInfo {};
    checked(stat(source.c_str(), &sourceInfo), "stat source " + source);
    bool isFolder = S_ISDIR(sourceInfo.st_mode);

    auto [path, missing] = existingPart(target);
    if (missing.empty()) {
        struct stat info {};
        checked(stat(path.c_str(), &info), "stat " + path);
        if (S_ISDIR(info.st_mode) != isFolder) {
            errno = isFolder ? ENOTDIR : EISDIR;
            fail("replace " + target.string());
        }
    } else {
        if (!writable.count(path)) {
            if (path.find_first_of(",:\\") != std::string::npos) {
                errno = EINVAL;
                fail("overlay on " + path);
            }
            std::string upper = "/.mount-namespace/upper" + std::to_string(overlays);
            std::string work = "/.mount-namespace/work" + std::to_string(overlays);
            ++overlays;
            checked(mkdir(upper.c_str(), 0755), "mkdir " + upper);
            checked(mkdir(work.c_str(), 0755), "mkdir " + work);
            std::string options = "lowerdir=" + path + ",upperdir=" + upper + ",workdir=" + work;
            checked(mount("overlay", path.c_str(), "overlay", 0, options.c_str()), "overlay on " + path);
            writable.insert(path);
        }
        for (size_t i = 0; i < missing.size(); ++i) {
            path = (path == "/" ? "" : path) + "/" + missing[i];
            bool last = i + 1 == missing.size();
            if (!last || isFolder) {
                checked(mkdir(path.c_str(), 0755), "mkdir " + path);
                writable.insert(path);
            } else {
                int fd = open(path.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0644);
                if (fd < 0) fail("create " + path);
                close(fd);
            }
        }
    }
    checked(mount(source.c_str(), path.c_str(), nullptr, MS_BIND | (isFolder ? MS_REC : 0), nullptr),
            "bind " + source + " on " + path);
    if (readOnly) {
        checked(mount(nullptr, path.c_str(), nullptr, MS_REMOUNT | MS_BIND | MS_RDONLY, nullptr),
                "read-only " + path);
    }
}

void setUpNamespace(const json& spec) {
    std::string newRoot = spec.at("root").get<std::string>();
    char cwd[PATH_MAX];
    bool haveCwd = getcwd(cwd, sizeof cwd) != nullptr;

    checked(unshare(CLONE_NEWNS), "unshare(CLONE_NEWNS)");
    checked(mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr), "make / private");
    checked(mount("tmpfs", newRoot.c_str(), "tmpfs", 0, "mode=0755"), "tmpfs on " + newRoot);
    populateRoot(newRoot);
    checked(mkdir(join(newRoot, "/.mount-namespace").c_str(), 0700), "mkdir scratch");
    checked(chroot(newRoot.c_str()), "chroot " + newRoot);
    if (!haveCwd || chdir(cwd) != 0) checked(chdir("/"), "chdir /");

    std::set<std::string> writable{"/", "/.mount-namespace"};
    int overlays = 0;
    for (const auto& replacement : spec.at("replacements")) replace(replacement, writable, overlays);
}

// Sends the child's test results to the test process.
class Reporter : public ::testing::EmptyTestEventListener {
    void OnTestPartResult(const ::testing::TestPartResult& result) override {
        json record{{"file", result.file_name() ? result.file_name() : ""},
                    {"line", result.line_number()},
                    {"message", result.message()}};
        if (result.failed()) {
            record["type"] = "failure";
        } else if (result.skipped()) {
            record["type"] = "skip";
        } else {
            return;
        }
        report(record);
    }
};

// Runs before main() in every executable that uses insideMountNamespace().
const bool childSetUp = [] {
    const char* text = getenv(specVariable);
    if (!text) return false;
    json spec;
    try {
        spec = json::parse(text);
        reportFd = open(spec.at("report").get<std::string>().c_str(), O_WRONLY | O_APPEND | O_CLOEXEC);
        if (reportFd < 0) fail("open report file");
        unsetenv(specVariable);
        setUpNamespace(spec);
    } catch (const SetUpError& error) {
        report({{"type", "setup"}, {"message", error.what}});
        _exit(125);
    } catch (const std::exception& error) {
        report({{"type", "setup"}, {"message", std::string("bad specification: ") + error.what()}});
        _exit(125);
    }
    ::testing::UnitTest::GetInstance()->listeners().Append(new Reporter);
    namespaceReady = true;
    return true;
}();

// ---- test-process side ----

std::string currentTestName() {
    const auto* info = ::testing::UnitTest::GetInstance()->current_test_info();
    return info ? std::string(info->test_suite_name()) + "." + info->name() : std::string();
}

std::vector<std::string> childEnvironment(const std::string& spec) {
    std::vector<std::string> variables;
    for (char** entry = environ; *entry; ++entry) {
        std::string_view variable(*entry);
        // The child must not write the test process's result files or shard.
        if (variable.starts_with("GTEST_") || variable.starts_with(specVariable)) continue;
        variables.emplace_back(variable);
    }
    variables.push_back(std::string(specVariable) + "=" + spec);
    return variables;
}

// Waits for the child, killing it after the timeout. The status, or -1 after a kill.
int waitForChild(pid_t pid, bool& timedOut) {
    timedOut = false;
    int pidfd = static_cast<int>(syscall(SYS_pidfd_open, pid, 0));
    if (pidfd >= 0) {
        pollfd waiter{pidfd, POLLIN, 0};
        int rc;
        do {
            rc = poll(&waiter, 1, childTimeoutMs);
        } while (rc < 0 && errno == EINTR);
        if (rc == 0) {
            timedOut = true;
            kill(pid, SIGKILL);
        }
        close(pidfd);
    }
    int status = 0;
    while (waitpid(pid, &status, 0) < 0) {
        if (errno != EINTR) return -1;
    }
    return status;
}

std::string describeStatus(int status) {
    if (WIFEXITED(status)) return "exit status " + std::to_string(WEXITSTATUS(status));
    if (WIFSIGNALED(status)) return std::string("signal ") + strsignal(WTERMSIG(status));
    return "status " + std::to_string(status);
}

}  // namespace

bool insideMountNamespace(const std::vector<MountReplacement>& replacements) {
    if (childSetUp) {
        if (!namespaceReady) ADD_FAILURE() << "mount namespace not set up";
        report({{"type", "entered"}});
        return namespaceReady;
    }
    if (geteuid() != 0) {
        [] { GTEST_SKIP() << "a private mount namespace needs root"; }();
        return false;
    }

    TemporaryDirectory work("tovik-mntns");
    fs::path root = work / "root";
    fs::path reportPath = work / "report";
    fs::path outputPath = work / "output";
    std::error_code error;
    fs::create_directory(root, error);
    writeFile(reportPath, "");

    json spec{{"root", root.string()}, {"report", reportPath.string()}, {"replacements", json::array()}};
    for (const auto& replacement : replacements) {
        spec["replacements"].push_back({{"target", replacement.target.string()},
                                        {"source", fs::absolute(replacement.source).string()},
                                        {"readOnly", replacement.readOnly}});
    }

    std::string testName = currentTestName();
    std::string executable = fs::read_symlink("/proc/self/exe", error).string();
    std::vector<std::string> arguments{executable, "--gtest_filter=" + testName, "--gtest_color=no",
                                       "--gtest_also_run_disabled_tests"};
    std::vector<std::string> environment = childEnvironment(spec.dump());
    std::vector<char*> argv, envp;
    for (auto& argument : arguments) argv.push_back(argument.data());
    argv.push_back(nullptr);
    for (auto& variable : environment) envp.push_back(variable.data());
    envp.push_back(nullptr);

    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_addopen(&actions, 0, "/dev/null", O_RDONLY, 0);
    posix_spawn_file_actions_addopen(&actions, 1, outputPath.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
    posix_spawn_file_actions_adddup2(&actions, 1, 2);
    pid_t pid = -1;
    int rc = posix_spawn(&pid, executable.c_str(), &actions, nullptr, argv.data(), envp.data());
    posix_spawn_file_actions_destroy(&actions);
    if (rc != 0) {
        ADD_FAILURE() << "cannot start " << executable << ": " << strerror(rc);
        return false;
    }
    bool timedOut = false;
    int status = waitForChild(pid, timedOut);
    std::string output = readFile(outputPath);

    bool entered = false, failed = false;
    std::istringstream records(readFile(reportPath));
    for (std::string line; std::getline(records, line);) {
        json record = json::parse(line, nullptr, false);
        if (record.is_discarded()) continue;
        std::string type = record.value("type", "");
        std::string message = record.value("message", "");
        if (type == "entered") {
            entered = true;
        } else if (type == "setup") {
            failed = true;
            ADD_FAILURE() << "mount namespace set-up failed: " << message << "\n" << output;
        } else if (type == "failure") {
            failed = true;
            std::string file = record.value("file", "");
            int lineNumber = record.value("line", -1);
            if (file.empty()) {
                ADD_FAILURE() << "(in the mount namespace) " << message;
            } else {
                ADD_FAILURE_AT(file.c_str(), lineNumber) << "(in the mount namespace) " << message;
            }
        } else if (type == "skip") {
            [&] { GTEST_SKIP() << message; }();
        }
    }
    if (timedOut) {
        ADD_FAILURE() << testName << " did not finish in the mount namespace; killed.\n" << output;
    } else if (WIFSIGNALED(status) || (!failed && !(WIFEXITED(status) && WEXITSTATUS(status) == 0))) {
        ADD_FAILURE() << testName << " ended with " << describeStatus(status) << " in the mount namespace\n"
                      << output;
    } else if (!failed && !entered) {
        ADD_FAILURE() << testName << " did not run in the mount namespace child\n" << output;
    }
    return false;
}

}  // namespace TestSupport
