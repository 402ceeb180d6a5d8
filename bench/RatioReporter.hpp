// A console reporter that also remembers each benchmark's time per iteration, so that a program can
// print ratios of benchmarks measured in the same run.
#pragma once

#include <map>
#include <string>

#include <benchmark/benchmark.h>

class RatioReporter : public benchmark::ConsoleReporter
{
public:
    void ReportRuns(const std::vector<Run>& runs) override
    {
        for (const Run& run : runs)
        {
            if (run.run_type == Run::RT_Iteration && run.iterations > 0)
            {
                nanoseconds[run.benchmark_name()] = run.GetAdjustedRealTime() * (run.time_unit == benchmark::kMicrosecond ? 1e3 : run.time_unit == benchmark::kMillisecond ? 1e6 : 1.0);
            }
        }
        ConsoleReporter::ReportRuns(runs);
    }

    // Time of `a` over time of `b`; 0 when either did not run.
    double Ratio(const std::string& a, const std::string& b) const
    {
        const auto x = nanoseconds.find(a);
        const auto y = nanoseconds.find(b);
        return x == nanoseconds.end() || y == nanoseconds.end() || y->second == 0 ? 0.0 : x->second / y->second;
    }

private:
    std::map<std::string, double> nanoseconds;
};
