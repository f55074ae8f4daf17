#include "Tovik/SystemUtils.h"

#include <cerrno>
#include <fcntl.h>
#include <poll.h>
#include <unistd.h>

#include <string_view>
#include <system_error>

#include "Foundation/UTF8.h"
#include "Kernel/FileDescriptor.h"
#include "Posix/ChildProcess.h"
#include "Tovik/Logger/Logger.h"

namespace Tovik {

namespace {

std::string posixErrorText(const std::string& call, const std::string& arguments, int error) {
    return "cliUtil: " + call + " (" + arguments + "): " + std::system_category().message(error);
}


std::optional<std::string> utf8Text(const std::optional<SystemUtil::Bytes>& bytes) {
    if (!bytes) return std::nullopt;
    std::string text(bytes->begin(), bytes->end());
    if (!Foundation::isValidUTF8(text)) return std::nullopt;
    return text;
}

std::string urlDescription(const std::filesystem::path& url) { return "file://" + url.string(); }

/// Waits for the child to end; the status as NSTask reports it (exit code,
/// or the number of the signal that ended it).
std::int32_t waitForExit(Posix::ChildProcess& child) {
    pollfd waiter{child.exitDescriptor(), POLLIN, 0};
    for (;;) {
        if (auto exit = child.reap()) {
            return exit->reason == Posix::ChildExit::Reason::unknown ? SystemUtil::launchFailureStatus : exit->status;
        }
        if (::poll(&waiter, 1, -1) < 0 && errno != EINTR) return SystemUtil::launchFailureStatus;
    }
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

    Posix::ChildProcess::Options options{.arguments = arguments, .currentDirectory = std::nullopt};
    if (currentDirPath) options.currentDirectory = currentDirPath->string();
    Kernel::FileDescriptor readEnd;
    Kernel::FileDescriptor writeEnd;
    if (output) {
        int fds[2];
        if (::pipe2(fds, O_CLOEXEC) != 0) return fail(posixErrorText("pipe2", path, errno));
        readEnd.reset(fds[0]);
        writeEnd.reset(fds[1]);
        options.standardOutput = options.standardError = writeEnd.get();
    }
    auto child = Posix::ChildProcess::spawn(path, options);
    if (!child) {
        const std::string where = currentDirPath ? path + ", in " + currentDirPath->string() : path;
        return fail(posixErrorText("posix_spawn", where, errno));
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
            waitForExit(*child);
            return fail(posixErrorText("read", path, readError));
        }
        collected = std::move(bytes);
    }
    return {waitForExit(*child), std::move(collected)};
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

    // Named variables, not a structured binding: the log call captures them
    // in a lambda, which clang before 16 does not allow for bindings.
    const auto zipped = cliUtilText("/usr/bin/zip", {"-r", "-X", archiveOperand, sourceOperand}, workingFolder, true);
    const std::int32_t status = zipped.first;
    const std::optional<std::string>& text = zipped.second;
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
    const auto unzipped = cliUtilText("/usr/bin/unzip", {"-o", archive.string(), "-d", targetFolderUrl.string()},
                                      targetFolderUrl, true);
    const std::int32_t status = unzipped.first;
    const std::optional<std::string>& text = unzipped.second;
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
