// arraysim: one program, many names. Called as tilloseccli, gelmot, fenlok,
// hadrix, pirnet or vxdisk it plays that tool against the state folder;
// called as arraysim it runs the administration commands.
#include <limits.h>
#include <stdlib.h>
#include <unistd.h>

#include <cstdio>
#include <cstring>
#include <ctime>
#include <string>
#include <vector>

#include "tools/arraysim/preload/tape_sim.h"
#include "tools/arraysim/sim.h"
#include "tools/arraysim/text.h"

namespace {

std::string self_exe() {
    char buf[PATH_MAX];
    ssize_t n = readlink("/proc/self/exe", buf, sizeof buf - 1);
    if (n <= 0) return std::string();
    buf[n] = 0;
    return buf;
}

void put(FILE* f, const std::string& s) {
    if (!s.empty()) fwrite(s.data(), 1, s.size(), f);
}

int run_as_tool(const std::string& tool, const std::vector<std::string>& args) {
    using namespace arraysim;
    std::string dir = state_dir_from_env();
    if (dir.empty()) {
        fprintf(stderr, "%s: %s is not set; make a state with \"arraysim init\" and export it\n",
                tool.c_str(), kStateEnv);
        return 2;
    }
    ToolResult r;
    {
        FolderLock lock(dir);
        if (!lock.held()) {
            fprintf(stderr, "%s: cannot lock the state folder %s\n", tool.c_str(), dir.c_str());
            return 2;
        }
        append_log(dir, args.empty() ? tool : tool + " " + join(args, " "));
        // Left for the process's end to take back: freeing thousands of
        // records one by one costs a tenth of a large command.
        State& st = *new State;
        std::string err;
        if (!load_state_lazy(dir, st, err)) {
            fprintf(stderr, "%s: %s\n", tool.c_str(), err.c_str());
            return 2;
        }
        try {
            r = run_tool(st, dir, tool, args);
            if (r.changed && !save_state(dir, st, err)) {
                fprintf(stderr, "%s: %s\n", tool.c_str(), err.c_str());
                return 2;
            }
        } catch (const StateError& e) {
            // A LUN record is read when first used: a bad one stops the command
            // before anything is written or printed.
            fprintf(stderr, "%s: %s\n", tool.c_str(), e.what());
            return 2;
        }
    }
    // A slow answer is slow outside the lock, so that others are not held up.
    if (r.delay_ms > 0) {
        struct timespec ts = {r.delay_ms / 1000, (r.delay_ms % 1000) * 1000000L};
        while (nanosleep(&ts, &ts) != 0) {}
    }
    // Standard error goes to the same place as standard output in every caller
    // that matters; one stream keeps the order of the lines.
    put(stdout, r.out);
    fflush(stdout);
    return r.status;
}

}  // namespace

int main(int argc, char** argv) {
    std::string name = argc > 0 && argv[0] ? argv[0] : "arraysim";
    size_t slash = name.rfind('/');
    if (slash != std::string::npos) name = name.substr(slash + 1);
    std::vector<std::string> args(argv + (argc > 0 ? 1 : 0), argv + argc);
    if (arraysim::is_tool_name(name)) return run_as_tool(name, args);
    // "--state DIR" names the folder for whatever follows, a tool included,
    // as the environment does; the tools themselves take no such option.
    if (args.size() >= 2 && args[0] == "--state") {
        setenv(arraysim::kStateEnv, args[1].c_str(), 1);
        args.erase(args.begin(), args.begin() + 2);
    }
    if (!args.empty() && arraysim::is_tool_name(args[0])) {
        std::string tool = args[0];
        args.erase(args.begin());
        return run_as_tool(tool, args);
    }
    std::string out, err;
    if (!args.empty() && args[0] == "tape") {
        // The tape drives and changers keep a state file of their own.
        int rc = arraysim::tape::run_tape_admin(
            std::vector<std::string>(args.begin() + 1, args.end()), out, err);
        put(stdout, out);
        put(stderr, err);
        return rc;
    }
    int rc = arraysim::run_admin(args, self_exe(), out, err);
    put(stdout, out);
    put(stderr, err);
    return rc;
}
