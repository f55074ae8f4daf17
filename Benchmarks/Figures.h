// What every benchmark program shares: a reporter that keeps each
// benchmark's median (its one run's, without --benchmark_repetitions), and
// the figure lines that Benchmarks/run_all.sh gathers into one table.
//
// A figure line is "FIGURE", then tab-separated: the figure's name, the
// measured value with its unit or ratio, the target ("none" when there is
// none) and "met", "MISSED" or "-".
#pragma once

#include <benchmark/benchmark.h>

#include <cstdio>
#include <map>
#include <string>
#include <vector>

namespace Figures {

/// Prints the usual table and keeps, per benchmark function, the median run
/// (real and CPU time per iteration in nanoseconds, and its counters).
class MedianReporter : public benchmark::ConsoleReporter {
public:
    struct Median {
        double realNs = 0, cpuNs = 0;
        std::map<std::string, double> counters;
    };

    void ReportRuns(const std::vector<Run>& runs) override {
        ConsoleReporter::ReportRuns(runs);
        for (const Run& run : runs) {
            if (run.error_occurred) continue;
            const bool median = run.run_type == Run::RT_Aggregate && run.aggregate_name == "median";
            if (!median && !(run.run_type == Run::RT_Iteration && run.repetitions <= 1)) continue;
            Median& kept = medians_[run.run_name.function_name];
            const double toNs = 1e9 / benchmark::GetTimeUnitMultiplier(run.time_unit);
            kept.realNs = run.GetAdjustedRealTime() * toNs;
            kept.cpuNs = run.GetAdjustedCPUTime() * toNs;
            for (const auto& [name, counter] : run.counters) kept.counters[name] = counter.value;
        }
    }

    /// The kept median of a benchmark; zeros when it did not run.
    Median median(const std::string& function) const {
        auto found = medians_.find(function);
        return found == medians_.end() ? Median{} : found->second;
    }
    double realNs(const std::string& function) const { return median(function).realNs; }
    double cpuNs(const std::string& function) const { return median(function).cpuNs; }
    double counter(const std::string& function, const std::string& name) const {
        const Median kept = median(function);
        auto found = kept.counters.find(name);
        return found == kept.counters.end() ? 0 : found->second;
    }

private:
    std::map<std::string, Median> medians_;
};

/// One figure line; `met` is ignored without a target.
inline void report(const std::string& name, const std::string& measured, const std::string& target, bool met) {
    std::printf("FIGURE\t%s\t%s\t%s\t%s\n", name.c_str(), measured.c_str(), target.empty() ? "none" : target.c_str(),
                target.empty() ? "-" : (met ? "met" : "MISSED"));
    std::fflush(stdout);
}

/// printf-style text for a measured value.
template <class... Args>
std::string text(const char* format, Args... args) {
    char buffer[256];
    std::snprintf(buffer, sizeof buffer, format, args...);
    return buffer;
}

}  // namespace Figures
