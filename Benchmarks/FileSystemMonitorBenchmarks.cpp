// How long does a FileSystemMonitor take to follow a target that comes into
// existence, and what does a start cost?
//
// Appearance: target A/B/C under root A, with A and B present. Each round
// arms a fresh monitor, then, from the clock's start: mkdir C; once C is
// armed, create an entry in C; stop the clock when the delegate's change call
// runs. "C is armed" is the walk's debug line for B ("... is already
// monitoring."), the last thing the walk does after arming C; a log handler
// that only looks for that line lets the writer go. The same round is then
// run against a bare inotify loop on the same folder (one thread blocked in
// read(2) on a watch of B that adds a watch on C when C appears, then reports
// the entry made in C), timed from the same point, as the floor the kernel
// sets.
//
// Start: startMonitoring() on a fresh monitor of a 20-level chain, with every
// level present (20 descriptors and sources) and with only the root present
// (19 levels found missing), beside 20 bare open + inotify_add_watch calls.
#include <benchmark/benchmark.h>
#include <fcntl.h>
#include <sys/inotify.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <chrono>
#include <cmath>
#include <condition_variable>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "Dispatch/DispatchSemaphore.h"
#include "Figures.h"
#include "Tovik/FileSystemMonitor.h"
#include "Tovik/Logger/Logger.h"

namespace {

namespace fs = std::filesystem;
using Clock = std::chrono::steady_clock;

constexpr int kRounds = 300;
constexpr int kChainLevels = 20;

fs::path makeScratch() {
    std::string pattern = (fs::temp_directory_path() / "fsmonitor-bench-XXXXXX").string();
    if (!::mkdtemp(pattern.data())) std::abort();
    return pattern;
}

struct Scratch {
    fs::path root = makeScratch();
    ~Scratch() {
        std::error_code ignored;
        fs::remove_all(root, ignored);
    }
};

void makeEntry(const fs::path& path) { std::ofstream{path}; }

// A one-shot signal that records when it fired.
class Signal {
public:
    void fire() {
        std::lock_guard lock(mutex_);
        if (firedAt_) return;
        firedAt_ = Clock::now();
        fired_.notify_all();
    }
    // The firing time, or nothing after 5 s.
    std::optional<Clock::time_point> wait() {
        std::unique_lock lock(mutex_);
        fired_.wait_for(lock, std::chrono::seconds(5), [&] { return firedAt_.has_value(); });
        return firedAt_;
    }
    void reset() {
        std::lock_guard lock(mutex_);
        firedAt_.reset();
    }

private:
    std::mutex mutex_;
    std::condition_variable fired_;
    std::optional<Clock::time_point> firedAt_;
};

// Fires when the one line it waits for is logged; ignores everything else.
class LineSignal : public Tovik::LogHandlerProtocol {
public:
    void expect(std::string line) {
        std::lock_guard lock(mutex_);
        line_ = std::move(line);
        signal.reset();
    }
    void log(Tovik::LogLevel, Tovik::Date, std::string_view text) noexcept override {
        std::lock_guard lock(mutex_);
        if (text == line_) signal.fire();
    }
    Signal signal;

private:
    std::mutex mutex_;
    std::string line_;
};

struct Delegate : Tovik::FileSystemMonitorDelegate {
    void fileSystemMonitorDidObserveChange(const std::shared_ptr<Tovik::FileSystemMonitor>&,
                                           Dispatch::FileSystemEvent events) override {
        if (events.contains(Dispatch::FileSystemEvent::write())) changed.fire();
    }
    Signal changed;
};

// One thread blocked in read(2): watches `parent`; when `name` appears in it,
// adds a watch on it and lets the writer go; reports the first entry made there.
class BareInotifyLoop {
public:
    BareInotifyLoop() : fd_(inotify_init1(IN_CLOEXEC)) {}
    ~BareInotifyLoop() { ::close(fd_); }

    void arm(const fs::path& parent, const std::string& name) {
        parentWatch_ = inotify_add_watch(fd_, parent.c_str(), IN_CREATE | IN_ONLYDIR);
        name_ = name;
        target_ = parent / name;
        armed.reset();
        changed.reset();
        reader_ = std::thread([this] { run(); });
    }
    void join() {
        reader_.join();
        inotify_rm_watch(fd_, parentWatch_);
    }
    Signal armed, changed;

private:
    void run() {
        alignas(inotify_event) char buffer[4096];
        int targetWatch = -1;
        for (;;) {
            ssize_t length = ::read(fd_, buffer, sizeof buffer);
            if (length < 0 && errno == EINTR) continue;
            if (length <= 0) return;
            for (ssize_t offset = 0; offset < length;) {
                const auto& event = *reinterpret_cast<const inotify_event*>(buffer + offset);
                offset += static_cast<ssize_t>(sizeof(inotify_event) + event.len);
                if (event.wd == parentWatch_ && targetWatch < 0 && event.len > 0 && name_ == event.name) {
                    targetWatch = inotify_add_watch(fd_, target_.c_str(), IN_CREATE | IN_ONLYDIR);
                    armed.fire();
                } else if (event.wd == targetWatch && targetWatch >= 0) {
                    changed.fire();
                    inotify_rm_watch(fd_, targetWatch);
                    return;
                }
            }
        }
    }

    const int fd_;
    int parentWatch_ = -1;
    std::string name_;
    fs::path target_;
    std::thread reader_;
};

double microseconds(Clock::duration d) { return std::chrono::duration<double, std::micro>(d).count(); }

double percentile(std::vector<double> values, double p) {
    std::sort(values.begin(), values.end());
    size_t rank = static_cast<size_t>(std::ceil(p * static_cast<double>(values.size())));
    return values[std::clamp<size_t>(rank, 1, values.size()) - 1];
}

// Makes C, waits for `armed`, makes an entry in C, waits for `changed`;
// microseconds from before the mkdir to the change, or nothing on a time-out.
std::optional<double> appearanceRound(const fs::path& target, Signal& armed, Signal& changed) {
    const Clock::time_point start = Clock::now();
    fs::create_directory(target);
    if (!armed.wait()) return std::nullopt;
    makeEntry(target / "entry");
    auto changedAt = changed.wait();
    if (!changedAt) return std::nullopt;
    return microseconds(*changedAt - start);
}

void BM_AppearanceToChange(benchmark::State& state) {
    Scratch scratch;
    const fs::path a = scratch.root / "A", b = a / "B", c = b / "C";
    fs::create_directories(b);
    auto lines = std::make_shared<LineSignal>();
    Tovik::Logger::shared().setHandlers({lines});
    Tovik::Logger::shared().setLogLevel(Tovik::LogLevel::debug);
    auto delegate = std::make_shared<Delegate>();
    BareInotifyLoop bare;
    std::vector<double> monitorTimes, bareTimes;

    for (auto _ : state) {
        auto monitor = Tovik::FileSystemMonitor::create(c.string(), a.string());
        monitor->setDelegate(delegate);
        lines->expect("D: (FileSystemMonitor: restartMonitoringQ(below:)) Path " + b.string() +
                      " is already monitoring.");
        delegate->changed.reset();
        if (!monitor->startMonitoring()) {
            state.SkipWithError("start failed");
            break;
        }
        auto observed = appearanceRound(c, lines->signal, delegate->changed);
        monitor.reset();
        fs::remove_all(c);
        if (!observed) {
            state.SkipWithError("the monitor never reported the change");
            break;
        }
        monitorTimes.push_back(*observed);
        state.SetIterationTime(*observed / 1e6);

        bare.arm(b, "C");
        auto floor = appearanceRound(c, bare.armed, bare.changed);
        bare.join();
        fs::remove_all(c);
        if (!floor) {
            state.SkipWithError("the bare loop never saw the change");
            break;
        }
        bareTimes.push_back(*floor);
    }
    Tovik::Logger::shared().setHandlers({});
    if (monitorTimes.empty()) return;

    const double median = percentile(monitorTimes, 0.5), p99 = percentile(monitorTimes, 0.99);
    const double bareMedian = percentile(bareTimes, 0.5), bareP99 = percentile(bareTimes, 0.99);
    state.counters["median_us"] = median;
    state.counters["p99_us"] = p99;
    state.counters["bare_median_us"] = bareMedian;
    state.counters["bare_p99_us"] = bareP99;
    state.counters["median_x_bare"] = median / std::max(bareMedian, 1.0);
    state.counters["p99_x_bare"] = p99 / std::max(bareP99, 1.0);
}
BENCHMARK(BM_AppearanceToChange)->Iterations(kRounds)->UseManualTime()->Unit(benchmark::kMicrosecond);

// A 20-level chain: the root (present) and 19 levels below it, present or
// not. The root lies in a folder of its own: each watched level also watches
// the folder that holds it, and a first watch on a folder with many entries
// (the system's temporary folder) costs the kernel a walk over all of them.
fs::path makeChain(const fs::path& scratch, bool present) {
    fs::path target = scratch / "root";
    fs::create_directory(target);
    for (int level = 1; level < kChainLevels; ++level) target /= std::string("l").append(std::to_string(level));
    if (present) fs::create_directories(target);
    return target;
}

void BM_StartOn20LevelChain(benchmark::State& state) {
    const bool present = state.range(0) != 0;
    Scratch scratch;
    const fs::path target = makeChain(scratch.root, present);
    Tovik::Logger::shared().setHandlers({});
    Tovik::Logger::shared().setLogLevel(Tovik::LogLevel::info);
    for (auto _ : state) {
        auto monitor = Tovik::FileSystemMonitor::create(target.string(), (scratch.root / "root").string());
        const Clock::time_point start = Clock::now();
        bool started = monitor->startMonitoring();
        state.SetIterationTime(std::chrono::duration<double>(Clock::now() - start).count());
        if (!started) {
            state.SkipWithError("start failed");
            break;
        }
        monitor.reset();
        monitor = nullptr;
    }
}
BENCHMARK(BM_StartOn20LevelChain)
    ->ArgName("all_present")
    ->Arg(1)
    ->Arg(0)
    ->UseManualTime()
    ->Unit(benchmark::kMicrosecond);

// The floor of arming 20 present levels: an event-only open and an inotify
// watch per level (the monitor's sources add a watch on each level's parent too).
void BM_Bare20OpensAndWatches(benchmark::State& state) {
    Scratch scratch;
    const fs::path target = makeChain(scratch.root, true);
    std::vector<std::string> levels;
    for (fs::path level = target; level != scratch.root; level = level.parent_path()) {
        levels.push_back(level.string());
    }
    const int inotify = inotify_init1(IN_CLOEXEC);
    std::vector<int> fds, watches;
    for (auto _ : state) {
        for (const std::string& level : levels) {
            fds.push_back(::open(level.c_str(), O_PATH | O_CLOEXEC));
            watches.push_back(inotify_add_watch(inotify, level.c_str(), IN_ALL_EVENTS));
        }
        state.PauseTiming();
        for (int watch : watches) inotify_rm_watch(inotify, watch);
        for (int fd : fds) ::close(fd);
        fds.clear();
        watches.clear();
        state.ResumeTiming();
    }
    ::close(inotify);
}
BENCHMARK(BM_Bare20OpensAndWatches)->Unit(benchmark::kMicrosecond);

}  // namespace

int main(int argc, char** argv) {
    benchmark::Initialize(&argc, argv);
    if (benchmark::ReportUnrecognizedArguments(argc, argv)) return 1;
    Figures::MedianReporter reporter;
    benchmark::RunSpecifiedBenchmarks(&reporter);
    benchmark::Shutdown();
    if (const double median = reporter.counter("BM_AppearanceToChange", "median_us"); median > 0) {
        Figures::report("file-system monitor: target appearing to the change call, median",
                        Figures::text("%.1f us (bare inotify loop %.1f us)", median,
                                      reporter.counter("BM_AppearanceToChange", "bare_median_us")),
                        "", false);
    }
    return 0;
}
