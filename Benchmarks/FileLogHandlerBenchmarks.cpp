// Figures of the file log handler, all measured in one run on the same file
// system (files in one temporary folder) with the same record bytes:
// - one thread: the handler against a bare flock + write + unlock loop of the
//   pre-built record (CPU time, target >= 0.95x), its own cost per record (the
//   difference) against spdlog's buffered basic_file_sink_st call, and the
//   handler against spdlog's flushing basic_file_sink_mt;
// - 8 threads of one process and 4 processes on one file: aggregate rates
//   beside the single-thread rate (targets >= 0.9x and >= 0.8x), and the bare
//   loop in 4 processes, which bounds what any flock-per-record writer gets;
// - credential stripping of lines without credentials beside a memchr scan of
//   the same bytes.
// Figure lines with the ratios (from the medians) follow Google Benchmark's table.
#include <benchmark/benchmark.h>
#include <fcntl.h>
#include <spawn.h>
#include <stdlib.h>
#include <sys/file.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>
#include <cstring>
#include <filesystem>
#include <map>
#include <memory>
#include <string>
#include <vector>

#ifdef HAVE_SPDLOG
#include <spdlog/sinks/basic_file_sink.h>
#include <spdlog/spdlog.h>
#endif

#include "Figures.h"
#include "Kernel/ThreadPort.h"
#include "Tovik/Logger/Handlers/FileLogHandler.h"

extern char** environ;

namespace {

using Tovik::FileLogHandler;
using Clock = std::chrono::system_clock;

constexpr std::string_view text =
    "I: (AppBundleObserver) Application bundle /Applications/Velmora VPN.app still exists, nothing to do";
constexpr const char* childVariable = "FILE_LOG_HANDLER_BENCHMARK_CHILD";
constexpr int processes = 4;
constexpr int recordsPerProcess = 200000;
const Tovik::Date date = Clock::now();
// Measurements, not rotation: no check comes during a run.
const FileLogHandler::Options noRotation{.firstCheckDelay = 1e6};

std::filesystem::path folder() {
    static const std::filesystem::path path = [] {
        std::string pattern = (std::filesystem::temp_directory_path() / "filelog-bench-XXXXXX").string();
        if (::mkdtemp(pattern.data()) == nullptr) std::abort();
        return std::filesystem::path(pattern);
    }();
    return path;
}

std::string freshFile(const std::string& name) {
    std::string path = (folder() / name).string();
    std::filesystem::remove(path);
    return path;
}

std::string record() {
    return FileLogHandler::formatRecord("S", date, ::getpid(), Kernel::threadPort(), text, true);
}

void BM_BareFlockWrite(benchmark::State& state) {
    const std::string bytes = record();
    const std::string path = freshFile("bare.log");
    int fd = ::open(path.c_str(), O_WRONLY | O_APPEND | O_CREAT | O_CLOEXEC, 0644);
    for (auto _ : state) {
        ::flock(fd, LOCK_EX);
        benchmark::DoNotOptimize(::write(fd, bytes.data(), bytes.size()));
        ::flock(fd, LOCK_UN);
    }
    ::close(fd);
    std::filesystem::remove(path);
    state.SetItemsProcessed(state.iterations());
}
BENCHMARK(BM_BareFlockWrite);

void BM_Handler(benchmark::State& state) {
    const std::string path = freshFile("handler.log");
    {
        FileLogHandler handler("S", path, true, noRotation);
        for (auto _ : state) handler.log(Tovik::LogLevel::info, date, text);
    }
    // The handler's bytes are the bare loop's bytes.
    std::string first(record().size(), '\0');
    int fd = ::open(path.c_str(), O_RDONLY);
    if (::read(fd, first.data(), first.size()) != ssize_t(first.size()) || first != record()) {
        state.SkipWithError("the handler wrote other bytes");
    }
    ::close(fd);
    std::filesystem::remove(path);
    state.SetItemsProcessed(state.iterations());
}
BENCHMARK(BM_Handler);

FileLogHandler* sharedHandler = nullptr;

void BM_HandlerThreads(benchmark::State& state) {
    for (auto _ : state) sharedHandler->log(Tovik::LogLevel::info, date, text);
    state.SetItemsProcessed(state.iterations());
}
BENCHMARK(BM_HandlerThreads)->Threads(8)->UseRealTime();

// A child writes its records between the parent's start signal (end of file
// on `go`) and its report of the end time on `done`.
// Mode 0 logs through a handler, mode 1 runs the bare flock + write loop.
int runChild(const char* job) {
    char path[4096] = {};
    int mode = 0, count = 0, go = -1, ready = -1, done = -1;
    if (std::sscanf(job, "%d %d %d %d %d %4095[^\n]", &mode, &count, &go, &ready, &done, path) != 6) return 2;
    FileLogHandler handler("S", path, true, noRotation);
    const std::string bytes = record();
    const int fd = ::open(path, O_WRONLY | O_APPEND | O_CLOEXEC);
    char byte = 1;
    if (fd < 0 || ::write(ready, &byte, 1) != 1) return 3;
    while (::read(go, &byte, 1) > 0) {
    }
    for (int i = 0; i < count; ++i) {
        if (mode == 0) {
            handler.log(Tovik::LogLevel::info, date, text);
        } else {
            ::flock(fd, LOCK_EX);
            benchmark::DoNotOptimize(::write(fd, bytes.data(), bytes.size()));
            ::flock(fd, LOCK_UN);
        }
    }
    const int64_t end = std::chrono::steady_clock::now().time_since_epoch().count();
    return ::write(done, &end, sizeof end) == sizeof end ? 0 : 4;
}

void processesLoop(benchmark::State& state, int mode) {
    const std::string path = freshFile("processes.log");
    for (auto _ : state) {
        int go[2], ready[2], done[2];
        if (::pipe(go) != 0 || ::pipe(ready) != 0 || ::pipe(done) != 0) state.SkipWithError("pipe");
        std::string job = std::string(childVariable) + "=" + std::to_string(mode) + " " +
                          std::to_string(recordsPerProcess) + " " +
                          std::to_string(go[0]) + " " + std::to_string(ready[1]) + " " + std::to_string(done[1]) +
                          " " + path;
        std::vector<char*> envp{job.data()};
        for (char** variable = environ; *variable != nullptr; ++variable) envp.push_back(*variable);
        envp.push_back(nullptr);
        char program[] = "/proc/self/exe";
        char* argv[] = {program, nullptr};
        posix_spawn_file_actions_t actions;  // the children keep only their own ends
        ::posix_spawn_file_actions_init(&actions);
        for (int end : {go[1], ready[0], done[0]}) ::posix_spawn_file_actions_addclose(&actions, end);
        std::vector<pid_t> children(processes);
        for (pid_t& child : children) ::posix_spawn(&child, program, &actions, nullptr, argv, envp.data());
        ::posix_spawn_file_actions_destroy(&actions);
        ::close(go[0]);
        ::close(ready[1]);
        ::close(done[1]);
        char byte;
        for (int i = 0; i < processes; ++i) (void)::read(ready[0], &byte, 1);
        const auto start = std::chrono::steady_clock::now();
        ::close(go[1]);
        int64_t last = 0, end = 0;
        while (::read(done[0], &end, sizeof end) == sizeof end) last = std::max(last, end);
        for (pid_t child : children) ::waitpid(child, nullptr, 0);
        ::close(ready[0]);
        ::close(done[0]);
        state.SetIterationTime(std::chrono::duration<double>(std::chrono::steady_clock::duration(last) -
                                                             start.time_since_epoch())
                                   .count());
    }
    std::filesystem::remove(path);
    state.SetItemsProcessed(state.iterations() * processes * recordsPerProcess);
}
void BM_HandlerProcesses(benchmark::State& state) { processesLoop(state, 0); }
BENCHMARK(BM_HandlerProcesses)->UseManualTime()->Iterations(3);

void BM_BareFlockWriteProcesses(benchmark::State& state) { processesLoop(state, 1); }
BENCHMARK(BM_BareFlockWriteProcesses)->UseManualTime()->Iterations(3);

#ifdef HAVE_SPDLOG
void spdlogLoop(benchmark::State& state, std::shared_ptr<spdlog::logger> logger) {
    // "%v" and the default line feed: the very record bytes.
    logger->set_pattern("%v");
    const std::string line = record().substr(0, record().size() - 1);
    for (auto _ : state) logger->info(line);
    logger->flush();
    state.SetItemsProcessed(state.iterations());
}

void BM_SpdlogFlushingMt(benchmark::State& state) {
    const std::string path = freshFile("spdlog-mt.log");
    auto logger = std::make_shared<spdlog::logger>("mt", std::make_shared<spdlog::sinks::basic_file_sink_mt>(path));
    logger->flush_on(spdlog::level::trace);
    spdlogLoop(state, logger);
    std::filesystem::remove(path);
}
BENCHMARK(BM_SpdlogFlushingMt);

void BM_SpdlogBufferedSt(benchmark::State& state) {
    const std::string path = freshFile("spdlog-st.log");
    spdlogLoop(state, std::make_shared<spdlog::logger>(
                          "st", std::make_shared<spdlog::sinks::basic_file_sink_st>(path)));
    std::filesystem::remove(path);
}
BENCHMARK(BM_SpdlogBufferedSt);
#endif

// Typical lines: colons, but no credential header.
const std::vector<std::string>& plainLines() {
    static const std::vector<std::string> lines{
        std::string(text),
        "E: (FileLogManager: saveWholeLog(in:maxSize:)) copyfile(_:to:append:maxSize:seekSeparator:): read failed",
        "D: (Process: run(path:args:workdir:)) (launchctl) stdout: system/com.velmora.mac.vpn.vpn_helper: state = on",
        "I: (BackendClient) Tracking uninstall for app 1143 with MAC 52:54:00:12:34:56 and serial C02XK0AAJG5H",
    };
    return lines;
}

void BM_StripCredentialsPlainLines(benchmark::State& state) {
    std::string out;
    int64_t bytes = 0;
    for (auto _ : state) {
        for (const std::string& line : plainLines()) {
            out.clear();
            FileLogHandler::stripCredentials(line, out);
            benchmark::DoNotOptimize(out.data());
            bytes += int64_t(line.size());
        }
    }
    state.SetItemsProcessed(state.iterations() * int64_t(plainLines().size()));
    state.SetBytesProcessed(bytes);
}
BENCHMARK(BM_StripCredentialsPlainLines);

void BM_MemchrScanPlainLines(benchmark::State& state) {
    int64_t bytes = 0;
    for (auto _ : state) {
        for (const std::string& line : plainLines()) {
            benchmark::DoNotOptimize(std::memchr(line.data(), '\x1e', line.size()));
            bytes += int64_t(line.size());
        }
    }
    state.SetItemsProcessed(state.iterations() * int64_t(plainLines().size()));
    state.SetBytesProcessed(bytes);
}
BENCHMARK(BM_MemchrScanPlainLines);

void printSummary(const Figures::MedianReporter& reporter) {
    // Rates from the medians' times: CPU time per record for one thread (what
    // the writing thread spends), real time for the aggregate figures.
    auto cpuRate = [&](const char* name) { const double ns = reporter.cpuNs(name); return ns > 0 ? 1e9 / ns : 0; };
    auto realRate = [&](const char* name, double recordsPerIteration) {
        const double ns = reporter.realNs(name);
        return ns > 0 ? recordsPerIteration * 1e9 / ns : 0;
    };
    const double handler = cpuRate("BM_Handler"), bare = cpuRate("BM_BareFlockWrite");
    std::printf("\nFile log handler, %zu-byte records\n", record().size());
    if (handler > 0 && bare > 0) {
        Figures::report("file handler: one thread vs bare flock+write+unlock (CPU)",
                        Figures::text("%.0f vs %.0f records/s, %.2fx", handler, bare, handler / bare), ">= 0.95x",
                        handler / bare >= 0.95);
    }
    if (const double st = cpuRate("BM_SpdlogBufferedSt"); handler > 0 && bare > 0 && st > 0) {
        const double own = 1e9 / handler - 1e9 / bare;
        Figures::report("file handler: own cost per record vs spdlog's buffered call",
                        Figures::text("%.0f ns vs %.0f ns", own, 1e9 / st), "<= spdlog's", own <= 1e9 / st);
    }
    if (const double mt = cpuRate("BM_SpdlogFlushingMt"); handler > 0 && mt > 0) {
        Figures::report("file handler vs spdlog basic_file_sink_mt, flush_on(trace)",
                        Figures::text("%.2fx", handler / mt), "", false);
    }
    const double threads = realRate("BM_HandlerThreads", 1) * 8;  // 8 threads, real time per iteration of each
    if (handler > 0 && threads > 0) {
        Figures::report("file handler: 8 threads aggregate vs one thread",
                        Figures::text("%.0f records/s, %.2fx", threads, threads / handler), ">= 0.9x",
                        threads / handler >= 0.9);
    }
    const double processesRate = realRate("BM_HandlerProcesses", processes * recordsPerProcess);
    if (handler > 0 && processesRate > 0) {
        Figures::report("file handler: 4 processes aggregate vs one thread",
                        Figures::text("%.0f records/s, %.2fx", processesRate, processesRate / handler), ">= 0.8x",
                        processesRate / handler >= 0.8);
    }
    if (const double bareProcesses = realRate("BM_BareFlockWriteProcesses", processes * recordsPerProcess);
        processesRate > 0 && bareProcesses > 0) {
        Figures::report("file handler: 4 processes vs the bare loop in 4 processes",
                        Figures::text("%.2fx", processesRate / bareProcesses), "", false);
    }
    const double strip = reporter.cpuNs("BM_StripCredentialsPlainLines"), scan = reporter.cpuNs("BM_MemchrScanPlainLines");
    if (strip > 0 && scan > 0) {
        const double lines = double(plainLines().size());
        Figures::report("credential stripping, lines without credentials vs memchr scan",
                        Figures::text("%.1f ns vs %.1f ns per line, %.2fx", strip / lines, scan / lines, strip / scan),
                        "<= 2x", strip / scan <= 2);
    }
}

}  // namespace

int main(int argc, char** argv) {
    if (const char* job = std::getenv(childVariable)) return runChild(job);
    benchmark::Initialize(&argc, argv);
    {
        FileLogHandler threadsHandler("S", freshFile("threads.log"), true, noRotation);
        sharedHandler = &threadsHandler;
        Figures::MedianReporter reporter;
        benchmark::RunSpecifiedBenchmarks(&reporter);
        printSummary(reporter);
        sharedHandler = nullptr;
    }
    benchmark::Shutdown();
    std::filesystem::remove_all(folder());
    return 0;
}
