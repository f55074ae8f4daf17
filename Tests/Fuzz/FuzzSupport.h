// What the fuzz entry points share: a scratch folder made once per process,
// file writing, quiet logging and a check that ends the run.
//
// Header-only, so each entry point links nothing but the daemon's libraries
// (and libFuzzer or ReplayMain.cpp).
#pragma once

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <string>
#include <string_view>
#include <system_error>

#include "Kernel/FileDescriptor.h"
#include "Tovik/Logger/Logger.h"

/// Ends the run with a report when an invariant does not hold; libFuzzer
/// saves the input as a crash, the replay driver fails its test.
#define FUZZ_CHECK(condition)                                                                      \
    do {                                                                                           \
        if (!(condition)) {                                                                        \
            std::fprintf(stderr, "%s:%d: check failed: %s\n", __FILE__, __LINE__, #condition);     \
            std::abort();                                                                          \
        }                                                                                          \
    } while (false)

namespace FuzzSupport {

/// A private folder below the temporary folder ($TMPDIR, else /tmp), made on
/// first use and removed with its contents when the process exits normally.
inline const std::filesystem::path& scratchFolder() {
    struct Folder {
        std::filesystem::path path;
        Folder() {
            std::error_code error;
            std::string pattern = (std::filesystem::temp_directory_path(error) / "tovik-fuzz.XXXXXX").string();
            if (error || ::mkdtemp(pattern.data()) == nullptr) {
                std::perror("tovik-fuzz: mkdtemp");
                std::abort();
            }
            path = pattern;
        }
        ~Folder() {
            std::error_code error;
            std::filesystem::remove_all(path, error);
        }
    };
    static const Folder folder;
    return folder.path;
}

/// Replaces the file's contents (creating it with mode when missing); aborts
/// on failure, since a run that cannot set up its input proves nothing.
inline void writeFile(const std::filesystem::path& path, std::string_view bytes, mode_t mode = 0644) {
    Kernel::FileDescriptor file(::open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, mode));
    if (!file || !Kernel::writeAll(file.get(), bytes)) {
        std::perror(("tovik-fuzz: " + path.string()).c_str());
        std::abort();
    }
}

inline std::string_view bytesOf(const uint8_t* data, std::size_t size) {
    return {reinterpret_cast<const char*>(data), size};
}

/// Every log call still builds its message, but no handler prints it: the
/// parsers log each malformed input, and thousands of runs a second would
/// otherwise flood the terminal.
inline void quietLogs() {
    static const bool done = [] {
        Tovik::Logger::shared().setLogLevel(Tovik::LogLevel::verbose);
        Tovik::Logger::shared().setHandlers({});
        return true;
    }();
    (void)done;
}

}  // namespace FuzzSupport
