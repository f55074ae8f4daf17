#include "Tovik/SecureStorage.h"

#include <errno.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <span>
#include <stdexcept>
#include <string_view>
#include <system_error>

#include "CryptoKit/AESGCM.h"
#include "Kernel/FileDescriptor.h"
#include "Tovik/Logger/Logger.h"

namespace Tovik {

namespace {

namespace fs = std::filesystem;
namespace GCM = CryptoKit::AES::GCM;

[[noreturn]] void throwPosixError(const std::string& operation, const std::string& call, const fs::path& path) {
    throw std::system_error(errno, std::generic_category(), operation + ": " + call + " (" + path.string() + ")");
}

std::vector<uint8_t> readFile(const fs::path& path) {
    Kernel::FileDescriptor file(::open(path.c_str(), O_RDONLY | O_CLOEXEC));
    if (!file) throwPosixError("loadData()", "open", path);
    std::vector<uint8_t> bytes;
    struct stat status {};
    if (::fstat(file.get(), &status) == 0 && status.st_size > 0) bytes.reserve(static_cast<size_t>(status.st_size));
    uint8_t buffer[16384];
    for (;;) {
        const ssize_t count = ::read(file.get(), buffer, sizeof buffer);
        if (count < 0 && errno == EINTR) continue;
        if (count < 0) throwPosixError("loadData()", "read", path);
        if (count == 0) return bytes;
        bytes.insert(bytes.end(), buffer, buffer + count);
    }
}

const std::string writing = "storeData(_:)";

/// Writes bytes to temporary and flushes them to disk; a failure removes it.
void prepare(const fs::path& temporary, std::span<const uint8_t> bytes) {
    try {
        Kernel::FileDescriptor file(
            ::open(temporary.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_NOFOLLOW | O_CLOEXEC, 0600));
        if (!file) throwPosixError(writing, "open", temporary);
        if (!Kernel::writeAll(file.get(), {reinterpret_cast<const char*>(bytes.data()), bytes.size()}))
            throwPosixError(writing, "write", temporary);
        if (::fsync(file.get()) != 0) throwPosixError(writing, "fsync", temporary);
        if (::close(file.release()) != 0) throwPosixError(writing, "close", temporary);
    } catch (...) {
        ::unlink(temporary.c_str());
        throw;
    }
}

/// Renames temporary over destination and flushes the folder.
void commit(const fs::path& temporary, const fs::path& destination) {
    if (::rename(temporary.c_str(), destination.c_str()) != 0) {
        const int error = errno;
        ::unlink(temporary.c_str());
        errno = error;
        throwPosixError(writing, "rename", temporary);
    }
    const fs::path folder = destination.has_parent_path() ? destination.parent_path() : fs::path(".");
    Kernel::FileDescriptor directory(::open(folder.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    if (!directory || ::fsync(directory.get()) != 0) throwPosixError(writing, "fsync", folder);
}

}  // namespace

SecureStorage::SecureStorage(std::shared_ptr<KeyChainDataProtocol> storageKey, fs::path url, double writeDelay)
    : KeyStorageBase("SecureStorage:" + url.string(), writeDelay),
      key_(std::move(storageKey)),
      url_(std::move(url)),
      temporaryURL_(url_.string() + ".tmp") {
    if (!key_->load()) {
        TLOG_DEBUG("init(storageKey:url:writeDelay:)", "Storage Key doesn't exist.");
        removeFiles();
    }
}

void SecureStorage::removeFiles() const {
    std::error_code ignored;
    fs::remove(url_, ignored);
    fs::remove(temporaryURL_, ignored);
}

std::optional<KeyStorageBase::Data> SecureStorage::loadData() {
    TLOG_DEBUG("loadData()", "Load from " + url_.string());
    std::error_code error;
    if (!fs::exists(url_, error)) {
        TLOG_WARN("loadData()", "File " + url_.string() + " doesn't exist");
        return std::nullopt;
    }
    const auto keyBytes = key_->get();
    if (!keyBytes) {
        TLOG_WARN("loadData()", "No secure key found");
        return std::nullopt;
    }
    const auto sealed = readFile(url_);
    return GCM::open(GCM::SealedBox(sealed), CryptoKit::SymmetricKey(*keyBytes));
}

void SecureStorage::storeData(const Data& blob) {
    TLOG_DEBUG("storeData(_:)", "Write to " + url_.string());
    const CryptoKit::SymmetricKey key(CryptoKit::SymmetricKey::Size::bits256);
    const auto box = GCM::seal(blob, key);
    // The sealed bytes wait on disk beside the file while the key is stored,
    // so that the file is replaced right after: a crash in between leaves a
    // file that the stored key cannot open.
    prepare(temporaryURL_, box.combined());
    if (!key_->store(key.bytes())) {
        ::unlink(temporaryURL_.c_str());
        throw std::runtime_error("Failed to store the key for " + url_.string());
    }
    commit(temporaryURL_, url_);
}

void SecureStorage::deleteData() {
    if (key_->get()) key_->store(std::nullopt);
    removeFiles();
}

}  // namespace Tovik
