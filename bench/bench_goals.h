// What the benchmark programs share: a reporter that keeps every run beside
// printing it, so that a program can judge its goals from figures of one
// run, and the line format of those judgements, which scripts/bench.sh
// gathers into its table. Not thread-safe; one per program.
#pragma once

#include <benchmark/benchmark.h>
#include <stdio.h>
#include <sys/resource.h>

#include <map>
#include <string>
#include <vector>

namespace bench_goals {

// Keeps each run by its name (without the "/real_time" and the like that
// Google Benchmark adds).
class KeepingReporter : public benchmark::ConsoleReporter {
public:
    void ReportRuns(const std::vector<Run>& runs) override {
        for (const Run& r : runs)
            if (!r.error_occurred && r.run_type == Run::RT_Iteration)
                kept[r.run_name.function_name + args_of(r)] = r;
        ConsoleReporter::ReportRuns(runs);
    }
    // The run named `name` ("BM_X/1/2"), or null when it did not run.
    const Run* find(const std::string& name) const {
        auto it = kept.find(name);
        return it == kept.end() ? nullptr : &it->second;
    }
    // CPU seconds per iteration of a run, 0 when it did not run.
    double cpu_s(const std::string& name) const {
        const Run* r = find(name);
        return r != nullptr && r->iterations > 0 ? r->cpu_accumulated_time / r->iterations : 0;
    }
    double counter(const std::string& name, const std::string& key) const {
        const Run* r = find(name);
        if (r == nullptr) return 0;
        auto it = r->counters.find(key);
        return it == r->counters.end() ? 0 : it->second.value;
    }

private:
    static std::string args_of(const Run& r) {
        return r.run_name.args.empty() ? std::string() : "/" + r.run_name.args;
    }
    std::map<std::string, Run> kept;
};

// One row of the table: what was measured, its figure, the goal, and
// whether the goal was met. Rows without a goal pass.
struct Verdict {
    int missed = 0;
    Verdict() {
        // The reporter's last line may end without a line feed.
        printf("\n");
    }
    void row(const std::string& what, const std::string& figure, const std::string& goal,
             bool met) {
        printf("GOAL\t%s\t%s\t%s\t%s\n", what.c_str(), figure.c_str(), goal.c_str(),
               met ? "met" : "MISSED");
        if (!met) missed++;
    }
    void info(const std::string& what, const std::string& figure) {
        printf("GOAL\t%s\t%s\t-\t-\n", what.c_str(), figure.c_str());
    }
};

// A number with `digits` decimals, for a row.
inline std::string fmt(double v, int digits = 2) {
    char buf[64];
    snprintf(buf, sizeof buf, "%.*f", digits, v);
    return buf;
}

// User and system time of `who` (RUSAGE_SELF, RUSAGE_CHILDREN) in seconds.
inline double cpu_seconds(int who) {
    struct rusage ru;
    getrusage(who, &ru);
    return ru.ru_utime.tv_sec + ru.ru_stime.tv_sec +
           (ru.ru_utime.tv_usec + ru.ru_stime.tv_usec) / 1e6;
}

// The system (kernel) part of that time.
inline double kernel_seconds(int who) {
    struct rusage ru;
    getrusage(who, &ru);
    return ru.ru_stime.tv_sec + ru.ru_stime.tv_usec / 1e6;
}

// The main of a benchmark with goals: runs what the command line selects,
// keeping the figures, and exits 1 when `judge` counts a missed goal.
inline int run_and_judge(int argc, char** argv, int (*judge)(const KeepingReporter&)) {
    benchmark::Initialize(&argc, argv);
    if (benchmark::ReportUnrecognizedArguments(argc, argv)) return 2;
    KeepingReporter rep;
    benchmark::RunSpecifiedBenchmarks(&rep);
    benchmark::Shutdown();
    return judge(rep) == 0 ? 0 : 1;
}

}  // namespace bench_goals
