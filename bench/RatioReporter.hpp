// A console reporter that also remembers each benchmark's time per iteration (the median when the
// benchmark is repeated) and its counters, so that a program can print ratios of benchmarks
// measured in the same run. Ratio lines have one form, "ratio <name> <value>", which
// scripts/bench.sh collects. Real time by default (a round trip's waiting counts); CPU time for
// single-threaded work, which a busy machine's preemption then does not blur.
#pragma once

#include <cstdio>
#include <map>
#include <string>

#include <benchmark/benchmark.h>

class RatioReporter : public benchmark::ConsoleReporter
{
public:
    enum class Clock
    {
        Real,
        Cpu,
    };

    explicit RatioReporter(Clock clock = Clock::Real) : clock(clock) {}

    void ReportRuns(const std::vector<Run>& runs) override
    {
        for (const Run& run : runs)
        {
            const bool median = run.run_type == Run::RT_Aggregate && run.aggregate_name == "median";
            const bool single = run.run_type == Run::RT_Iteration && run.iterations > 0 && !run.error_occurred;
            const std::string name = run.run_name.function_name;
            if ((median || (single && medians.count(name) == 0)) && run.iterations > 0)
            {
                const double time = clock == Clock::Real ? run.GetAdjustedRealTime() : run.GetAdjustedCPUTime();
                nanoseconds[name] = time / benchmark::GetTimeUnitMultiplier(run.time_unit) * 1e9;
                for (const auto& [counter, value] : run.counters)
                {
                    counters[name + "/" + counter] = value.value;
                }
                if (median)
                {
                    medians[name] = true;
                }
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

    double Nanoseconds(const std::string& name) const
    {
        const auto x = nanoseconds.find(name);
        return x == nanoseconds.end() ? 0.0 : x->second;
    }

    // A counter of the last reported run of `name`; -1 when there is none.
    double Counter(const std::string& name, const std::string& counter) const
    {
        const auto x = counters.find(name + "/" + counter);
        return x == counters.end() ? -1.0 : x->second;
    }

    static void Print(const char* name, double value) { std::printf("ratio %s %.3f\n", name, value); }

private:
    Clock clock;
    std::map<std::string, double> nanoseconds;
    std::map<std::string, double> counters;
    std::map<std::string, bool> medians;
};
