// A simulated array for tests of the command layer: a fresh state folder made
// by `arraysim init`, the simulator's bin folder first on PATH, the state
// variable set for children, and the command log read back. Tests skip when
// the simulator is not built. Not thread-safe; one per test.
#pragma once

#include <errno.h>
#include <stdlib.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <fstream>
#include <memory>
#include <sstream>
#include <string>
#include <vector>

#include "tests/unit/merlode/gw_test_util.h"

extern char** environ;

class SimArray {
public:
    // Folder of the simulator's program and tool links.
    static std::string bin_dir() { return build_dir() + "/arraysim-bin"; }
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
        std::string cmd = "'" + program() + "' --state '" + m_dir + "'";
        for (const std::string& a : args) cmd += " '" + a + "'";
        cmd += " 2>&1";
        FILE* p = popen(cmd.c_str(), "r");
        if (p == nullptr) return -1;
        std::string text;
        char buf[4096];
        size_t n;
        while ((n = fread(buf, 1, sizeof buf, p)) > 0) text.append(buf, n);
        int status = pclose(p);
        if (out != nullptr) *out = text;
        return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
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
    static std::string preload_library() { return bin_dir() + "/libarraysim_scsi.so"; }
    // True in the run that run_preloaded started.
    static bool preloaded() { return getenv(kPreloadedMark) != nullptr; }
    // Runs the tests matching `filter` of this very binary with the device
    // layer preloaded; returns the exit status and leaves the output in `out`.
    static int run_preloaded(const std::string& filter, std::string& out) {
        std::vector<std::string> env;
        std::string preload = preload_library();
        std::string asan = "verify_asan_link_order=0";
        for (char** e = environ; *e != nullptr; e++) {
            std::string v(*e);
            if (v.compare(0, 11, "LD_PRELOAD=") == 0)
                preload += ":" + v.substr(11);
            else if (v.compare(0, 13, "ASAN_OPTIONS=") == 0)
                asan = v.substr(13) + ":" + asan;
            else
                env.push_back(v);
        }
        env.push_back("LD_PRELOAD=" + preload);
        // The library is built without the sanitizer on purpose: it must not
        // be refused for standing ahead of the sanitizer's runtime.
        env.push_back("ASAN_OPTIONS=" + asan);
        env.push_back(std::string(kPreloadedMark) + "=1");
        std::vector<char*> envp;
        for (std::string& s : env) envp.push_back(&s[0]);
        envp.push_back(nullptr);
        std::string self = "/proc/self/exe";
        std::string flt = "--gtest_filter=" + filter;
        char* argv[] = {&self[0], &flt[0], nullptr};

        int fds[2];
        if (pipe(fds) != 0) return -1;
        pid_t pid = fork();
        if (pid == 0) {
            dup2(fds[1], 1);
            dup2(fds[1], 2);
            close(fds[0]);
            close(fds[1]);
            execve("/proc/self/exe", argv, envp.data());
            _exit(127);
        }
        close(fds[1]);
        out.clear();
        char buf[4096];
        ssize_t n;
        while ((n = read(fds[0], buf, sizeof buf)) > 0 || (n < 0 && errno == EINTR))
            if (n > 0) out.append(buf, n);
        close(fds[0]);
        int status = 0;
        if (pid < 0 || waitpid(pid, &status, 0) != pid) return -1;
        return WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
    }

    // The first two addresses of frame `f` as the simulator makes them.
    static std::string addr(int f, int n = 1) {
        return "198.18." + std::to_string(f) + "." + std::to_string(n);
    }

private:
    static constexpr const char* kPreloadedMark = "ZOV_SIM_PRELOADED";
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
