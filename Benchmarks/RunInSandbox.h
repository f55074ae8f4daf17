// For benchmarks that use root paths (/Library/Keychains, ...): main() starts
// with `if (!getenv("TOVIK_IN_SANDBOX")) return runInSandbox(argv);`, so the
// measured run happens inside scripts/sandbox.sh and never touches the
// machine's own folders. Needs TOVIK_SOURCE_DIR (Benchmarks/CMakeLists.txt).
#pragma once

#include <stdio.h>
#include <stdlib.h>
#include <sys/wait.h>

#include <filesystem>
#include <string>
#include <system_error>

/// Runs this program again, with the same arguments, inside scripts/sandbox.sh
/// over a new temporary folder; its exit status.
inline int runInSandbox(char** argv) {
    char folder[] = "/tmp/tovik-benchmarks.XXXXXX";
    if (::mkdtemp(folder) == nullptr) {
        std::perror("mkdtemp");
        return 1;
    }
    std::string command = std::string("TOVIK_IN_SANDBOX=1 bash '") + TOVIK_SOURCE_DIR + "/scripts/sandbox.sh' '" +
                          folder + "' '" + std::filesystem::read_symlink("/proc/self/exe").string() + "'";
    for (char** argument = argv + 1; *argument; ++argument) command += std::string(" '") + *argument + "'";
    const int status = std::system(command.c_str());
    std::error_code ignored;
    std::filesystem::remove_all(folder, ignored);
    return WIFEXITED(status) ? WEXITSTATUS(status) : 1;
}
