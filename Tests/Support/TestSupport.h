// Fixtures shared by the suites.
#pragma once

#include <chrono>
#include <filesystem>
#include <functional>
#include <string>

namespace TestSupport {

/// A fresh folder under the system's temporary folder, removed with its
/// contents when the object goes away.
class TemporaryDirectory {
public:
    explicit TemporaryDirectory(const std::string& prefix = "tovik-test");
    ~TemporaryDirectory();
    TemporaryDirectory(const TemporaryDirectory&) = delete;
    TemporaryDirectory& operator=(const TemporaryDirectory&) = delete;

    const std::filesystem::path& path() const { return path_; }
    std::filesystem::path operator/(const std::string& name) const { return path_ / name; }

private:
    std::filesystem::path path_;
};

/// Polls condition until it holds or the deadline passes; returns the last
/// result. For asynchronous tests: assert on the result, never on time taken.
bool waitUntil(const std::function<bool()>& condition,
               std::chrono::milliseconds deadline = std::chrono::seconds(10));

/// Writes text to path (replacing it). Fails the current test on error.
void writeFile(const std::filesystem::path& path, const std::string& text);
/// The whole file, or "" when it cannot be read.
std::string readFile(const std::filesystem::path& path);

/// How many descriptors of this process refer to path (by their /proc/self/fd
/// link): shows whether a watch on it is still open.
int descriptorsOn(const std::filesystem::path& path);

}  // namespace TestSupport
