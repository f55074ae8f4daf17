#include "Tovik/SystemUtils.h"

#include <cerrno>
#include <fcntl.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <string_view>
#include <system_error>

#include "Kernel/FileDescriptor.h"
#include "Tovik/Logger/Logger.h"

extern char** environ;

namespace Tovik {

namespace {

/// Owns posix_spawn file actions.
class SpawnFileActions {
public:
    SpawnFileActions() { ::posix_spawn_file_actions_init(&actions_); }
    ~SpawnFileActions() { ::posix_spawn_file_actions_destroy(&actions_); }
    SpawnFileActions(const SpawnFileActions&) = delete;
    SpawnFileActions& operator=(const SpawnFileActions&) = delete;

    posix_spawn_file_actions_t* get() { return &actions_; }

private:
    posix_spawn_file_actions_t actions_;
};

std::string posixErrorText(const std::string& call, const std::string& arguments, int error) {
    return "cliUtil: " + call + " (" + arguments + "): " + std::system_category().message(error);
}

bool isValidUtf8(std::string_view text) {
    size_t i = 0;
    while (i < text.size()) {
        const auto lead = static_cast<unsigned char>(text[i]);
        size_t length = 0;
        uint32_t codePoint = 0;
        if (lead < 0x80) {
            ++i;
            continue;
        } else if ((lead & 0xE0) == 0xC0) {
            length = 2;
            codePoint = lead & 0x1F;
        } else if ((lead & 0xF0) == 0xE0) {
            length = 3;
            codePoint = lead & 0x0F;
        } else if ((lead & 0xF8) == 0xF0) {
            length = 4;
            codePoint = lead & 0x07;
        } else {
            return false;
        }
        if (i + length > text.size()) return false;
        for (size_t k = 1; k < length; ++k) {
            const auto next = static_cast<unsigned char>(text[i + k]);
            if ((next & 0xC0) != 0x80) return false;
            codePoint = (codePoint << 6) | (next & 0x3F);
        }
        const bool overlong = (length == 2 && codePoint < 0x80) || (length == 3 && codePoint < 0x800) ||
                              (length == 4 && codePoint < 0x10000);
        if (overlong || codePoint > 0x10FFFF || (codePoint >= 0xD800 && codePoint <= 0xDFFF)) return false;
        i += length;
    }
    return true;
}

std::optional<std::string> utf8Text(const std::optional<SystemUtil::Bytes>& bytes) {
    if (!bytes) return std::nullopt;
    std::string text(bytes->begin(), bytes->end());
    if (!isValidUtf8(text)) return std::nullopt;
    return text;
}

std::string urlDescription(const std::filesystem::path& url) { return "file://" + url.string(); }

/// Waits for the child, retrying on interruption; the status as NSTask
/// reports it (exit code, or the number of the signal that ended it).
std::int32_t waitForExit(pid_t pid) {
    int status = 0;
    while (::waitpid(pid, &status, 0) < 0) {
        if (errno != EINTR) return SystemUtil::launchFailureStatus;
    }
    if (WIFEXITED(status)) return WEXITSTATUS(status);
    if (WIFSIGNALED(status)) return WTERMSIG(status);
    return status;
}

}  // namespace

std::pair<std::int32_t, std::optional<SystemUtil::Bytes>> SystemUtil::cliUtil(
    const std::string& path, const std::vector<std::string>& arguments,
    const std::optional<std::filesystem::path>& currentDirPath, bool output) {
    constexpr const char* label = "cliUtil(path:arguments:currentDirPath:output:)";
    const auto fail = [&](const std::string& error) -> std::pair<std::int32_t, std::optional<Bytes>> {
        TLOG_ERROR(label, "Error occured: " + error);
        return {launchFailureStatus, std::nullopt};
    };

    SpawnFileActions actions;
    Kernel::FileDescriptor readEnd;
    Kernel::FileDescriptor writeEnd;
    if (output) {
        int fds[2];
        if (::pipe2(fds, O_CLOEXEC) != 0) return fail(posixErrorText("pipe2", path, errno));
        readEnd.reset(fds[0]);
        writeEnd.reset(fds[1]);
        ::posix_spawn_file_actions_adddup2(actions.get(), writeEnd.get(), STDOUT_FILENO);
        ::posix_spawn_file_actions_adddup2(actions.get(), writeEnd.get(), STDERR_FILENO);
    }
    if (currentDirPath) ::posix_spawn_file_actions_addchdir_np(actions.get(), currentDirPath->c_str());

    std::vector<char*> argv;
    argv.reserve(arguments.size() + 2);
    argv.push_back(const_cast<char*>(path.c_str()));
    for (const auto& argument : arguments) argv.push_back(const_cast<char*>(argument.c_str()));
    argv.push_back(nullptr);

    pid_t pid = 0;
    const int spawnError = ::posix_spawn(&pid, path.c_str(), actions.get(), nullptr, argv.data(), environ);
    if (spawnError != 0) {
        const std::string where = currentDirPath ? path + ", in " + currentDirPath->string() : path;
        return fail(posixErrorText("posix_spawn", where, spawnError));
    }
    // Only the child may hold the writing end now, so end of file means it is done.
    writeEnd.reset();

    std::optional<Bytes> collected;
    if (output) {
        Bytes bytes;
        char buffer[16384];
        int readError = 0;
        for (;;) {
            const ssize_t count = ::read(readEnd.get(), buffer, sizeof buffer);
            if (count > 0) {
                bytes.insert(bytes.end(), buffer, buffer + count);
            } else if (count == 0) {
                break;
            } else if (errno != EINTR) {
                readError = errno;
                break;
            }
        }
        readEnd.reset();
        if (readError != 0) {
            waitForExit(pid);
            return fail(posixErrorText("read", path, readError));
        }
        collected = std::move(bytes);
    }
    return {waitForExit(pid), std::move(collected)};
}

std::pair<std::int32_t, std::optional<std::string>> SystemUtil::cliUtilText(
    const std::string& path, const std::vector<std::string>& arguments,
    const std::optional<std::filesystem::path>& currentDirPath, bool output) {
    auto [status, bytes] = cliUtil(path, arguments, currentDirPath, output);
    return {status, utf8Text(bytes)};
}

std::optional<std::filesystem::path> SystemUtil::compressFolder(const std::filesystem::path& folderUrl,
                                                                const std::string& ext, bool onlyContents) {
    constexpr const char* label = "compressFolder(folderUrl:ext:onlyContents:)";
    std::error_code error;
    if (!std::filesystem::is_directory(std::filesystem::symlink_status(folderUrl, error))) {
        TLOG_ERROR(label, "Input URL \"" + urlDescription(folderUrl) + "\" must be a directory");
        return std::nullopt;
    }

    std::filesystem::path folder = folderUrl;
    if (!folder.has_filename() && folder.has_relative_path()) folder = folder.parent_path();
    const std::string name = folder.filename().string();
    const bool extensionRefused = ext.empty() || ext.back() == '.' ||
                                  ext.find_first_of(std::string_view("/\0", 2)) != std::string::npos ||
                                  name.empty() || name == "." || name == "..";
    if (extensionRefused) {
        TLOG_ERROR(label, "Can't add \"" + ext + "\" extension to: " + urlDescription(folderUrl));
        return std::nullopt;
    }
    const std::string archiveName = name + "." + ext;

    std::filesystem::path workingFolder = onlyContents ? folder : folder.parent_path();
    const std::string archiveOperand = onlyContents ? "../" + archiveName : archiveName;
    const std::string sourceOperand = onlyContents ? "." : name;

    auto [status, text] =
        cliUtilText("/usr/bin/zip", {"-r", "-X", archiveOperand, sourceOperand}, workingFolder, true);
    if (status != 0) {
        TLOG_ERROR(label, "Zipping util failed with code: " + std::to_string(status) + "\nOutput:\n" +
                              text.value_or(""));
        return std::nullopt;
    }
    return folder.parent_path() / archiveName;
}

std::optional<bool> SystemUtil::uncompress(const std::filesystem::path& archive,
                                           const std::filesystem::path& targetFolderUrl) {
    constexpr const char* label = "uncompress(_:targetFolderUrl:)";
    auto [status, text] = cliUtilText("/usr/bin/unzip", {"-o", archive.string(), "-d", targetFolderUrl.string()},
                                      targetFolderUrl, true);
    if (status == 0) {
        TLOG_INFO(label, "Archive uncompressed into: " + targetFolderUrl.string());
        return true;
    }
    TLOG_ERROR(label, "Archive uncompressing result: " + std::to_string(status) + ". Output: " +
                          text.value_or("EMPTY"));
    return std::nullopt;
}

bool SystemUtil::rootPrivileges() { return ::geteuid() == 0; }

}  // namespace Tovik
