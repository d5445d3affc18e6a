// Whole snapshots of 1, 8, 64 and 256 sources, COW, mirror and advanced,
// against a simulated array of two frames, taken through the module as a
// loader takes them. Reports wall time, array commands (the simulator's
// command log), the module's own CPU time and its children's, and prints a
// GOAL line per technology and size. The simulator's device layer must be
// preloaded: the program starts itself again with it when it is not.
#include <dlfcn.h>
#include <spawn.h>
#include <stdlib.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>

#include <fstream>
#include <string>
#include <vector>

#include "bench/bench_goals.h"
#include "tests/integration/loader_decls.h"

extern char** environ;

namespace {

const char* const kFrames = "198.18.0.1:198.18.0.2";
const int kFrameCount = 2;
const char* const kTechs[] = {"COW", "MIRROR", "KVT-SNAP"};

int run(const std::vector<std::string>& args) {
    std::vector<char*> argv;
    for (const std::string& a : args) argv.push_back(const_cast<char*>(a.c_str()));
    argv.push_back(nullptr);
    posix_spawn_file_actions_t fa;
    posix_spawn_file_actions_init(&fa);
    posix_spawn_file_actions_addopen(&fa, 1, "/dev/null", 1, 0);
    pid_t pid = -1;
    int rc = posix_spawn(&pid, argv[0], &fa, nullptr, argv.data(), environ);
    posix_spawn_file_actions_destroy(&fa);
    if (rc != 0) return -1;
    int status = 0;
    waitpid(pid, &status, 0);
    return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

struct Module {
    ldr::SSError* (*instantiateSS)(ldr::StorageSubsystem*&) = nullptr;
    void (*freeSSObject)(ldr::SSObject*) = nullptr;
};

Module& module() {
    static Module m = [] {
        Module e;
        if (void* h = dlopen(ZOVMERL_PATH, RTLD_NOW | RTLD_LOCAL)) {
            e.instantiateSS =
                reinterpret_cast<decltype(e.instantiateSS)>(dlsym(h, "instantiateSS"));
            e.freeSSObject = reinterpret_cast<decltype(e.freeSSObject)>(dlsym(h, "freeSSObject"));
        }
        return e;
    }();
    return m;
}

void quiet_log(int, const char*, int, const char*, void*) {}

// Frees an error; true when there was one.
bool failed(ldr::SSError* e) {
    if (e == nullptr) return false;
    module().freeSSObject(e);
    return true;
}

// A fresh array with `sources` source LUNs on each frame (and a clone group
// for each), and the host devices of the first frame's sources.
struct Array {
    std::string dir;
    std::vector<std::string> sources;
    explicit Array(int n) {
        char tmpl[] = "/tmp/benchsnapXXXXXX";
        if (mkdtemp(tmpl) == nullptr) return;
        dir = tmpl;
        setenv("ARRAYSIM_STATE", dir.c_str(), 1);
        std::string count = std::to_string(n);
        if (run({std::string(ARRAYSIM_BIN_DIR) + "/arraysim", "init", "--frames",
                 std::to_string(kFrameCount), "--luns", count, "--clone-groups", count, "--clones",
                 "1", "--cgs", "0", "--sync-steps", "1"}) != 0)
            return;
        // A source LUN of frame 0 carries a COW configuration; its host
        // device is on the "dev host=0" line after it.
        std::ifstream in(dir + "/state");
        bool source = false;
        for (std::string l; std::getline(in, l);) {
            if (l.compare(0, 4, "lun ") == 0)
                source = l.find("frame=0 ") != std::string::npos &&
                         l.find("snapname=") != std::string::npos;
            else if (source && l.compare(0, 17, "dev host=0 paths=") == 0) {
                sources.push_back(dir + "/dev/" + l.substr(17, l.find_first_of(" ,", 17) - 17));
                source = false;
            }
        }
        // Only what the snapshot runs is counted.
        std::ofstream(dir + "/commands.log", std::ios::trunc);
    }
    ~Array() {
        if (!dir.empty()) run({"/bin/rm", "-rf", dir});
    }
    long commands() const {
        std::ifstream in(dir + "/commands.log");
        long n = 0;
        for (std::string l; std::getline(in, l);) n++;
        return n;
    }
};

// The production life up to the handle, as a loader drives it; `polls`
// counts the status queries made while a clone synchronised.
bool take_snapshot(const char* tech, const std::vector<std::string>& devices, long& polls) {
    Module& m = module();
    ldr::StorageSubsystem* ss = nullptr;
    ldr::SSDirectoryService* ds = nullptr;
    if (m.instantiateSS == nullptr || failed(m.instantiateSS(ss)) || ss == nullptr) return false;
    bool ok =
        !failed(ss->init(nullptr, quiet_log, nullptr)) && !failed(ss->getDirectoryService(0, ds));
    ldr::attrlist* frames = ldr::make_attr("FRAME_IP", {kFrames});
    ok = ok && !failed(ds->init(frames));
    ldr::IService* obj = nullptr;
    ok = ok && !failed(ds->getServiceInstance(tech, obj));
    ldr::ISnapshot* s = static_cast<ldr::ISnapshot*>(obj);
    if (ok) {
        frames->next = ldr::make_attr("VMR_DATA_MOVER", {"mover1"});
        ldr::SCInitStruct is;
        is.attributes = frames;
        ldr::SSSourceList* srcs = ldr::make_sources(devices);
        ldr::SSTaskId task = -1;
        ldr::SCSnapshotHandle* h = nullptr;
        ok = !failed(s->init(&is)) && !failed(s->addComponent(srcs)) &&
             !failed(s->prepareForSnapshot(nullptr, nullptr, task));
        // The simulator moves a clone's synchronisation on with each query.
        for (int i = 0; ok && i < 100 && s->getSnapshotState() == ldr::PREPARE_IN_PROGRESS; i++) {
            int status = 0;
            ldr::SSError* taskErr = nullptr;
            polls++;
            ok = !failed(s->getTaskStatus(task, status, taskErr));
            failed(taskErr);
            if (status != 1) ok = ok && status == 2;
        }
        ok = ok && !failed(s->snapshot(nullptr, task)) && !failed(s->getSnapshotHandle(h));
        if (h != nullptr) m.freeSSObject(h);
        delete srcs;
    }
    if (s != nullptr) {
        s->end();
        m.freeSSObject(s);
    }
    ldr::free_attrs(frames);
    if (ds != nullptr) {
        failed(ds->deInit());
        m.freeSSObject(ds);
    }
    ss->deInit();
    m.freeSSObject(ss);
    return ok;
}

// Clones in one consistent split when the attributes name no other number.
const long kClonesPerSplit = 8;

// The array commands each technology needs for `n` sources of the first
// frame, counted from the walks the module must make: the tool versions (one
// "-help" each, "ndu -list" per frame), then per technology:
//   COW: per source the snapshot query, which stops at the frame that knows
//        the LUN, and the start of its session;
//   mirror: the clone groups' sources on each frame; per source the array's
//        name, clone groups and storage groups on each frame, and the
//        clone's rate, read and reserved; one re-synchronisation per clone
//        chosen while fractured (`fractured`); each of the `polls` status
//        queries the loader made asks each clone on each frame, stopping at
//        the first still synchronising, so at most every clone; then the
//        split: a lone clone fractured alone, more in consistent splits of
//        up to eight clones each;
//   advanced: per source the LUN's mount point and group once to enrol it
//        and once per frame to prepare it, a flush and the snapshot.
long required_commands(int tech, long n, long fractured, long polls) {
    const long f = kFrameCount, versions = 3 + f;
    switch (tech) {
    case 0: return versions + 2 * n;
    case 1: {
        long splits = n <= 1 ? n : (n + kClonesPerSplit - 1) / kClonesPerSplit;
        return versions + f + n * (3 * f + 2) + fractured + polls * n * f + splits;
    }
    default: return versions + n * (1 + f + 2);
    }
}

double wall_s() {
    timespec ts;
    clock_gettime(CLOCK_MONOTONIC, &ts);
    return ts.tv_sec + ts.tv_nsec / 1e9;
}

// Arguments: technology, sources.
void BM_Snapshot(benchmark::State& state) {
    const int tech = static_cast<int>(state.range(0));
    const int n = static_cast<int>(state.range(1));
    // Opened before anything is measured: a loader opens the module once.
    if (module().instantiateSS == nullptr) {
        state.SkipWithError("module not loaded");
        return;
    }
    // A loader opens the module once and takes many snapshots: what its
    // first snapshot pays once for the process (the host name service's
    // libraries, symbol binding, the expression table) is not what a
    // snapshot of n sources costs, so each technology takes a snapshot of
    // one source before anything is measured.
    static bool warmed[3] = {false, false, false};
    if (!warmed[tech]) {
        Array one(1);
        long ignored = 0;
        warmed[tech] = true;
        if (one.sources.size() != 1 || !take_snapshot(kTechs[tech], one.sources, ignored)) {
            state.SkipWithError("warm-up snapshot failed");
            return;
        }
    }
    double wall = 0, self = 0, kernel = 0, children = 0;
    long commands = 0, required = 0;
    for (auto _ : state) {
        state.PauseTiming();
        Array array(n);
        if (static_cast<int>(array.sources.size()) != n) {
            state.SkipWithError("simulated array not made");
            break;
        }
        double w0 = wall_s(), s0 = bench_goals::cpu_seconds(RUSAGE_SELF),
               k0 = bench_goals::kernel_seconds(RUSAGE_SELF),
               c0 = bench_goals::cpu_seconds(RUSAGE_CHILDREN);
        state.ResumeTiming();
        long polls = 0;
        bool ok = take_snapshot(kTechs[tech], array.sources, polls);
        state.PauseTiming();
        wall += wall_s() - w0;
        self += bench_goals::cpu_seconds(RUSAGE_SELF) - s0;
        kernel += bench_goals::kernel_seconds(RUSAGE_SELF) - k0;
        children += bench_goals::cpu_seconds(RUSAGE_CHILDREN) - c0;
        commands += array.commands();
        // The array is made with every clone in sync: none is chosen fractured.
        required += required_commands(tech, n, 0, polls);
        if (!ok) {
            state.SkipWithError("snapshot failed");
            break;
        }
        state.ResumeTiming();
    }
    double it = static_cast<double>(state.iterations());
    state.counters["commands"] = commands / it;
    state.counters["required"] = required / it;
    state.counters["self_ms"] = self * 1e3 / it;
    state.counters["kernel_ms"] = kernel * 1e3 / it;
    state.counters["children_ms"] = children * 1e3 / it;
    state.counters["self_pct"] = wall > 0 ? 100 * self / wall : 0;
    state.SetLabel(kTechs[tech]);
}

void register_all() {
    for (int tech = 0; tech < 3; tech++)
        for (int n : {1, 8, 64, 256})
            benchmark::RegisterBenchmark("BM_Snapshot", BM_Snapshot)
                ->Args({tech, n})
                ->Iterations(n >= 64 ? 1 : 3)
                ->Unit(benchmark::kMillisecond)
                ->UseRealTime();
}

int judge(const bench_goals::KeepingReporter& rep) {
    using bench_goals::fmt;
    bench_goals::Verdict v;
    for (int tech = 0; tech < 3; tech++)
        for (int n : {1, 8, 64, 256}) {
            std::string name = "BM_Snapshot/" + std::to_string(tech) + "/" + std::to_string(n);
            std::string what = std::string("snapshot ") + kTechs[tech] + ", " + std::to_string(n) +
                               " source" + (n > 1 ? "s" : "");
            const auto* r = rep.find(name);
            if (r == nullptr) {
                v.row(what, "did not run", "runs", false);
                continue;
            }
            double pct = rep.counter(name, "self_pct");
            double cmds = rep.counter(name, "commands"), req = rep.counter(name, "required");
            double wall_ms = r->real_accumulated_time / r->iterations * 1e3;
            double limit = n >= 256 ? 2 : 10;
            v.row(what,
                  fmt(wall_ms, 0) + " ms wall; module " + fmt(rep.counter(name, "self_ms"), 1) +
                      " ms CPU (" + fmt(pct, 1) + "%; " + fmt(rep.counter(name, "kernel_ms"), 1) +
                      " ms of it in the kernel, " +
                      fmt(cmds > 0 ? rep.counter(name, "self_ms") * 1e3 / cmds : 0, 0) +
                      " us per command), children " + fmt(rep.counter(name, "children_ms"), 0) +
                      " ms; commands " + fmt(cmds, 0) + " of " + fmt(req, 0) + " required",
                  "module CPU <= " + fmt(limit, 0) + "% of wall; commands <= required",
                  pct <= limit && cmds <= req);
        }
    return v.missed;
}

// The simulator's device layer answers the module's device queries only
// when it is loaded first.
void ensure_preloaded(char** argv) {
    const char* pre = getenv("LD_PRELOAD");
    if (pre != nullptr && strstr(pre, "libarraysim_scsi.so") != nullptr) return;
    std::string lib = std::string(ARRAYSIM_BIN_DIR) + "/libarraysim_scsi.so";
    setenv("LD_PRELOAD", lib.c_str(), 1);
    std::string path = std::string(ARRAYSIM_BIN_DIR) + ":" + (getenv("PATH") ? getenv("PATH") : "");
    setenv("PATH", path.c_str(), 1);
    execv("/proc/self/exe", argv);
}

}  // namespace

int main(int argc, char** argv) {
    ensure_preloaded(argv);
    register_all();
    return bench_goals::run_and_judge(argc, argv, &judge);
}
