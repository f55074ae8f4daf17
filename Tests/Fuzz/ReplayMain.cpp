// Replays fuzz inputs without libFuzzer, so every build (GCC included) runs
// the committed corpora as tests.
//
// Usage: <target> <file or folder>...
// Each file named, and each regular file directly inside each folder named
// (in name order), goes once through LLVMFuzzerTestOneInput. A sanitizer
// report or failed check ends the process as it would under libFuzzer; the
// name of the input is printed first so the culprit is known. Exits 1 when
// nothing could be replayed (a wrong path must not pass as a clean run).
#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>
#include <system_error>
#include <vector>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size);

namespace {

bool replay(const std::filesystem::path& path) {
    std::ifstream in(path, std::ios::binary);
    if (!in) {
        std::fprintf(stderr, "replay: cannot read %s\n", path.c_str());
        return false;
    }
    const std::vector<char> bytes((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
    std::fprintf(stderr, "replay: %s (%zu bytes)\n", path.c_str(), bytes.size());
    // A copy of exactly the input's size, so reads past its end are caught.
    std::vector<uint8_t> input(bytes.begin(), bytes.end());
    LLVMFuzzerTestOneInput(input.empty() ? nullptr : input.data(), input.size());
    return true;
}

}  // namespace

int main(int argc, char** argv) {
    size_t replayed = 0;
    bool failed = false;
    for (int i = 1; i < argc; ++i) {
        const std::filesystem::path argument(argv[i]);
        std::error_code error;
        if (!std::filesystem::is_directory(argument, error)) {
            if (replay(argument)) ++replayed; else failed = true;
            continue;
        }
        std::vector<std::filesystem::path> files;
        for (const auto& entry : std::filesystem::directory_iterator(argument, error)) {
            std::error_code typeError;
            if (entry.is_regular_file(typeError)) files.push_back(entry.path());
        }
        if (error) {
            std::fprintf(stderr, "replay: cannot list %s: %s\n", argument.c_str(), error.message().c_str());
            failed = true;
        }
        std::sort(files.begin(), files.end());
        for (const auto& file : files) {
            if (replay(file)) ++replayed; else failed = true;
        }
    }
    std::fprintf(stderr, "replay: %zu inputs\n", replayed);
    return failed || replayed == 0 ? 1 : 0;
}
