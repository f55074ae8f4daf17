// A preload library that makes one program's disk fail under it:
//
//   FAULT_WRITE_ERRNO=ENOSPC|EIO|<number>   write, writev and pwrite to regular
//                                           files fail with that error; pipes,
//                                           sockets and terminals still work
//   FAULT_UNLINK_ERRNO=EIO|<number>         unlink, unlinkat and rmdir fail
//
// Loaded with LD_PRELOAD. It takes LD_PRELOAD out of the environment as it
// loads, so the programs the process starts run on a sound disk. The calls
// that pass go on to the next definition (libc, or a sanitizer's interceptor).
#include <dlfcn.h>
#include <errno.h>
#include <fcntl.h>
#include <stdlib.h>
#include <string.h>
#include <sys/stat.h>
#include <sys/uio.h>
#include <unistd.h>

namespace {

int writeError = 0;
int unlinkError = 0;

int errorFromEnvironment(const char* name) {
    const char* value = getenv(name);
    if (value == nullptr || *value == '\0') return 0;
    if (strcmp(value, "ENOSPC") == 0) return ENOSPC;
    if (strcmp(value, "EIO") == 0) return EIO;
    return atoi(value);
}

__attribute__((constructor)) void readSettings() {
    writeError = errorFromEnvironment("FAULT_WRITE_ERRNO");
    unlinkError = errorFromEnvironment("FAULT_UNLINK_ERRNO");
    unsetenv("LD_PRELOAD");
}

bool failsWrite(int fd) {
    struct stat status;
    if (writeError == 0 || fstat(fd, &status) != 0 || !S_ISREG(status.st_mode)) return false;
    errno = writeError;
    return true;
}

bool failsUnlink() {
    if (unlinkError == 0) return false;
    errno = unlinkError;
    return true;
}

template <typename Function>
Function next(const char* name) {
    return reinterpret_cast<Function>(dlsym(RTLD_NEXT, name));
}

}  // namespace

extern "C" {

ssize_t write(int fd, const void* buffer, size_t size) {
    static const auto real = next<ssize_t (*)(int, const void*, size_t)>("write");
    return failsWrite(fd) ? -1 : real(fd, buffer, size);
}

ssize_t writev(int fd, const struct iovec* vector, int count) {
    static const auto real = next<ssize_t (*)(int, const struct iovec*, int)>("writev");
    return failsWrite(fd) ? -1 : real(fd, vector, count);
}

ssize_t pwrite(int fd, const void* buffer, size_t size, off_t offset) {
    static const auto real = next<ssize_t (*)(int, const void*, size_t, off_t)>("pwrite");
    return failsWrite(fd) ? -1 : real(fd, buffer, size, offset);
}

ssize_t pwrite64(int fd, const void* buffer, size_t size, off_t offset) {
    static const auto real = next<ssize_t (*)(int, const void*, size_t, off_t)>("pwrite64");
    return failsWrite(fd) ? -1 : real(fd, buffer, size, offset);
}

int unlink(const char* path) {
    static const auto real = next<int (*)(const char*)>("unlink");
    return failsUnlink() ? -1 : real(path);
}

int unlinkat(int fd, const char* path, int flags) {
    static const auto real = next<int (*)(int, const char*, int)>("unlinkat");
    return failsUnlink() ? -1 : real(fd, path, flags);
}

int rmdir(const char* path) {
    static const auto real = next<int (*)(const char*)>("rmdir");
    return failsUnlink() ? -1 : real(path);
}

}  // extern "C"
