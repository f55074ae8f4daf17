// How long after the bundle disappears does the observer's completion run?
//
// Each round arms a fresh observer on a small bundle, deletes the bundle
// (a rename into a Trash folder, or a recursive remove as `rm -rf` does it)
// and measures from just before the deleting call to the completion running.
// The same round is repeated against a bare inotify loop (one thread blocked
// in read(2) on a watch of the bundle folder), interleaved with the observer's
// rounds, as the floor the kernel sets. Logging is off: the figure is the
// monitor -> observer queue -> completion path, not log output.
//
// Counters: median and 99th percentile in microseconds for both, and their
// ratios. Targets for the observer: median <= 200 us, p99 <= 2 ms.
#include <benchmark/benchmark.h>
#include <sys/inotify.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <atomic>
#include <chrono>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <string>
#include <thread>
#include <vector>

#include "Dispatch/DispatchSemaphore.h"
#include "Figures.h"
#include "Tovik/Logger/Logger.h"
#include "vpn_helper/AppBundleObserver.h"
#include "Workspace/Workspace.h"

namespace {

namespace fs = std::filesystem;
using Clock = std::chrono::steady_clock;

constexpr const char* kBundleId = "com.velmora.mac.vpn";
constexpr int kRounds = 300;

enum class Deletion { rename, removeAll };

void writeFile(const fs::path& path, const std::string& text) { std::ofstream(path, std::ios::binary) << text; }

void makeBundle(const fs::path& bundle) {
    fs::create_directories(bundle / "Contents" / "MacOS");
    fs::create_directories(bundle / "Contents" / "Resources");
    writeFile(bundle / "Contents" / "Info.plist",
              std::string("<?xml version=\"1.0\"?><plist version=\"1.0\"><dict><key>CFBundleIdentifier</key><string>") +
                  kBundleId + "</string></dict></plist>");
    writeFile(bundle / "Contents" / "MacOS" / "Velmora VPN", std::string(4096, 'x'));
    writeFile(bundle / "Contents" / "Resources" / "Assets.car", std::string(1024, 'y'));
}

// A scratch tree: <root>/Applications/Velmora VPN.app and <root>/.Trash.
struct Scratch {
    fs::path root;
    fs::path applications, bundle, trash;
    Scratch() {
        std::string pattern = (fs::temp_directory_path() / "observer-bench-XXXXXX").string();
        if (!::mkdtemp(pattern.data())) std::abort();
        root = pattern;
        applications = root / "Applications";
        bundle = applications / "Velmora VPN.app";
        trash = root / ".Trash";
        fs::create_directories(applications);
        fs::create_directories(trash);
    }
    ~Scratch() {
        std::error_code ignored;
        fs::remove_all(root, ignored);
    }
    // Deletes the bundle; returns the times just before the deleting call
    // (the common start of the comparison with the bare loop, whose reader on
    // the other core may see the event before the call has returned) and
    // just after it (the start of the observer's latency targets).
    std::pair<Clock::time_point, Clock::time_point> remove(Deletion how) const {
        const Clock::time_point started = Clock::now();
        if (how == Deletion::rename) {
            fs::rename(bundle, trash / "Velmora VPN.app");
        } else {
            fs::remove_all(bundle);
        }
        return {started, Clock::now()};
    }
    // Empties the Trash once the round has been measured.
    void cleanUp() const {
        std::error_code ignored;
        fs::remove_all(trash / "Velmora VPN.app", ignored);
    }
};

// One thread blocked in read(2) on an inotify descriptor; reports when the
// currently watched folder is deleted or moved.
class BareInotifyLoop {
public:
    BareInotifyLoop() : fd_(inotify_init1(IN_CLOEXEC)), reader_([this] { run(); }) {}
    ~BareInotifyLoop() {
        stopping_ = true;
        // Wake the reader with one last event on a folder of its own.
        Scratch wake;
        inotify_add_watch(fd_, wake.root.c_str(), IN_ALL_EVENTS);
        fs::create_directory(wake.root / "wake");
        reader_.join();
        ::close(fd_);
    }
    void watch(const fs::path& folder) {
        watch_ = inotify_add_watch(fd_, folder.c_str(), IN_ALL_EVENTS);
    }
    Clock::time_point waitForGone() const {
        gone_.wait();
        return goneAt_.load();
    }

private:
    void run() {
        alignas(inotify_event) char buffer[8192];
        while (!stopping_) {
            ssize_t length = ::read(fd_, buffer, sizeof buffer);
            if (length < 0 && errno == EINTR) continue;
            if (length <= 0) return;
            Clock::time_point now = Clock::now();
            for (ssize_t offset = 0; offset < length;) {
                const auto& event = *reinterpret_cast<const inotify_event*>(buffer + offset);
                // Once per watch: a bundle moved to the Trash reports its
                // deletion again when the Trash is emptied.
                int watched = event.wd;
                if ((event.mask & (IN_DELETE_SELF | IN_MOVE_SELF)) && watch_.compare_exchange_strong(watched, -1)) {
                    goneAt_ = now;
                    gone_.signal();
                }
                offset += static_cast<ssize_t>(sizeof(inotify_event) + event.len);
            }
        }
    }

    int fd_;
    std::atomic<int> watch_{-1};
    std::atomic<bool> stopping_{false};
    std::atomic<Clock::time_point> goneAt_{};
    Dispatch::DispatchSemaphore gone_{0};
    std::thread reader_;
};

double microseconds(Clock::duration d) { return std::chrono::duration<double, std::micro>(d).count(); }

double ratio(double observer, double bare) { return bare > 0 ? observer / bare : 0; }

double percentile(std::vector<double> values, double p) {
    std::sort(values.begin(), values.end());
    size_t rank = static_cast<size_t>(std::ceil(p * static_cast<double>(values.size())));
    return values[std::clamp<size_t>(rank, 1, values.size()) - 1];
}

struct Summary {
    const char* name;
    double median, p99, bareMedian, bareP99;  // from just before the deleting call
    double afterMedian, afterP99;             // the observer's, from the call's return
};
std::vector<Summary> summaries;

void BM_DeletionToCompletion(benchmark::State& state, Deletion how, const char* name) {
    Tovik::Logger::shared().setHandlers({});
    Scratch scratch;
    Workspace::Workspace workspace({scratch.applications});
    BareInotifyLoop bare;
    std::vector<double> observerTimes, afterTimes, bareTimes;

    for (auto _ : state) {
        // The observer: a fresh one per round, armed before the clock starts.
        makeBundle(scratch.bundle);
        auto observer = VpnHelper::AppBundleObserver::create(kBundleId, workspace);
        Dispatch::DispatchSemaphore fired(0);
        std::atomic<Clock::time_point> firedAt{};
        observer->startMonitoring([&](const std::string&) {
            firedAt = Clock::now();
            fired.signal();
        });
        observer->queue().sync([] {});
        auto [started, returned] = scratch.remove(how);
        if (fired.wait(Dispatch::DispatchTime::now() + 5.0) != Dispatch::DispatchTimeoutResult::success) {
            state.SkipWithError("the completion never ran");
            break;
        }
        double observed = microseconds(firedAt.load() - started);
        observerTimes.push_back(observed);
        afterTimes.push_back(microseconds(firedAt.load() - returned));
        state.SetIterationTime(observed / 1e6);
        observer.reset();
        scratch.cleanUp();

        // The floor: the same deletion seen by a bare blocking read.
        makeBundle(scratch.bundle);
        bare.watch(scratch.bundle);
        const Clock::time_point bareStarted = scratch.remove(how).first;
        bareTimes.push_back(microseconds(bare.waitForGone() - bareStarted));
        scratch.cleanUp();
    }
    if (observerTimes.empty()) return;

    Summary s{name, percentile(observerTimes, 0.5), percentile(observerTimes, 0.99), percentile(bareTimes, 0.5),
              percentile(bareTimes, 0.99), percentile(afterTimes, 0.5), percentile(afterTimes, 0.99)};
    summaries.push_back(s);
    state.counters["median_us"] = s.median;
    state.counters["p99_us"] = s.p99;
    state.counters["bare_median_us"] = s.bareMedian;
    state.counters["bare_p99_us"] = s.bareP99;
    state.counters["median_x_bare"] = ratio(s.median, s.bareMedian);
    state.counters["p99_x_bare"] = ratio(s.p99, s.bareP99);
    state.counters["after_call_median_us"] = s.afterMedian;
    state.counters["after_call_p99_us"] = s.afterP99;
    state.counters["targets_met"] = (s.afterMedian <= 200.0 && s.afterP99 <= 2000.0) ? 1 : 0;
}

BENCHMARK_CAPTURE(BM_DeletionToCompletion, rename, Deletion::rename, "rename")
    ->Iterations(kRounds)
    ->UseManualTime()
    ->Unit(benchmark::kMicrosecond);
BENCHMARK_CAPTURE(BM_DeletionToCompletion, rm_rf, Deletion::removeAll, "rm -rf")
    ->Iterations(kRounds)
    ->UseManualTime()
    ->Unit(benchmark::kMicrosecond);

}  // namespace

int main(int argc, char** argv) {
    benchmark::Initialize(&argc, argv);
    if (benchmark::ReportUnrecognizedArguments(argc, argv)) return 1;
    benchmark::RunSpecifiedBenchmarks();
    benchmark::Shutdown();

    std::printf("\nDeletion to completion, %d rounds each (microseconds)\n", kRounds);
    for (const Summary& s : summaries) {
        const std::string call = s.name;
        Figures::report("bundle observer: deleting call returned to completion, median (" + call + ")",
                        Figures::text("%.1f us", s.afterMedian), "<= 200 us", s.afterMedian <= 200.0);
        Figures::report("bundle observer: deleting call returned to completion, p99 (" + call + ")",
                        Figures::text("%.1f us", s.afterP99), "<= 2000 us", s.afterP99 <= 2000.0);
        Figures::report("bundle observer vs bare inotify loop, from before the deleting call (" + call + ")",
                        Figures::text("median %.1f vs %.1f us (%.2fx), p99 %.1f vs %.1f us (%.2fx)", s.median,
                                      s.bareMedian, ratio(s.median, s.bareMedian), s.p99, s.bareP99,
                                      ratio(s.p99, s.bareP99)),
                        "", false);
    }
    return 0;
}
