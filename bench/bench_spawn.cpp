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

// The start alone (from the call to the parent's return), apart from the
// child's own run time, which dominates the whole and is noisy on a busy
// machine.
void report_start(benchmark::State& state, double total_us) {
    state.counters["start_us"] = benchmark::Counter(total_us, benchmark::Counter::kAvgIterations);
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
    double start_us = 0;
    for (auto _ : state) {
        int p[2];
        if (pipe(p) != 0) break;
        int dupfds[3] = {-1, p[1], p[1]};
        double t0 = now_us();
        pid_t pid = spawn(SPAWN_ASYNC, argv, nullptr, 0, dupfds, nullptr);
        start_us += now_us() - t0;
        close(p[1]);
        int lines = drain(p[0]);
        check(state, pid, lines);
    }
    report_start(state, start_us);
}

void BM_PosixSpawn(benchmark::State& state) {
    if (!ensure_ballast(state.range(0) != 0)) {
        state.SkipWithError("no memory for the 4 GiB ballast");
        return;
    }
    char** argv = child().argv.data();
    double start_us = 0;
    for (auto _ : state) {
        int p[2];
        if (pipe(p) != 0) break;
        double t0 = now_us();
        posix_spawn_file_actions_t fa;
        posix_spawn_file_actions_init(&fa);
        posix_spawn_file_actions_adddup2(&fa, p[1], 1);
        posix_spawn_file_actions_adddup2(&fa, p[1], 2);
        posix_spawn_file_actions_addclose(&fa, p[0]);
        posix_spawn_file_actions_addclose(&fa, p[1]);
        pid_t pid = -1;
        if (posix_spawn(&pid, argv[0], &fa, nullptr, argv, environ) != 0) pid = -1;
        posix_spawn_file_actions_destroy(&fa);
        start_us += now_us() - t0;
        close(p[1]);
        int lines = drain(p[0]);
        check(state, pid, lines);
    }
    report_start(state, start_us);
}

void BM_ForkExec(benchmark::State& state) {
    if (!ensure_ballast(state.range(0) != 0)) {
        state.SkipWithError("no memory for the 4 GiB ballast");
        return;
    }
    char** argv = child().argv.data();
    double start_us = 0;
    for (auto _ : state) {
        int p[2];
        if (pipe(p) != 0) break;
        double t0 = now_us();
        pid_t pid = fork();
        if (pid == 0) {
            dup2(p[1], 1);
            dup2(p[1], 2);
            close(p[0]);
            close(p[1]);
            execve(argv[0], argv, environ);
            _exit(76);
        }
        start_us += now_us() - t0;
        close(p[1]);
        int lines = drain(p[0]);
        check(state, pid, lines);
    }
    report_start(state, start_us);
}

}  // namespace

BENCHMARK(BM_PosixSpawn)->Arg(0)->Unit(benchmark::kMicrosecond)->UseRealTime();
BENCHMARK(BM_Spawn)->Arg(0)->Unit(benchmark::kMicrosecond)->UseRealTime();
BENCHMARK(BM_ForkExec)->Arg(0)->Unit(benchmark::kMicrosecond)->UseRealTime();
BENCHMARK(BM_PosixSpawn)->Arg(1)->Unit(benchmark::kMicrosecond)->UseRealTime();
BENCHMARK(BM_Spawn)->Arg(1)->Unit(benchmark::kMicrosecond)->UseRealTime();
BENCHMARK(BM_ForkExec)->Arg(1)->Unit(benchmark::kMicrosecond)->UseRealTime();

BENCHMARK_MAIN();
