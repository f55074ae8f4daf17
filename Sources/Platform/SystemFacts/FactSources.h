// Where the machine facts are read from: the kernel's /proc and /sys trees and
// uname(2). Tests point the roots at fake trees and fix the uname answers.
#pragma once

#include <cstddef>
#include <filesystem>
#include <optional>
#include <string>

namespace SystemFacts {

struct FactSources {
    std::filesystem::path proc = "/proc";
    std::filesystem::path sys = "/sys";
    /// uname's machine field ("x86_64", "aarch64"); absent: ask uname.
    std::optional<std::string> machine;
    /// uname's release field ("6.1.0-18-amd64"); absent: ask uname.
    std::optional<std::string> kernelRelease;

    /// machine, or uname's answer; "" when uname fails.
    std::string unameMachine() const;
    /// kernelRelease, or uname's answer; "" when uname fails.
    std::string unameRelease() const;

    /// The first `limit` bytes of a (pseudo) file, or absent when it cannot
    /// be opened or read (missing, no permission).
    static std::optional<std::string> readFile(const std::filesystem::path& path, std::size_t limit = 65536);
    /// text without trailing blanks, line feeds and NUL bytes.
    static std::string trimmed(std::string text);
};

}  // namespace SystemFacts
