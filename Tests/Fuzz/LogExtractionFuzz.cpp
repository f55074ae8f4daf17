// Fuzzes saving logs for a support request. The input is a 9-byte request
// followed by log bytes, split into generation 1 and the live file:
//
//   byte 0    selector (bits 0-1: whole, single ["A", "B"], some ["A", "B"],
//             all), bit 2 start date, bit 3 end date, bit 4 size budget,
//             bit 5 no generation 1
//   byte 1    where the log bytes split: generation 1 gets size * byte / 256
//   bytes 2-5 start and end dates: signed 16-bit seconds (big-endian) from
//             2024-03-20 12:00:00 UTC
//   bytes 6-7 the budget in bytes (big-endian)
//   byte 8    the read block: 64 + 8 * byte bytes, so that small inputs cross
//             many blocks
//
// Every save must succeed, leave only the files it returns and, where each
// file's record dates are in order, deliver exactly what a plain scan of the
// records delivers (records of the period, per subsystem, cut to the budget
// from a record start).
#include <stdlib.h>
#include <time.h>

#include <algorithm>
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <fstream>
#include <iterator>
#include <map>
#include <optional>
#include <string>
#include <vector>

#include "Fuzz/FuzzSupport.h"
#include "Tovik/Logger/FileLogManager.h"
#include "Tovik/Logger/Handlers/FileLogHandler.h"

namespace {

namespace fs = std::filesystem;
using Tovik::FileLogManager;
using Tovik::LogSubsystemSelector;
using Files = std::map<std::string, std::string>;

constexpr char RS = Tovik::FileLogHandler::RECORD_SEPARATOR;
constexpr size_t requestSize = 9;
const Tovik::Date base = std::chrono::system_clock::from_time_t(1710936000);

std::string readFile(const fs::path& path) {
    std::ifstream in(path, std::ios::binary);
    return {std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>()};
}

bool isDigit(char c) { return c >= '0' && c <= '9'; }

// A record header's date at `at`: 0x1E "dddd-dd-dd dd:dd:dd.ddd".
bool isHeader(std::string_view bytes, size_t at) {
    static constexpr std::string_view shape =
        "\x1e"
        "0000-00-00 00:00:00.000";
    if (bytes.size() - at < shape.size()) return false;
    for (size_t i = 0; i < shape.size(); ++i) {
        if (shape[i] == '0' ? !isDigit(bytes[at + i]) : bytes[at + i] != shape[i]) return false;
    }
    return true;
}

bool isUsableName(std::string_view name) {
    if (name.empty() || name.size() > 128 || name == "." || name == "..") return false;
    return std::all_of(name.begin(), name.end(), [](char c) { return c >= 0x20 && c < 0x7f && c != '/'; });
}

// The newest maxSize bytes from the first record start in their first block.
std::string tail(std::string_view bytes, int64_t maxSize, int64_t block) {
    if (maxSize >= int64_t(bytes.size())) return std::string(bytes);
    const std::string_view span = bytes.substr(bytes.size() - size_t(maxSize));
    const size_t separator = span.substr(0, size_t(std::min(block, maxSize))).find(RS);
    return std::string(span.substr(separator == std::string_view::npos ? 0 : separator));
}

struct Request {
    LogSubsystemSelector selector = LogSubsystemSelector::whole();
    Tovik::LogSavingOpts opts;
    int64_t block = 64;
};

// What a plain scan delivers, or nothing when some file's dates are out of
// order (the search then finds some range, not a defined one).
std::optional<Files> expected(const Request& request, const std::optional<std::string>& generation1,
                              const std::string& live) {
    using namespace std::chrono_literals;
    const auto& opts = request.opts;
    const int64_t budget = std::max<int64_t>(0, opts.maxSize.value_or(INT64_MAX));
    const LogSubsystemSelector::Kind kind = request.selector.kind();
    if (kind == LogSubsystemSelector::Kind::whole && !opts.startDate && !opts.endDate) {
        std::string whole;
        if (generation1 && !generation1->empty() && budget > int64_t(live.size())) {
            whole += tail(*generation1, budget - int64_t(live.size()), request.block);
        }
        if (!live.empty() && budget > 0) whole += tail(live, budget, request.block);
        return Files{{"app.log", whole}};
    }

    const std::optional<std::string> startKey =
        opts.startDate ? std::optional(FileLogManager::searchKey(*opts.startDate - 1s)) : std::nullopt;
    const std::optional<std::string> endKey =
        opts.endDate ? std::optional(FileLogManager::searchKey(*opts.endDate + 1s)) : std::nullopt;
    Files files;
    if (kind == LogSubsystemSelector::Kind::whole || kind == LogSubsystemSelector::Kind::single) files["app.log"];
    for (const std::string* file : {generation1 ? &*generation1 : nullptr, &live}) {
        if (file == nullptr || file->empty()) continue;
        const std::string_view bytes(*file);
        size_t start = 0, end = bytes.size();
        if (startKey || endKey) {
            std::vector<size_t> headers;
            for (size_t at = bytes.find(RS); at != std::string_view::npos; at = bytes.find(RS, at + 1)) {
                if (isHeader(bytes, at)) headers.push_back(at);
            }
            if (headers.empty()) continue;  // reported and skipped
            auto prefix = [&](size_t at) { return bytes.substr(at, 20); };
            for (size_t i = 1; i < headers.size(); ++i) {
                if (prefix(headers[i]) < prefix(headers[i - 1])) return std::nullopt;
            }
            auto firstWhere = [&](auto&& holds) {
                const auto found = std::find_if(headers.begin(), headers.end(), holds);
                return found == headers.end() ? bytes.size() : *found;
            };
            if (startKey) start = firstWhere([&](size_t at) { return prefix(at) >= *startKey; });
            if (endKey) end = firstWhere([&](size_t at) { return prefix(at) > *endKey; });
        }
        if (start >= end) continue;
        const std::string_view range = bytes.substr(start, end - start);
        if (kind == LogSubsystemSelector::Kind::whole) {
            files["app.log"] += range;
            continue;
        }
        for (size_t at = range.find(RS), next; at != std::string_view::npos; at = next) {
            next = range.find(RS, at + 1);
            const std::string_view record = range.substr(at, next == std::string_view::npos ? next : next - at);
            const auto name = FileLogManager::getSubsystemNameData(record, {0, int64_t(record.size())});
            if (!name || !isUsableName(*name)) continue;
            const auto& names = request.selector.names();
            const bool listed = std::find(names.begin(), names.end(), *name) != names.end();
            if (kind == LogSubsystemSelector::Kind::single) {
                if (listed) files["app.log"] += record;
            } else if (kind == LogSubsystemSelector::Kind::all || listed) {
                files[std::string(*name) + ".log"] += record;
            }
        }
    }
    for (auto& [name, contents] : files) contents = tail(contents, budget, request.block);
    return files;
}

Request parse(const uint8_t* request) {
    auto seconds = [&](size_t at) { return std::chrono::seconds(int16_t(request[at] << 8 | request[at + 1])); };
    Request parsed;
    const std::vector<std::string> names{"A", "B"};
    switch (request[0] & 3) {
        case 0:
            parsed.selector = LogSubsystemSelector::whole();
            break;
        case 1:
            parsed.selector = LogSubsystemSelector::single(names);
            break;
        case 2:
            parsed.selector = LogSubsystemSelector::some(names);
            break;
        default:
            parsed.selector = LogSubsystemSelector::all();
            break;
    }
    if (request[0] & 4) parsed.opts.startDate = base + seconds(2);
    if (request[0] & 8) parsed.opts.endDate = base + seconds(4);
    if (request[0] & 16) parsed.opts.maxSize = request[6] << 8 | request[7];
    parsed.block = 64 + 8 * int64_t(request[8]);
    return parsed;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    static const bool utc = [] {  // dates in the seeds are UTC
        ::setenv("TZ", "UTC", 1);
        ::tzset();
        return true;
    }();
    (void)utc;
    FuzzSupport::quietLogs();
    const fs::path& folder = FuzzSupport::scratchFolder();
    const fs::path live = folder / "app.log", rotated = folder / "app.1.log", out = folder / "out";

    uint8_t request[requestSize] = {};
    std::copy(data, data + std::min(size, requestSize), request);
    const std::string_view logBytes =
        size > requestSize ? FuzzSupport::bytesOf(data + requestSize, size - requestSize) : std::string_view();
    const Request parsed = parse(request);
    const size_t split = logBytes.size() * request[1] / 256;
    std::optional<std::string> generation1;
    if (!(request[0] & 32)) generation1 = std::string(logBytes.substr(0, split));
    const std::string liveBytes(generation1 ? logBytes.substr(split) : logBytes);

    fs::remove(rotated);
    if (generation1) FuzzSupport::writeFile(rotated, *generation1);
    FuzzSupport::writeFile(live, liveBytes);
    fs::remove_all(out);
    fs::create_directory(out);

    FileLogManager manager(live.string(), size_t(parsed.block));
    std::vector<std::string> paths;
    try {
        paths = manager.saveLogs(parsed.selector, out.string(), parsed.opts);
    } catch (const std::exception& error) {
        std::fprintf(stderr, "saveLogs threw: %s\n", error.what());
        FUZZ_CHECK(!"saveLogs threw");
    }
    Files saved;
    for (const std::string& path : paths) {
        FUZZ_CHECK(fs::path(path).parent_path() == out);
        saved[fs::path(path).filename().string()] = readFile(path);
    }
    size_t entries = 0;
    for (const auto& entry : fs::directory_iterator(out)) entries += saved.count(entry.path().filename().string());
    FUZZ_CHECK(entries == saved.size() && saved.size() == paths.size());  // no temporary folder left

    const std::optional<Files> wanted = expected(parsed, generation1, liveBytes);
    if (wanted && saved != *wanted) {
        for (const auto& [name, contents] : saved)
            std::fprintf(stderr, "saved %s: %zu bytes\n", name.c_str(), contents.size());
        for (const auto& [name, contents] : *wanted)
            std::fprintf(stderr, "wanted %s: %zu bytes\n", name.c_str(), contents.size());
        FUZZ_CHECK(!"the save differs from a plain scan");
    }
    return 0;
}
