// The simulator sits on the module's hot path: one tool invocation on a
// 5000-LUN state (target: under 3 ms for the whole child, CPU and wall), and
// the reading and the listing on their own. The child benchmarks report wall
// time per command and, as "cpu_ms", the child's user+system time.
#include <benchmark/benchmark.h>
#include <spawn.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "tools/arraysim/sim.h"

extern char** environ;

namespace {

struct BigState {
    std::string dir, text;
    arraysim::State st;
    BigState() {
        char tmpl[] = "/tmp/arraysim-bench-XXXXXX";
        dir = mkdtemp(tmpl) ? tmpl : "/tmp";
        arraysim::InitOptions o;
        o.frames = 2;
        o.luns = 2400;  // with the clone LUNs, 5000 in all
        o.clone_groups = 50;
        o.clones = 2;
        o.host = "benchhost";
        o.host_addr = "10.0.0.1";
        st = arraysim::make_state(o);
        std::string err;
        arraysim::sync_folder(dir, st, "", err);
        arraysim::save_state(dir, st, err);
        text = arraysim::format_state(st);
        setenv("ARRAYSIM_STATE", dir.c_str(), 1);
    }
    ~BigState() { (void)system(("rm -rf '" + dir + "'").c_str()); }
};

BigState& big() {
    static BigState b;
    return b;
}

void BM_ParseState5000(benchmark::State& s) {
    auto& b = big();
    for (auto _ : s) {
        arraysim::State st;
        std::string err;
        benchmark::DoNotOptimize(arraysim::parse_state(b.text.data(), b.text.size(), st, err));
    }
    s.counters["luns"] = static_cast<double>(b.st.luns.size());
}
BENCHMARK(BM_ParseState5000)->Unit(benchmark::kMicrosecond);

// What one command pays to read the state: LUN records stay text until used.
void BM_LoadLazy5000(benchmark::State& s) {
    auto& b = big();
    for (auto _ : s) {
        arraysim::State st;
        std::string err;
        benchmark::DoNotOptimize(arraysim::load_state_lazy(b.dir, st, err));
    }
}
BENCHMARK(BM_LoadLazy5000)->Unit(benchmark::kMicrosecond);

void BM_GetlunListing(benchmark::State& s) {
    auto& b = big();
    for (auto _ : s) {
        auto r =
            arraysim::run_tool(b.st, b.dir, "tilloseccli", {"-h", "198.18.0.1", "getlun", "-uid"});
        benchmark::DoNotOptimize(r.out.size());
    }
}
BENCHMARK(BM_GetlunListing)->Unit(benchmark::kMicrosecond);

// The volume map uses every LUN of the host's groups: what a command pays on
// top of the read for parsing those records and laying out their blocks.
void BM_VolmapFromLazyState(benchmark::State& s) {
    auto& b = big();
    for (auto _ : s) {
        arraysim::State st;
        std::string err;
        arraysim::load_state_lazy(b.dir, st, err);
        auto r = arraysim::run_tool(
            st, b.dir, "tilloseccli",
            {"-h", "198.18.0.1", "server", "-volmap", "-host", "benchhost", "-local"});
        benchmark::DoNotOptimize(r.out.size());
    }
}
BENCHMARK(BM_VolmapFromLazyState)->Unit(benchmark::kMicrosecond);

double child_cpu_ms() {
    struct rusage ru;
    getrusage(RUSAGE_CHILDREN, &ru);
    return (ru.ru_utime.tv_sec + ru.ru_stime.tv_sec) * 1e3 +
           (ru.ru_utime.tv_usec + ru.ru_stime.tv_usec) / 1e3;
}

// The whole child as the module starts it: exec, lock, log, load, answer
// (and write, for a change). With two command lines they alternate, so that
// every one of them changes the state. `bare`: without the state folder, so
// that the child stops as soon as it starts.
void child(benchmark::State& s, std::vector<std::vector<std::string>> cmds, bool bare = false) {
    big();
    const char* bd = getenv("ZOV_BUILD_DIR");
    std::string path = std::string(bd ? bd : ".") + "/arraysim-bin/tilloseccli";
    if (access(path.c_str(), X_OK) != 0) {
        s.SkipWithError("set ZOV_BUILD_DIR to the build folder");
        return;
    }
    std::vector<std::vector<char*>> avs;
    for (auto& argv : cmds) {
        std::vector<char*> av;
        for (auto& a : argv) av.push_back(&a[0]);
        av.push_back(nullptr);
        avs.push_back(av);
    }
    posix_spawn_file_actions_t fa;
    posix_spawn_file_actions_init(&fa);
    posix_spawn_file_actions_addopen(&fa, 1, "/dev/null", 1, 0);
    std::vector<char*> env;
    for (char** e = environ; *e; ++e)
        if (!bare || strncmp(*e, "ARRAYSIM_STATE=", 15) != 0) env.push_back(*e);
    env.push_back(nullptr);
    if (bare) posix_spawn_file_actions_addopen(&fa, 2, "/dev/null", 1, 0);
    double cpu0 = child_cpu_ms();
    size_t n = 0;
    for (auto _ : s) {
        pid_t pid;
        if (posix_spawn(&pid, path.c_str(), &fa, nullptr, avs[n++ % avs.size()].data(),
                        env.data()) != 0) {
            s.SkipWithError("spawn failed");
            break;
        }
        int st;
        waitpid(pid, &st, 0);
    }
    posix_spawn_file_actions_destroy(&fa);
    if (n) s.counters["cpu_ms"] = (child_cpu_ms() - cpu0) / static_cast<double>(n);
}

using Cmd = std::vector<std::string>;
const char* kAddr = "198.18.0.1";

// What any command pays before it reads the state: exec and the start of
// the program. The rest of each figure below is the command's own.
void BM_ChildEmptyStart(benchmark::State& s) {
    child(s, {Cmd{"tilloseccli", "-h", kAddr, "arrayname"}}, true);
}
BENCHMARK(BM_ChildEmptyStart)->Unit(benchmark::kMillisecond)->UseRealTime();

void BM_ChildArrayname5000(benchmark::State& s) {
    child(s, {Cmd{"tilloseccli", "-h", kAddr, "arrayname"}});
}
BENCHMARK(BM_ChildArrayname5000)->Unit(benchmark::kMillisecond)->UseRealTime();

void BM_ChildGetlunUid5000(benchmark::State& s) {
    child(s, {Cmd{"tilloseccli", "-h", kAddr, "getlun", "-uid"}});
}
BENCHMARK(BM_ChildGetlunUid5000)->Unit(benchmark::kMillisecond)->UseRealTime();

void BM_ChildStoragegroupList5000(benchmark::State& s) {
    child(s, {Cmd{"tilloseccli", "-h", kAddr, "storagegroup", "-list", "-host"}});
}
BENCHMARK(BM_ChildStoragegroupList5000)->Unit(benchmark::kMillisecond)->UseRealTime();

void BM_ChildPortList5000(benchmark::State& s) {
    child(s, {Cmd{"tilloseccli", "-h", kAddr, "port", "-list", "-hba"}});
}
BENCHMARK(BM_ChildPortList5000)->Unit(benchmark::kMillisecond)->UseRealTime();

// Each of these writes the state back.
void BM_ChildStartStopSession5000(benchmark::State& s) {
    child(s, {Cmd{"tilloseccli", "-h", kAddr, "quillset", "-startsession", "bench", "-lun", "5",
                  "-persistence"},
              Cmd{"tilloseccli", "-h", kAddr, "quillset", "-stopsession", "bench", "-o"}});
}
BENCHMARK(BM_ChildStartStopSession5000)->Unit(benchmark::kMillisecond)->UseRealTime();

// The volume map lists every device of the host: a megabyte of answer.
void BM_ChildVolmap5000(benchmark::State& s) {
    child(s,
          {Cmd{"tilloseccli", "-h", kAddr, "server", "-volmap", "-host", "benchhost", "-local"}});
}
BENCHMARK(BM_ChildVolmap5000)->Unit(benchmark::kMillisecond)->UseRealTime();

}  // namespace
BENCHMARK_MAIN();
