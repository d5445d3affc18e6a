// Children are spawned, never forked from a test with threads, and always
// reaped; the pipe's reading end is not inherited.
#include "tests/support/child.h"

#include <errno.h>
#include <fcntl.h>
#include <limits.h>
#include <spawn.h>
#include <stdlib.h>
#include <string.h>
#include <sys/wait.h>
#include <unistd.h>

#include "tests/support/fixture.h"

extern char** environ;

namespace zovtest {

namespace {

std::vector<char*> c_strings(std::vector<std::string>& v) {
    std::vector<char*> p;
    for (std::string& s : v) p.push_back(&s[0]);
    p.push_back(nullptr);
    return p;
}

std::string self_exe() {
    char buf[PATH_MAX];
    ssize_t n = readlink("/proc/self/exe", buf, sizeof buf - 1);
    return n > 0 ? std::string(buf, static_cast<size_t>(n)) : "/proc/self/exe";
}

const char* get(const std::vector<std::string>& env, const std::string& name) {
    for (const std::string& e : env)
        if (e.size() > name.size() && e.compare(0, name.size(), name) == 0 && e[name.size()] == '=')
            return e.c_str() + name.size() + 1;
    return nullptr;
}

}  // namespace

ChildResult run_child(const std::vector<std::string>& argv, const ChildOptions& opts) {
    ChildResult r;
    if (argv.empty()) return r;
    std::vector<std::string> args = argv;
    std::vector<std::string> env = opts.env.empty() ? current_env() : opts.env;
    std::vector<char*> av = c_strings(args);
    std::vector<char*> ev = c_strings(env);
    const std::string& path = opts.path.empty() ? argv[0] : opts.path;

    int fds[2];
    if (pipe2(fds, O_CLOEXEC) != 0) return r;
    posix_spawn_file_actions_t fa;
    posix_spawn_file_actions_init(&fa);
    posix_spawn_file_actions_adddup2(&fa, fds[1], 1);
    posix_spawn_file_actions_adddup2(&fa, fds[1], 2);
    pid_t pid = -1;
    int rc = posix_spawn(&pid, path.c_str(), &fa, nullptr, av.data(), ev.data());
    posix_spawn_file_actions_destroy(&fa);
    close(fds[1]);
    char buf[4096];
    ssize_t n;
    while ((n = read(fds[0], buf, sizeof buf)) > 0 || (n < 0 && errno == EINTR))
        if (n > 0) r.out.append(buf, static_cast<size_t>(n));
    close(fds[0]);
    if (rc != 0) return r;
    int status = 0;
    while (waitpid(pid, &status, 0) < 0)
        if (errno != EINTR) return r;
    r.status = WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
    return r;
}

std::vector<std::string> current_env() {
    std::vector<std::string> env;
    for (char** e = environ; *e != nullptr; e++) env.push_back(*e);
    return env;
}

void set_var(std::vector<std::string>& env, const std::string& name, const std::string& value) {
    for (std::string& e : env)
        if (e.compare(0, name.size() + 1, name + "=") == 0) {
            e = name + "=" + value;
            return;
        }
    env.push_back(name + "=" + value);
}

std::string sim_bin_dir() {
    return build_dir() + "/arraysim-bin";
}
std::string sim_layer() {
    return sim_bin_dir() + "/libarraysim_scsi.so";
}

std::vector<std::string> preload_env(std::vector<std::string> env) {
    const char* old = get(env, "LD_PRELOAD");
    std::string preload = sim_layer();
    if (old != nullptr && *old != '\0') preload += std::string(":") + old;
    const char* asan = get(env, "ASAN_OPTIONS");
    std::string opts = asan != nullptr && *asan != '\0' ? std::string(asan) + ":" : "";
    opts += "verify_asan_link_order=0";
    set_var(env, "LD_PRELOAD", preload);
    set_var(env, "ASAN_OPTIONS", opts);
    return env;
}

bool preloaded() {
    const char* p = getenv("LD_PRELOAD");
    return p != nullptr && strstr(p, sim_layer().c_str()) != nullptr;
}

ChildResult run_self_preloaded(const std::vector<std::string>& args) {
    std::vector<std::string> argv{self_exe()};
    argv.insert(argv.end(), args.begin(), args.end());
    ChildOptions o;
    o.env = preload_env();
    return run_child(argv, o);
}

void reexec_preloaded(char** argv) {
    if (preloaded() || access(sim_layer().c_str(), R_OK) != 0) return;
    std::vector<std::string> env = preload_env();
    std::vector<char*> ev = c_strings(env);
    execve(self_exe().c_str(), argv, ev.data());
}

}  // namespace zovtest
