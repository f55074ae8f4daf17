#include "Support/TestSupport.h"

#include <gtest/gtest.h>
#include <stdlib.h>

#include <fstream>
#include <sstream>
#include <thread>

namespace TestSupport {

TemporaryDirectory::TemporaryDirectory(const std::string& prefix) {
    std::string pattern = (std::filesystem::temp_directory_path() / (prefix + "-XXXXXX")).string();
    if (mkdtemp(pattern.data()) == nullptr) {
        ADD_FAILURE() << "mkdtemp failed for " << pattern;
    }
    path_ = pattern;
}

TemporaryDirectory::~TemporaryDirectory() {
    std::error_code ignored;
    std::filesystem::remove_all(path_, ignored);
}

bool waitUntil(const std::function<bool()>& condition, std::chrono::milliseconds deadline) {
    auto end = std::chrono::steady_clock::now() + deadline;
    while (true) {
        if (condition()) return true;
        if (std::chrono::steady_clock::now() >= end) return condition();
        std::this_thread::sleep_for(std::chrono::milliseconds(2));
    }
}

void writeFile(const std::filesystem::path& path, const std::string& text) {
    std::ofstream out(path, std::ios::binary | std::ios::trunc);
    out << text;
    if (!out) ADD_FAILURE() << "cannot write " << path;
}

std::string readFile(const std::filesystem::path& path) {
    std::ifstream in(path, std::ios::binary);
    std::ostringstream text;
    text << in.rdbuf();
    return text.str();
}

int descriptorsOn(const std::filesystem::path& path) {
    int count = 0;
    std::error_code error;
    for (const auto& entry : std::filesystem::directory_iterator("/proc/self/fd", error)) {
        count += std::filesystem::read_symlink(entry, error) == path;
    }
    return count;
}

}  // namespace TestSupport
