// Start and reap a small child that prints a few lines into a pipe, read
// back line by line: through spawn, through a bare posix_spawn (the
// baseline) and through fork and exec (what the start would cost if it
// copied the host). Each from a small process (argument 0) and from one with
// 4 GiB resident in small pages (argument 1), as a backup host can be.
#include <benchmark/benchmark.h>
#include <spawn.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/mman.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>

#include <string>
#include <vector>

#include "bench/bench_goals.h"
#include "liblocal/kv_spawn.h"

extern char** environ;

namespace {

constexpr size_t kBallast = size_t(4) << 30;

// The probe child beside the tests when they are built, else printf.
struct Child {
    std::vector<std::string> words;
    std::vector<char*> argv;
    Child() {
        char self[4096];
        ssize_t n = readlink("/proc/self/exe", self, sizeof self - 1);
        std::string probe;
        if (n > 0) {
            self[n] = '\0';
            std::string dir(self);
            dir = dir.substr(0, dir.rfind('/'));
            probe = dir + "/../tests/helpers/spawn_probe";
        }
        if (!probe.empty() && access(probe.c_str(), X_OK) == 0)
            words = {probe, "lines", "3"};
        else
            words = {"/usr/bin/printf", "line 1\\nline 2\\nline 3\\n"};
        for (auto& w : words) argv.push_back(&w[0]);
        argv.push_back(nullptr);
    }
};

Child& child() {
    static Child c;
    return c;
}

// Makes or drops the 4 GiB, so that small and large runs can interleave
// (--benchmark_enable_random_interleaving) and share the machine's noise.
bool ensure_ballast(bool large) {
    static char* ballast = nullptr;
    if (!large) {
        if (ballast != nullptr) munmap(ballast, kBallast);
        ballast = nullptr;
        return true;
    }
    if (ballast != nullptr) return true;
    void* m = mmap(nullptr, kBallast, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
    if (m == MAP_FAILED) return false;
    // Small pages, as a long-lived heap mostly is: the page tables are what
    // a fork has to copy.
    madvise(m, kBallast, MADV_NOHUGEPAGE);
    memset(m, 1, kBallast);
    ballast = static_cast<char*>(m);
    return true;
}

// Reads the child's lines and returns their count.
int drain(int fd) {
    FILE* f = fdopen(fd, "r");
    char line[256];
    int lines = 0;
    while (fgets(line, sizeof line, f) != nullptr) ++lines;
    fclose(f);
    return lines;
}

double now_us() {
    timespec ts;
    clock_gettime(CLOCK_MONOTONIC, &ts);
    return ts.tv_sec * 1e6 + ts.tv_nsec / 1e3;
}

double thread_cpu_us() {
    timespec ts;
    clock_gettime(CLOCK_THREAD_CPUTIME_ID, &ts);
    return ts.tv_sec * 1e6 + ts.tv_nsec / 1e3;
}

// The start alone (from the call to the parent's return), apart from the
// child's own run time, which dominates the whole and is noisy on a busy
// machine; and the parent's CPU time for it, which a busy machine does not
// inflate.
struct StartClock {
    double wall_us = 0, cpu_us = 0, w0 = 0, c0 = 0;
    void begin() {
        w0 = now_us();
        c0 = thread_cpu_us();
    }
    void end() {
        cpu_us += thread_cpu_us() - c0;
        wall_us += now_us() - w0;
    }
};

void report_start(benchmark::State& state, const StartClock& clock) {
    state.counters["start_us"] =
        benchmark::Counter(clock.wall_us, benchmark::Counter::kAvgIterations);
    state.counters["start_cpu_us"] =
        benchmark::Counter(clock.cpu_us, benchmark::Counter::kAvgIterations);
}

void check(benchmark::State& state, pid_t pid, int lines) {
    int status = 0;
    if (pid <= 0 || waitpid(pid, &status, 0) != pid || status != 0 || lines != 3)
        state.SkipWithError("child failed");
}

void BM_Spawn(benchmark::State& state) {
    if (!ensure_ballast(state.range(0) != 0)) {
        state.SkipWithError("no memory for the 4 GiB ballast");
        return;
    }
    char** argv = child().argv.data();
    StartClock clock;
    for (auto _ : state) {
        int p[2];
        if (pipe(p) != 0) break;
        int dupfds[3] = {-1, p[1], p[1]};
        clock.begin();
        pid_t pid = spawn(SPAWN_ASYNC, argv, nullptr, 0, dupfds, nullptr);
        clock.end();
        close(p[1]);
        int lines = drain(p[0]);
        check(state, pid, lines);
    }
    report_start(state, clock);
}

void BM_PosixSpawn(benchmark::State& state) {
    if (!ensure_ballast(state.range(0) != 0)) {
        state.SkipWithError("no memory for the 4 GiB ballast");
        return;
    }
    char** argv = child().argv.data();
    StartClock clock;
    for (auto _ : state) {
        int p[2];
        if (pipe(p) != 0) break;
        clock.begin();
        posix_spawn_file_actions_t fa;
        posix_spawn_file_actions_init(&fa);
        posix_spawn_file_actions_adddup2(&fa, p[1], 1);
        posix_spawn_file_actions_adddup2(&fa, p[1], 2);
        posix_spawn_file_actions_addclose(&fa, p[0]);
        posix_spawn_file_actions_addclose(&fa, p[1]);
        pid_t pid = -1;
        if (posix_spawn(&pid, argv[0], &fa, nullptr, argv, environ) != 0) pid = -1;
        posix_spawn_file_actions_destroy(&fa);
        clock.end();
        close(p[1]);
        int lines = drain(p[0]);
        check(state, pid, lines);
    }
    report_start(state, clock);
}

void BM_ForkExec(benchmark::State& state) {
    if (!ensure_ballast(state.range(0) != 0)) {
        state.SkipWithError("no memory for the 4 GiB ballast");
        return;
    }
    char** argv = child().argv.data();
    StartClock clock;
    for (auto _ : state) {
        int p[2];
        if (pipe(p) != 0) break;
        clock.begin();
        pid_t pid = fork();
        if (pid == 0) {
            dup2(p[1], 1);
            dup2(p[1], 2);
            close(p[0]);
            close(p[1]);
            execve(argv[0], argv, environ);
            _exit(76);
        }
        clock.end();
        close(p[1]);
        int lines = drain(p[0]);
        check(state, pid, lines);
    }
    report_start(state, clock);
}

void register_all() {
    for (int large : {0, 1}) {
        benchmark::RegisterBenchmark("BM_PosixSpawn", BM_PosixSpawn)
            ->Arg(large)
            ->Unit(benchmark::kMicrosecond)
            ->UseRealTime();
        benchmark::RegisterBenchmark("BM_Spawn", BM_Spawn)
            ->Arg(large)
            ->Unit(benchmark::kMicrosecond)
            ->UseRealTime();
        benchmark::RegisterBenchmark("BM_ForkExec", BM_ForkExec)
            ->Arg(large)
            ->Unit(benchmark::kMicrosecond)
            ->UseRealTime();
    }
}

// spawn keeps its pairing with a bare posix_spawn of the same command: its
// start costs the parent no more than half again as much CPU, small process
// or large. Wall time is printed beside it.
int judge(const bench_goals::KeepingReporter& rep) {
    using bench_goals::fmt;
    bench_goals::Verdict v;
    for (int large : {0, 1}) {
        std::string arg = "/" + std::to_string(large);
        std::string what =
            std::string("child start, ") + (large ? "4 GiB process" : "small process");
        double spawn_cpu = rep.counter("BM_Spawn" + arg, "start_cpu_us");
        double bare_cpu = rep.counter("BM_PosixSpawn" + arg, "start_cpu_us");
        double fork_cpu = rep.counter("BM_ForkExec" + arg, "start_cpu_us");
        if (spawn_cpu <= 0 || bare_cpu <= 0) {
            v.row(what, "did not run (no memory for the ballast?)", "runs", !large);
            continue;
        }
        double ratio = spawn_cpu / bare_cpu;
        v.row(what,
              "spawn " + fmt(spawn_cpu, 0) + " us CPU (" +
                  fmt(rep.counter("BM_Spawn" + arg, "start_us"), 0) + " us wall), posix_spawn " +
                  fmt(bare_cpu, 0) + " us CPU (" +
                  fmt(rep.counter("BM_PosixSpawn" + arg, "start_us"), 0) + " us wall), x" +
                  fmt(ratio) + "; fork+exec " + fmt(fork_cpu, 0) + " us CPU",
              "spawn/posix_spawn parent CPU <= 1.5", ratio <= 1.5);
    }
    return v.missed;
}

}  // namespace

int main(int argc, char** argv) {
    register_all();
    return bench_goals::run_and_judge(argc, argv, &judge);
}
