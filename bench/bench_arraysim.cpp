// The simulator sits on the module's hot path: one tool invocation on a
// 5000-LUN state (target: under 3 ms for the whole child), and the parse and
// the listing on their own.
#include <benchmark/benchmark.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdlib>
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
    o.luns = 2400;     // with the clone LUNs, 5000 in all
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

void BM_GetlunListing(benchmark::State& s) {
  auto& b = big();
  for (auto _ : s) {
    auto r = arraysim::run_tool(b.st, b.dir, "tilloseccli", {"-h", "198.18.0.1", "getlun", "-uid"});
    benchmark::DoNotOptimize(r.out.size());
  }
}
BENCHMARK(BM_GetlunListing)->Unit(benchmark::kMicrosecond);

// The whole child as the module starts it: exec, lock, log, load, answer.
void child(benchmark::State& s, std::vector<std::string> argv) {
  big();
  const char* bd = getenv("ZOV_BUILD_DIR");
  std::string path = std::string(bd ? bd : ".") + "/arraysim-bin/tilloseccli";
  if (access(path.c_str(), X_OK) != 0) {
    s.SkipWithError("set ZOV_BUILD_DIR to the build folder");
    return;
  }
  std::vector<char*> av;
  for (auto& a : argv) av.push_back(&a[0]);
  av.push_back(nullptr);
  posix_spawn_file_actions_t fa;
  posix_spawn_file_actions_init(&fa);
  posix_spawn_file_actions_addopen(&fa, 1, "/dev/null", 1, 0);
  for (auto _ : s) {
    pid_t pid;
    posix_spawn(&pid, path.c_str(), &fa, nullptr, av.data(), environ);
    int st;
    waitpid(pid, &st, 0);
  }
  posix_spawn_file_actions_destroy(&fa);
}

void BM_ChildArrayname5000(benchmark::State& s) { child(s, {"tilloseccli", "-h", "198.18.0.1", "arrayname"}); }
BENCHMARK(BM_ChildArrayname5000)->Unit(benchmark::kMillisecond)->UseRealTime();

void BM_ChildPortList5000(benchmark::State& s) { child(s, {"tilloseccli", "-h", "198.18.0.1", "port", "-list", "-hba"}); }
BENCHMARK(BM_ChildPortList5000)->Unit(benchmark::kMillisecond)->UseRealTime();

}  // namespace
BENCHMARK_MAIN();
