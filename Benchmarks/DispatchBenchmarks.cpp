// Cost of the dispatch layer's queue hops beside a minimal hand-written
// worker thread (one mutex, one condition variable, one job list) doing the
// same work, measured in the same run.
//
//   AsyncRoundTrip   submit one item to a serial queue and wait until it ran
//   AsyncThroughput  submit 1000 items, wait for the last (items/s)
//   Sync             sync on an idle serial queue (returns the block's result)
//   SyncBusy         sync behind an item the queue is running on another thread
#include <benchmark/benchmark.h>

#include <condition_variable>
#include <deque>
#include <functional>
#include <mutex>
#include <thread>

#include "Dispatch/DispatchQueue.h"
#include "Figures.h"
#include "Dispatch/DispatchSemaphore.h"

using namespace Dispatch;

namespace {

constexpr int burst = 1000;

// The reference: one thread serving a FIFO of jobs.
class Worker {
public:
    Worker() : thread_([this] { run(); }) {}
    ~Worker() {
        {
            std::lock_guard lock(mutex_);
            stopping_ = true;
        }
        changed_.notify_one();
        thread_.join();
    }

    void post(std::function<void()> job) {
        {
            std::lock_guard lock(mutex_);
            jobs_.push_back(std::move(job));
        }
        changed_.notify_one();
    }

    template <class F>
    auto sync(F&& work) {
        std::mutex doneMutex;
        std::condition_variable doneChanged;
        bool done = false;
        decltype(work()) result{};
        post([&] {
            result = work();
            std::lock_guard lock(doneMutex);
            done = true;
            doneChanged.notify_one();
        });
        std::unique_lock lock(doneMutex);
        doneChanged.wait(lock, [&] { return done; });
        return result;
    }

private:
    void run() {
        std::unique_lock lock(mutex_);
        for (;;) {
            changed_.wait(lock, [this] { return stopping_ || !jobs_.empty(); });
            if (jobs_.empty()) return;
            auto job = std::move(jobs_.front());
            jobs_.pop_front();
            lock.unlock();
            job();
            lock.lock();
        }
    }

    std::mutex mutex_;
    std::condition_variable changed_;
    std::deque<std::function<void()>> jobs_;
    bool stopping_ = false;
    std::thread thread_;
};

// The same completion signal for both sides.
class Signal {
public:
    void notify() {
        std::lock_guard lock(mutex_);
        ++count_;
        changed_.notify_one();
    }
    void wait() {
        std::unique_lock lock(mutex_);
        changed_.wait(lock, [this] { return count_ > 0; });
        --count_;
    }

private:
    std::mutex mutex_;
    std::condition_variable changed_;
    long count_ = 0;
};

void DispatchAsyncRoundTrip(benchmark::State& state) {
    DispatchQueue queue("bench.async");
    Signal done;
    for (auto _ : state) {
        queue.async([&] { done.notify(); });
        done.wait();
    }
    state.SetItemsProcessed(state.iterations());
}

void WorkerAsyncRoundTrip(benchmark::State& state) {
    Worker worker;
    Signal done;
    for (auto _ : state) {
        worker.post([&] { done.notify(); });
        done.wait();
    }
    state.SetItemsProcessed(state.iterations());
}

void DispatchAsyncThroughput(benchmark::State& state) {
    DispatchQueue queue("bench.throughput");
    Signal done;
    long counter = 0;
    for (auto _ : state) {
        for (int i = 1; i < burst; ++i) queue.async([&] { ++counter; });
        queue.async([&] {
            ++counter;
            done.notify();
        });
        done.wait();
    }
    benchmark::DoNotOptimize(counter);
    state.SetItemsProcessed(state.iterations() * burst);
}

void WorkerAsyncThroughput(benchmark::State& state) {
    Worker worker;
    Signal done;
    long counter = 0;
    for (auto _ : state) {
        for (int i = 1; i < burst; ++i) worker.post([&] { ++counter; });
        worker.post([&] {
            ++counter;
            done.notify();
        });
        done.wait();
    }
    benchmark::DoNotOptimize(counter);
    state.SetItemsProcessed(state.iterations() * burst);
}

void DispatchSync(benchmark::State& state) {
    DispatchQueue queue("bench.sync");
    int value = 0;
    for (auto _ : state) benchmark::DoNotOptimize(value = queue.sync([&] { return value + 1; }));
    state.SetItemsProcessed(state.iterations());
}

void WorkerSync(benchmark::State& state) {
    Worker worker;
    int value = 0;
    for (auto _ : state) benchmark::DoNotOptimize(value = worker.sync([&] { return value + 1; }));
    state.SetItemsProcessed(state.iterations());
}

// sync right behind an async item: the caller has to wait for the queue.
void DispatchSyncBusy(benchmark::State& state) {
    DispatchQueue queue("bench.sync-busy");
    int value = 0;
    for (auto _ : state) {
        queue.async([&] { ++value; });
        benchmark::DoNotOptimize(value = queue.sync([&] { return value + 1; }));
    }
    state.SetItemsProcessed(state.iterations());
}

void WorkerSyncBusy(benchmark::State& state) {
    Worker worker;
    int value = 0;
    for (auto _ : state) {
        worker.post([&] { ++value; });
        benchmark::DoNotOptimize(value = worker.sync([&] { return value + 1; }));
    }
    state.SetItemsProcessed(state.iterations());
}

}  // namespace

BENCHMARK(DispatchAsyncRoundTrip)->UseRealTime();
BENCHMARK(WorkerAsyncRoundTrip)->UseRealTime();
BENCHMARK(DispatchAsyncThroughput)->UseRealTime();
BENCHMARK(WorkerAsyncThroughput)->UseRealTime();
BENCHMARK(DispatchSync)->UseRealTime();
BENCHMARK(WorkerSync)->UseRealTime();
BENCHMARK(DispatchSyncBusy)->UseRealTime();
BENCHMARK(WorkerSyncBusy)->UseRealTime();

int main(int argc, char** argv) {
    benchmark::Initialize(&argc, argv);
    if (benchmark::ReportUnrecognizedArguments(argc, argv)) return 1;
    Figures::MedianReporter reporter;
    benchmark::RunSpecifiedBenchmarks(&reporter);
    benchmark::Shutdown();
    for (const char* name : {"AsyncRoundTrip", "AsyncThroughput", "Sync", "SyncBusy"}) {
        const double queue = reporter.realNs(std::string("Dispatch") + name);
        const double worker = reporter.realNs(std::string("Worker") + name);
        if (queue > 0 && worker > 0) {
            Figures::report(std::string("dispatch: ") + name + " vs a hand-written worker thread",
                            Figures::text("%.2f us vs %.2f us, %.2fx", queue / 1e3, worker / 1e3, queue / worker), "",
                            false);
        }
    }
    return 0;
}
