#ifndef KRBENCHSUPPORT_H
#define KRBENCHSUPPORT_H

// Helpers shared by the benchmarks.

#include <benchmark/benchmark.h>

#include <map>
#include <string>
#include <vector>

// Keeps every run's real time per iteration, so the ratios can be printed at the end.
class RatioReporter : public benchmark::ConsoleReporter
{
public:
    void ReportRuns(const std::vector<Run> &runs) override
    {
        ConsoleReporter::ReportRuns(runs);
        for (const Run &run : runs) {
            if (run.run_type == Run::RT_Iteration && !run.error_occurred)
                nanoseconds[run.benchmark_name()] = run.GetAdjustedRealTime();
        }
    }

    std::map<std::string, double> nanoseconds;
};

#endif // KRBENCHSUPPORT_H
