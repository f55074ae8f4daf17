// Figures of saving logs for a support request, all in one run over the same
// files: a 50 MiB live file and a 50 MiB generation 1 written by the real
// handler (made once in a temporary folder; records of three subsystems with
// increasing dates over four days, about 0.5 s apart).
// - A period of about 1 % (58 minutes, inside the live file) with the
//   `whole` selector: the whole save and the bytes it reads (target <=
//   output + 28 MiB), beside copying exactly the output's byte range with
//   read/write ("cat", target <= 1.2x) and beside a linear scan of both files
//   that picks the same records (target >= 20x slower than the save); also
//   the extraction from existing clones and the cloning of both files.
// - The whole log with a 10 MiB budget: the whole save and the copy from an
//   existing clone, beside a read/write copy of the same tail bytes ("tail -c").
// Run with --benchmark_repetitions=5: the summary after the table uses the
// medians.
#include <benchmark/benchmark.h>
#include <fcntl.h>
#include <stdlib.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include "Figures.h"
#include "Tovik/Logger/FileLogManager.h"
#include "Tovik/Logger/Handlers/FileLogHandler.h"

namespace {

namespace fs = std::filesystem;
using Tovik::FileLogHandler;
using Tovik::FileLogManager;
using Tovik::LogSavingOpts;
using Tovik::LogSubsystemSelector;
using Clock = std::chrono::system_clock;

constexpr int64_t generationSize = 50 << 20;
constexpr int64_t budget = 10 << 20;
constexpr char RS = FileLogHandler::RECORD_SEPARATOR;
const Tovik::Date firstDate = Clock::from_time_t(1710936000);
constexpr std::chrono::milliseconds step(500);

struct Setup {
    fs::path folder, live, rotated, clones, out;
    Tovik::Date periodStart, periodEnd;
    // The bytes the period save delivers: [rangeStart, rangeEnd) of the live
    // file; the budget save's: [tailStart, size) of it.
    int64_t rangeStart = 0, rangeEnd = 0, tailStart = 0;
    std::vector<FileLogManager::TempFile> clonesMade;
};
Setup setup;

// Lines like the product's, with changing numbers; one of two lines.
std::string recordText(long i) {
    const std::string n = std::to_string(i * 7919 % 1000000);
    switch (i % 6) {
        case 0: return "I: (AppBundleObserver) Application bundle /Applications/Velmora VPN.app still exists";
        case 1: return "D: (Process: run(path:args:workdir:)) (launchctl) stdout: state = on, pid = " + n;
        case 2: return "I: (BackendClient) Tracking uninstall for app 1143 with serial C02XK0AAJG5H, attempt " + n;
        case 3: return "W: (DirectoryMonitor) Event 0x" + n + " on /Applications/Velmora VPN.app";
        case 4: return "E: (TunnelProvider: startTunnel(options:)) Connection failed: timed out\n  retry " + n;
        default: return "I: (SessionStats) rx " + n + " B, tx " + std::to_string(i % 4096) + " B, rtt 38 ms";
    }
}

// Writes records through three handlers (three subsystems) until the file
// holds `size` bytes; returns the number of the next record.
long writeGeneration(const fs::path& path, long first, int64_t size) {
    const FileLogHandler::Options noRotation{.firstCheckDelay = 1e6};
    std::vector<std::unique_ptr<FileLogHandler>> handlers;
    for (const char* subsystem : {"com.velmora.mac.vpn", "com.velmora.mac.vpn.helper", "com.velmora.mac.vpn.tunnel"}) {
        handlers.push_back(std::make_unique<FileLogHandler>(subsystem, path.string(), true, noRotation));
    }
    long i = first;
    for (; i % 1024 != 0 || fs::file_size(path) < uint64_t(size); ++i) {
        handlers[size_t(i % 3)]->log(Tovik::LogLevel::info, firstDate + i * step, recordText(i));
    }
    return i;
}

// Where in `bytes` the first record at or after (after, when `later`) the key starts.
int64_t linearBoundary(const std::string& bytes, const std::string& key, bool later) {
    for (size_t at = bytes.find(RS); at != std::string::npos; at = bytes.find(RS, at + 1)) {
        const int order = bytes.compare(at, key.size(), key);
        if (later ? order > 0 : order >= 0) return int64_t(at);
    }
    return int64_t(bytes.size());
}

std::string readWhole(const fs::path& path) {
    std::string bytes(fs::file_size(path), '\0');
    const int fd = ::open(path.c_str(), O_RDONLY);
    if (::pread(fd, bytes.data(), bytes.size(), 0) != ssize_t(bytes.size())) std::abort();
    ::close(fd);
    return bytes;
}

void prepare() {
    std::string pattern = (fs::temp_directory_path() / "log-extraction-bench-XXXXXX").string();
    if (::mkdtemp(pattern.data()) == nullptr) std::abort();
    setup.folder = pattern;
    setup.live = setup.folder / "app.log";
    setup.rotated = FileLogHandler::rotatedFilePath(setup.live.string(), 1);
    setup.clones = setup.folder / "clones";
    setup.out = setup.folder / "out";
    fs::create_directories(setup.clones);
    fs::create_directories(setup.out);
    const long older = writeGeneration(setup.rotated, 0, generationSize);
    const long records = writeGeneration(setup.live, older, generationSize);
    const Tovik::Date last = firstDate + records * step;
    setup.periodStart = firstDate + (last - firstDate) * 3 / 4;
    setup.periodEnd = setup.periodStart + (last - firstDate) / 100;

    using namespace std::chrono_literals;
    const std::string bytes = readWhole(setup.live);
    setup.rangeStart = linearBoundary(bytes, FileLogManager::searchKey(setup.periodStart - 1s), false);
    setup.rangeEnd = linearBoundary(bytes, FileLogManager::searchKey(setup.periodEnd + 1s), true);
    const size_t separator = bytes.find(RS, bytes.size() - size_t(budget));
    setup.tailStart = int64_t(separator);
    FileLogManager manager(setup.live.string());
    setup.clonesMade = manager.prepareTempFiles(setup.clones.string(), std::nullopt);
    std::printf("live %zu B, generation 1 %ju B, %ld records; period %.1f min\n", bytes.size(),
                uintmax_t(fs::file_size(setup.rotated)), records,
                std::chrono::duration<double, std::ratio<60>>(setup.periodEnd - setup.periodStart).count());
}

LogSavingOpts periodOpts() { return LogSavingOpts::init(setup.periodStart, setup.periodEnd); }

// Copies [start, end) of `from` into a new file with 1 MiB reads and writes
// (a new file, as the saves write theirs).
void copyRange(const fs::path& from, int64_t start, int64_t end, const fs::path& to) {
    static std::vector<char> buffer(1 << 20);
    fs::remove(to);
    const int in = ::open(from.c_str(), O_RDONLY | O_CLOEXEC);
    const int outFd = ::open(to.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0660);
    for (int64_t at = start; at < end;) {
        const ssize_t got = ::pread(in, buffer.data(), size_t(std::min<int64_t>(end - at, int64_t(buffer.size()))), at);
        if (got <= 0 || ::write(outFd, buffer.data(), size_t(got)) != got) std::abort();
        at += got;
    }
    ::close(in);
    ::close(outFd);
}

void countBytes(benchmark::State& state, const FileLogManager& manager, int64_t before, const fs::path& output) {
    state.counters["read_MiB"] =
        benchmark::Counter(double(manager.bytesRead() - before) / (1 << 20), benchmark::Counter::kAvgIterations);
    state.counters["out_MiB"] = double(fs::file_size(output)) / (1 << 20);
}

void BM_SavePeriod(benchmark::State& state) {
    FileLogManager manager(setup.live.string());
    for (auto _ : state) {
        fs::remove(setup.out / "app.log");  // into an empty folder, as for a support request
        const auto paths = manager.saveLogs(LogSubsystemSelector::whole(), setup.out.string(), periodOpts());
        if (fs::file_size(paths.at(0)) != uint64_t(setup.rangeEnd - setup.rangeStart)) {
            state.SkipWithError("the save delivered other bytes");
        }
    }
    countBytes(state, manager, 0, setup.out / "app.log");
}
BENCHMARK(BM_SavePeriod)->Unit(benchmark::kMillisecond);

// As a save does it: a new folder, the clones, the folder removed.
void BM_CloneStep(benchmark::State& state) {
    FileLogManager manager(setup.live.string());
    const fs::path folder = setup.folder / "clone-step";
    for (auto _ : state) {
        fs::create_directories(folder);
        benchmark::DoNotOptimize(manager.duplicateLogFiles(folder.string()));
        fs::remove_all(folder);
    }
}
BENCHMARK(BM_CloneStep)->Unit(benchmark::kMillisecond);

void BM_ExtractPeriodFromClones(benchmark::State& state) {
    FileLogManager manager(setup.live.string());
    const fs::path folder = setup.folder / "extract";
    fs::create_directories(folder);
    for (auto _ : state) {
        fs::remove(folder / "app.log");
        benchmark::DoNotOptimize(
            manager.doSaveLogs(setup.clonesMade, LogSubsystemSelector::whole(), folder.string(), periodOpts()));
    }
    countBytes(state, manager, 0, folder / "app.log");
}
BENCHMARK(BM_ExtractPeriodFromClones)->Unit(benchmark::kMillisecond);

void BM_CatPeriodRange(benchmark::State& state) {
    for (auto _ : state) copyRange(setup.live, setup.rangeStart, setup.rangeEnd, setup.folder / "cat.log");
}
BENCHMARK(BM_CatPeriodRange)->Unit(benchmark::kMillisecond);

// Reads both files whole and writes the records of the period: what a save
// without the search would do.
void BM_LinearScanPeriod(benchmark::State& state) {
    using namespace std::chrono_literals;
    const std::string startKey = FileLogManager::searchKey(setup.periodStart - 1s);
    const std::string endKey = FileLogManager::searchKey(setup.periodEnd + 1s);
    std::vector<char> buffer(1 << 20);
    int64_t written = 0;
    for (auto _ : state) {
        written = 0;
        const int outFd = ::open((setup.folder / "scan.log").c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0660);
        for (const fs::path& path : {setup.rotated, setup.live}) {
            const int in = ::open(path.c_str(), O_RDONLY | O_CLOEXEC);
            std::string carry;  // a record cut by the end of a block
            bool inside = false;
            for (ssize_t got; (got = ::read(in, buffer.data(), buffer.size())) > 0;) {
                carry.append(buffer.data(), size_t(got));
                size_t at = 0, next;
                std::string kept;
                while ((next = carry.find(RS, at + 1)) != std::string::npos) {
                    if (carry.size() - at >= startKey.size() && carry[at] == RS) {
                        inside = carry.compare(at, startKey.size(), startKey) >= 0 &&
                                 carry.compare(at, endKey.size(), endKey) <= 0;
                    }
                    if (inside) kept.append(carry, at, next - at);
                    at = next;
                }
                if (!kept.empty() && ::write(outFd, kept.data(), kept.size()) != ssize_t(kept.size())) std::abort();
                written += int64_t(kept.size());
                carry.erase(0, at);
            }
            // The file's last record.
            if (!carry.empty() && carry[0] == RS && carry.compare(0, startKey.size(), startKey) >= 0 &&
                carry.compare(0, endKey.size(), endKey) <= 0) {
                written += ::write(outFd, carry.data(), carry.size());
            }
            ::close(in);
        }
        ::close(outFd);
    }
    if (written != setup.rangeEnd - setup.rangeStart) state.SkipWithError("the scan found other records");
}
BENCHMARK(BM_LinearScanPeriod)->Unit(benchmark::kMillisecond);

void BM_SaveWholeLogBudget(benchmark::State& state) {
    FileLogManager manager(setup.live.string());
    for (auto _ : state) {
        fs::remove(setup.out / "app.log");
        const auto paths = manager.saveLogs(LogSubsystemSelector::whole(), setup.out.string(),
                                            LogSavingOpts::init(std::nullopt, std::nullopt, budget));
        if (fs::file_size(paths.at(0)) != fs::file_size(setup.live) - uint64_t(setup.tailStart)) {
            state.SkipWithError("the save delivered other bytes");
        }
    }
    countBytes(state, manager, 0, setup.out / "app.log");
}
BENCHMARK(BM_SaveWholeLogBudget)->Unit(benchmark::kMillisecond);

void BM_BudgetCopyFromClone(benchmark::State& state) {
    FileLogManager manager(setup.live.string());
    const std::string clone = setup.clonesMade.at(0).path;
    for (auto _ : state) {
        fs::remove(setup.folder / "budget.log");
        manager.copyfile(clone, (setup.folder / "budget.log").string(), false, -budget, RS);
    }
    countBytes(state, manager, 0, setup.folder / "budget.log");
}
BENCHMARK(BM_BudgetCopyFromClone)->Unit(benchmark::kMillisecond);

void BM_TailBudgetBytes(benchmark::State& state) {
    const int64_t size = int64_t(fs::file_size(setup.live));
    for (auto _ : state) copyRange(setup.live, setup.tailStart, size, setup.folder / "tail.log");
}
BENCHMARK(BM_TailBudgetBytes)->Unit(benchmark::kMillisecond);

void printSummary(const Figures::MedianReporter& reporter) {
    auto ms = [&](const char* name) { return reporter.realNs(name) / 1e6; };
    auto readMiB = [&](const char* name) { return reporter.counter(name, "read_MiB"); };
    const double outMiB = double(setup.rangeEnd - setup.rangeStart) / (1 << 20);
    const double save = ms("BM_SavePeriod"), cat = ms("BM_CatPeriodRange"), scan = ms("BM_LinearScanPeriod");
    std::printf("\nPeriod of 1 %% (whole selector), output %.2f MiB; medians\n", outMiB);
    if (save > 0) {
        Figures::report("log extraction, 1 % window: bytes read",
                        Figures::text("%.2f MiB (output %.2f MiB)", readMiB("BM_SavePeriod"), outMiB),
                        Figures::text("<= output + 28 = %.2f MiB", outMiB + 28),
                        readMiB("BM_SavePeriod") <= outMiB + 28);
    }
    if (save > 0 && cat > 0) {
        Figures::report("log extraction, 1 % window: save vs cat of the output range",
                        Figures::text("%.2f ms vs %.2f ms, %.2fx", save, cat, save / cat), "<= 1.2x", save / cat <= 1.2);
    }
    if (save > 0 && scan > 0) {
        Figures::report("log extraction, 1 % window: linear scan vs save",
                        Figures::text("%.2f ms vs %.2f ms, %.1fx faster", scan, save, scan / save), ">= 20x faster",
                        scan / save >= 20);
    }
    if (const double clones = ms("BM_ExtractPeriodFromClones"); clones > 0 && cat > 0) {
        std::printf("  extraction from clones       %8.2f ms   read %.2f MiB, extraction / cat %.2fx\n", clones,
                    readMiB("BM_ExtractPeriodFromClones"), clones / cat);
    }
    if (const double cloning = ms("BM_CloneStep"); cloning > 0) {
        std::printf("  cloning both files           %8.2f ms   (duplicateLogFiles, which saves no longer use)\n",
                    cloning);
    }
    if (const double whole = ms("BM_SaveWholeLogBudget"), tail = ms("BM_TailBudgetBytes"); whole > 0 && tail > 0) {
        Figures::report("log extraction, whole log with a 10 MiB budget vs tail -c",
                        Figures::text("%.2f ms vs %.2f ms, %.2fx (read %.2f MiB)", whole, tail, whole / tail,
                                      readMiB("BM_SaveWholeLogBudget")),
                        "", false);
    }
}

}  // namespace

int main(int argc, char** argv) {
    benchmark::Initialize(&argc, argv);
    prepare();
    Figures::MedianReporter reporter;
    benchmark::RunSpecifiedBenchmarks(&reporter);
    printSummary(reporter);
    benchmark::Shutdown();
    fs::remove_all(setup.folder);
    return 0;
}
