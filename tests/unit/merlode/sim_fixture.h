// A simulated array for tests of the command layer: a fresh state folder made
// by `arraysim init`, the simulator's bin folder first on PATH, the state
// variable set for children, and the command log read back. Tests skip when
// the simulator is not built. Not thread-safe; one per test.
#pragma once

#include <stdlib.h>
#include <sys/stat.h>
#include <unistd.h>

#include <fstream>
#include <memory>
#include <string>
#include <vector>

#include "tests/support/child.h"
#include "tests/unit/merlode/gw_test_util.h"

class SimArray {
public:
    // Folder of the simulator's program and tool links.
    static std::string bin_dir() { return zovtest::sim_bin_dir(); }
    static std::string program() { return bin_dir() + "/arraysim"; }
    static bool available() {
        struct stat st;
        return stat(program().c_str(), &st) == 0;
    }

    // Makes the array with `init_args` (e.g. {"--frames", "3"}); ok() says
    // whether that worked.
    explicit SimArray(const std::vector<std::string>& init_args = {}) {
        m_dir = m_tmp.path() + "/state";
        std::vector<std::string> args{"init"};
        args.insert(args.end(), init_args.begin(), init_args.end());
        m_ok = admin(args) == 0;
        std::string path = bin_dir();
        const char* old = getenv("PATH");
        if (old != nullptr) path += std::string(":") + old;
        m_path.reset(new ScopedEnv("PATH", path.c_str()));
        m_state.reset(new ScopedEnv("ARRAYSIM_STATE", m_dir.c_str()));
    }
    bool ok() const { return m_ok; }
    const std::string& dir() const { return m_dir; }

    // Runs "arraysim --state DIR ARGS..." and returns its exit status; its
    // output goes to `out` when given.
    int admin(const std::vector<std::string>& args, std::string* out = nullptr) const {
        std::vector<std::string> argv{program(), "--state", m_dir};
        argv.insert(argv.end(), args.begin(), args.end());
        zovtest::ChildResult r = zovtest::run_child(argv);
        if (out != nullptr) *out = r.out;
        return r.status;
    }

    // The command lines the tools received, oldest first.
    std::vector<std::string> commands() const {
        std::vector<std::string> v;
        std::ifstream in(m_dir + "/commands.log");
        for (std::string l; std::getline(in, l);) v.push_back(l);
        return v;
    }
    void clear_commands() const { unlink((m_dir + "/commands.log").c_str()); }

    // The fake SCSI device layer, which answers INQUIRY only when it was
    // preloaded at process start.
    static std::string preload_library() { return zovtest::sim_layer(); }
    static bool preloaded() { return zovtest::preloaded(); }
    // Runs the tests matching `filter` of this very binary with the device
    // layer preloaded; returns the exit status and leaves the output in `out`.
    static int run_preloaded(const std::string& filter, std::string& out) {
        zovtest::ChildResult r = zovtest::run_self_preloaded({"--gtest_filter=" + filter});
        out = r.out;
        return r.status;
    }

    // The first two addresses of frame `f` as the simulator makes them.
    static std::string addr(int f, int n = 1) {
        return "198.18." + std::to_string(f) + "." + std::to_string(n);
    }

private:
    TempDir m_tmp;
    std::string m_dir;
    bool m_ok = false;
    std::unique_ptr<ScopedEnv> m_path;
    std::unique_ptr<ScopedEnv> m_state;
};

#define SKIP_WITHOUT_SIM()                                                 \
    do {                                                                   \
        if (!SimArray::available()) GTEST_SKIP() << "simulator not built"; \
    } while (0)
