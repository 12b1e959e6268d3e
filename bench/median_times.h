// The console reporter every comparison benchmark uses: it prints the usual
// table and keeps one CPU time per benchmark, from which each program prints
// its own ratios once the runs are over.
#pragma once

#include <benchmark/benchmark.h>
#include <map>
#include <string>
#include <vector>

namespace tarn_bench {

/// Collects, per benchmark name, the median CPU time per iteration when the
/// benchmark ran with repetitions, or the time of its single run otherwise.
/// CPU time, because a ratio should not depend on what else the machine runs.
class MedianTimes : public benchmark::ConsoleReporter {
public:
    void ReportRuns(const std::vector<Run>& runs) override {
        ConsoleReporter::ReportRuns(runs);
        for (const Run& run : runs) {
            if (run.error_occurred) continue;
            const bool median = run.run_type == Run::RT_Aggregate && run.aggregate_name == "median";
            const bool single = run.run_type == Run::RT_Iteration && run.repetitions <= 1;
            if (median || single) times_[run.run_name.str()] = run.GetAdjustedCPUTime();
        }
    }

    /// The time of benchmark `name` in nanoseconds, or nullptr when it did not run.
    const double* find(const std::string& name) const {
        const auto it = times_.find(name);
        return it == times_.end() ? nullptr : &it->second;
    }

    /// Every collected time, by benchmark name.
    const std::map<std::string, double>& all() const { return times_; }

private:
    std::map<std::string, double> times_;
};

/// Runs the registered benchmarks through `reporter`; false on a bad argument.
inline bool run_benchmarks(int argc, char** argv, MedianTimes& reporter) {
    benchmark::Initialize(&argc, argv);
    if (benchmark::ReportUnrecognizedArguments(argc, argv)) return false;
    benchmark::RunSpecifiedBenchmarks(&reporter);
    benchmark::Shutdown();
    return true;
}

/// The body of every comparison program's main: runs the registered
/// benchmarks, then `print_ratios` on their times; 1 on a bad argument.
inline int run_and_print(int argc, char** argv, void (*print_ratios)(const MedianTimes&)) {
    MedianTimes times;
    if (!run_benchmarks(argc, argv, times)) return 1;
    print_ratios(times);
    return 0;
}

} // namespace tarn_bench
