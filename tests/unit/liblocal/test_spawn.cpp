// Real children started through spawn: what they see (arguments,
// descriptors, environment, directory, signals), how they end, and that the
// parent is left with no descriptor or zombie of theirs.
#include <dirent.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <stdlib.h>
#include <string.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include "liblocal/kv_env.h"
#include "liblocal/kv_spawn.h"
#include "tests/support/temp_dir.h"

namespace {

std::string probe_path() {
    const char* b = getenv("ZOV_BUILD_DIR");
    std::string dir = b ? b : ".";
    return dir + "/tests/helpers/spawn_probe";
}

// A descriptor number as high as wanted, else slot below the process's limit.
int high_fd(int want, int slot) {
    struct rlimit rl;
    getrlimit(RLIMIT_NOFILE, &rl);
    if (rl.rlim_cur < rl.rlim_max) {
        rl.rlim_cur = rl.rlim_max;
        setrlimit(RLIMIT_NOFILE, &rl);
        getrlimit(RLIMIT_NOFILE, &rl);
    }
    int limit = static_cast<int>(rl.rlim_cur);
    return want < limit ? want : limit - slot;
}

std::set<int> open_fds() {
    std::set<int> fds;
    DIR* d = opendir("/proc/self/fd");
    int self = dirfd(d);
    while (dirent* e = readdir(d)) {
        if (e->d_name[0] == '.') continue;
        int fd = atoi(e->d_name);
        if (fd != self) fds.insert(fd);
    }
    closedir(d);
    return fds;
}

// argv as the spawner wants it; the strings live in the object.
struct Argv {
    std::vector<std::string> words;
    std::vector<char*> ptrs;
    explicit Argv(std::vector<std::string> w) : words(std::move(w)) {
        for (auto& s : words) ptrs.push_back(&s[0]);
        ptrs.push_back(nullptr);
    }
    char** get() { return ptrs.data(); }
};

struct Result {
    pid_t pid = -1;
    int status = -1;
    std::string out;
    std::vector<std::string> lines() const {
        std::vector<std::string> v;
        size_t i = 0;
        while (i < out.size()) {
            size_t j = out.find('\n', i);
            if (j == std::string::npos) j = out.size();
            v.push_back(out.substr(i, j - i));
            i = j + 1;
        }
        return v;
    }
    bool has_line(const std::string& l) const {
        for (auto& x : lines())
            if (x == l) return true;
        return false;
    }
};

struct RunOpts {
    int mode = SPAWN_ASYNC;
    char** envp = nullptr;
    std::vector<pollfd> exfds;
    int dup_in = -1;
    bool dup_err = true;
    void* user = nullptr;
    char* cwd = nullptr;
};

// Runs the probe with stdout (and stderr) on a pipe, reads everything, reaps.
Result run(std::vector<std::string> words, RunOpts o = RunOpts()) {
    Argv a(std::move(words));
    int p[2];
    EXPECT_EQ(0, pipe(p));
    int dupfds[3] = {o.dup_in, p[1], o.dup_err ? p[1] : -1};
    Result r;
    r.pid = spawn_as_user(o.mode, a.get(), o.exfds.empty() ? nullptr : o.exfds.data(),
                          o.exfds.size(), dupfds, o.envp, o.user, o.cwd, 1);
    close(p[1]);
    char buf[4096];
    ssize_t n;
    while ((n = read(p[0], buf, sizeof buf)) > 0) r.out.append(buf, static_cast<size_t>(n));
    close(p[0]);
    if (r.pid > 0 && !(o.mode & SPAWN_WAIT)) {
        EXPECT_EQ(r.pid, waitchild(r.pid, &r.status, 0));
    }
    return r;
}

class SpawnTest : public ::testing::Test {
protected:
    void SetUp() override {
        probe_ = probe_path();
        ASSERT_EQ(0, access(probe_.c_str(), X_OK)) << probe_;
        fds_before_ = open_fds();
    }
    void TearDown() override {
        EXPECT_EQ(fds_before_, open_fds()) << "descriptor left open in the parent";
        int st;
        EXPECT_EQ(-1, waitpid(-1, &st, WNOHANG)) << "child left unreaped";
    }
    std::string probe_;
    std::set<int> fds_before_;
};

TEST_F(SpawnTest, Arguments_ReachChildAsTheyStand) {
    std::vector<std::string> w = {
        probe_,      "args",        "100%", "%s%n%d", "two words", "", "\xc3\xa9t\xc3\xa9",
        "tab\there", "\\\"quoted\""};
    Result r = run(w);
    ASSERT_TRUE(WIFEXITED(r.status));
    EXPECT_EQ(0, WEXITSTATUS(r.status));
    auto lines = r.lines();
    ASSERT_EQ(w.size(), lines.size());
    for (size_t i = 1; i < w.size(); ++i) EXPECT_EQ(w[i], lines[i]);
}

TEST_F(SpawnTest, Arguments_FiveThousandTokensAllArrive) {
    std::vector<std::string> w = {probe_, "argc"};
    for (int i = 0; i < 5000; ++i) w.push_back("t" + std::to_string(i));
    Result r = run(w);
    EXPECT_EQ("5002", r.out.substr(0, r.out.find('\n')));
}

TEST_F(SpawnTest, Locate_RelativeNameFoundOnChildPathAndPassedAsFirstArgument) {
    std::string dir = probe_.substr(0, probe_.rfind('/'));
    std::string pathvar = "PATH=/nonexistent::" + dir;
    char* envp[] = {&pathvar[0], nullptr};
    RunOpts o;
    o.envp = envp;
    Result r = run({"spawn_probe", "args"}, o);
    ASSERT_EQ(0, r.status);
    EXPECT_EQ(probe_, r.lines().at(0));
}

TEST_F(SpawnTest, Locate_NoPathInChildEnvironmentMeansNoSearch) {
    std::string dir = probe_.substr(0, probe_.rfind('/'));
    std::string lower = "path=" + dir;  // the name is matched without case
    char* envp[] = {&lower[0], nullptr};
    RunOpts o;
    o.envp = envp;
    o.mode = SPAWN_ASYNC | SPAWN_ENVP_ONLY;
    Result r = run({"spawn_probe", "args"}, o);
    EXPECT_EQ(0, r.status) << r.out;

    char* none[] = {nullptr};
    o.envp = none;
    // The test's own PATH is in the saved assignments, so with envp alone
    // there is nothing to search: the exec fails in the child.
    Result r2 = run({"spawn_probe", "args"}, o);
    ASSERT_TRUE(WIFEXITED(r2.status));
    EXPECT_EQ(SPAWN_EXEC_FAILED, WEXITSTATUS(r2.status));
}

TEST_F(SpawnTest, ExecFailure_Status76AndTextOnStandardError) {
    Result r = run({"/nonexistent/tool", "x"});
    ASSERT_GT(r.pid, 0);
    ASSERT_TRUE(WIFEXITED(r.status));
    EXPECT_EQ(SPAWN_EXEC_FAILED, WEXITSTATUS(r.status));
    EXPECT_EQ("Failed to exec process '/nonexistent/tool': No such file or directory\n", r.out);

    RunOpts o;
    o.mode = SPAWN_WAIT;
    EXPECT_EQ(-1, run({"/nonexistent/tool"}, o).pid);
    // Not executable: a directory.
    EXPECT_EQ(SPAWN_EXEC_FAILED, WEXITSTATUS(run({"/tmp"}).status));
}

TEST_F(SpawnTest, Wait_StatusDecidesResult) {
    RunOpts o;
    o.mode = SPAWN_WAIT;
    EXPECT_GT(run({probe_, "exit", "0"}, o).pid, 0);
    EXPECT_EQ(-1, run({probe_, "exit", "3"}, o).pid);
    EXPECT_EQ(-1, run({probe_, "kill"}, o).pid);
}

TEST_F(SpawnTest, Output_MixedBinarySilentAndKilledChildren) {
    Result m = run({probe_, "mixed"});
    EXPECT_EQ("out 1\nerr 1\nout 2\nerr 2\nout 3\nerr 3\n", m.out);

    Result b = run({probe_, "binary"});
    ASSERT_EQ(256u, b.out.size());
    for (int c = 0; c < 256; ++c) EXPECT_EQ(c, static_cast<unsigned char>(b.out[c]));

    Result s = run({probe_, "silent"});
    EXPECT_EQ("", s.out);
    EXPECT_EQ(0, s.status);

    Result k = run({probe_, "kill"});
    ASSERT_TRUE(WIFSIGNALED(k.status));
    EXPECT_EQ(SIGKILL, WTERMSIG(k.status));
}

TEST_F(SpawnTest, Descriptors_OnlyStandardAndListedReachChild) {
    // Sparse, high descriptors of the host, with and without close-on-exec.
    int base = open("/dev/null", O_RDONLY);
    ASSERT_GE(base, 0);
    std::vector<int> extra = {40, high_fd(1030, 3), high_fd(5000, 2), high_fd(19000, 1)};
    for (int fd : extra) ASSERT_EQ(fd, dup2(base, fd));
    int kept = 777, kept_cloexec = 778;
    ASSERT_EQ(kept, dup2(base, kept));
    ASSERT_EQ(kept_cloexec, dup3(base, kept_cloexec, O_CLOEXEC));
    RunOpts o;
    o.exfds = {{kept, 0, 0}, {kept_cloexec, 0, 0}, {-1, 0, 0}};
    Result r = run({probe_, "fds"}, o);
    EXPECT_EQ("fd 0\nfd 1\nfd 2\nfd 777\nfd 778\n", r.out);
    for (int fd : extra) close(fd);
    close(kept);
    close(kept_cloexec);
    close(base);
}

TEST_F(SpawnTest, Descriptors_OneInBothListsIsNotKeptUnderItsOldNumber) {
    int p[2];
    ASSERT_EQ(0, pipe(p));
    int dupfds[3] = {-1, p[1], p[1]};
    pollfd ex[] = {{p[1], 0, 0}};
    Argv a({probe_, "fds"});
    pid_t pid = spawn(SPAWN_ASYNC, a.get(), ex, 1, dupfds, nullptr);
    EXPECT_EQ(-1, ex[0].fd);  // struck out by the parent
    close(p[1]);
    std::string out;
    char buf[512];
    ssize_t n;
    while ((n = read(p[0], buf, sizeof buf)) > 0) out.append(buf, static_cast<size_t>(n));
    close(p[0]);
    int st;
    ASSERT_EQ(pid, waitchild(pid, &st, 0));
    EXPECT_EQ("fd 0\nfd 1\nfd 2\n", out);
}

TEST_F(SpawnTest, Descriptors_NegativeSlotLeftAsInheritedAndInputRedirected) {
    int in[2];
    ASSERT_EQ(0, pipe(in));
    ASSERT_EQ(5, write(in[1], "hello", 5));
    close(in[1]);
    RunOpts o;
    o.dup_in = in[0];
    o.dup_err = false;
    Result r = run({probe_, "cat"}, o);
    EXPECT_EQ("hello", r.out);
    close(in[0]);

    // Standard error left alone: the child's 2 is the parent's 2.
    char self[256] = {0};
    ASSERT_GT(readlink("/proc/self/fd/2", self, sizeof self - 1), 0);
    RunOpts o2;
    o2.dup_err = false;
    Result l = run({probe_, "links"}, o2);
    EXPECT_TRUE(l.has_line(std::string("2 ") + self)) << l.out;
}

TEST_F(SpawnTest, Modes_DevNullSessionAndShell) {
    RunOpts o;
    o.mode = SPAWN_ASYNC | SPAWN_DEVNULL;
    Result d = run({probe_, "links"}, o);
    EXPECT_TRUE(d.has_line("0 /dev/null")) << d.out;

    o.mode = SPAWN_ASYNC | SPAWN_SETSID;
    Result s = run({probe_, "session"}, o);
    EXPECT_EQ("leader\n", s.out);
    Result sl = run({probe_, "links"}, o);
    EXPECT_TRUE(sl.has_line("0 /dev/null")) << sl.out;

    o.mode = SPAWN_ASYNC | SPAWN_SHELL;
    Result sh = run({probe_, "args", "$HOME", "a b", "`x`", "q\"uote", "back\\slash"}, o);
    EXPECT_EQ(probe_ + "\nargs\n$HOME\na b\n`x`\nq\"uote\nback\\slash\n", sh.out);
}

TEST_F(SpawnTest, WorkingDirectory_GivenOrStatus76) {
    zovtest::TempDir dir("spawn_cwd_");
    RunOpts o;
    std::string cwd = dir.path();
    o.cwd = &cwd[0];
    EXPECT_EQ(dir.path() + "\n", run({probe_, "cwd"}, o).out);
    rmdir(dir.path().c_str());
    Result bad = run({probe_, "cwd"}, o);
    ASSERT_TRUE(WIFEXITED(bad.status));
    EXPECT_EQ(SPAWN_EXEC_FAILED, WEXITSTATUS(bad.status));
}

TEST_F(SpawnTest, WorkingDirectory_CoreDirectoryPerProgram) {
    RunOpts o;
    o.mode = SPAWN_ASYNC | SPAWN_CORESDIR;
    Result r = run({probe_, "cwd"}, o);
    ASSERT_EQ(0, r.status);
    std::string dir = r.out.substr(0, r.out.find('\n'));
    EXPECT_EQ("/spawn_probe", dir.substr(dir.rfind('/'))) << dir;
    struct stat st;
    EXPECT_EQ(0, stat(dir.c_str(), &st));
    rmdir(dir.c_str());  // made for this run; empty
}

TEST_F(SpawnTest, Signals_ChildStartsUnblockedWithDefaults) {
    struct sigaction handler {
    }, ign{}, old_usr1, old_int, old_pipe;
    handler.sa_handler = [](int) {};
    ign.sa_handler = SIG_IGN;
    sigaction(SIGUSR1, &handler, &old_usr1);
    sigaction(SIGINT, &ign, &old_int);
    sigaction(SIGPIPE, &ign, &old_pipe);
    sigset_t block, oldmask;
    sigemptyset(&block);
    sigaddset(&block, SIGUSR2);
    sigaddset(&block, SIGTERM);
    pthread_sigmask(SIG_BLOCK, &block, &oldmask);

    Result r = run({probe_, "signals"});

    pthread_sigmask(SIG_SETMASK, &oldmask, nullptr);
    sigaction(SIGUSR1, &old_usr1, nullptr);
    sigaction(SIGINT, &old_int, nullptr);
    sigaction(SIGPIPE, &old_pipe, nullptr);
    EXPECT_EQ(
        "blocked 0\nINT default\nTERM default\nCHLD default\nUSR1 default\n"
        "PIPE ignore\n",
        r.out);
    // The host's handler stays in place.
    struct sigaction now;
    sigaction(SIGUSR1, nullptr, &now);
    EXPECT_EQ(old_usr1.sa_handler, now.sa_handler);
}

TEST_F(SpawnTest, Environment_FrontAdditionsCallerAndSavedAssignments) {
    static char saved[] = "ZOV_SPAWN_SAVED=from-putenv";
    ASSERT_EQ(0, kv_putenv(saved));
    static char both[] = "ZOV_SPAWN_BOTH=saved";
    ASSERT_EQ(0, kv_putenv(both));
    std::string mine = "ZOV_SPAWN_BOTH=caller";
    std::string odd1 = "NOEQUALSIGN", odd2 = "=novalue", odd3 = "ZOV_EMPTY=";
    std::string lang = "LC_TIME=C";
    char* envp[] = {&mine[0], &odd1[0], &odd2[0], &odd3[0], &lang[0], nullptr};
    setenv("LC_TIME", "POSIX", 1);
    RunOpts o;
    o.envp = envp;
    Result r = run({probe_, "env"}, o);
    unsetenv("LC_TIME");
    EXPECT_TRUE(r.has_line(std::string("VMR_MAST=") + program_invocation_short_name)) << r.out;
    EXPECT_TRUE(r.has_line("ZOV_SPAWN_SAVED=from-putenv"));
    EXPECT_TRUE(r.has_line("ZOV_SPAWN_BOTH=caller"));
    EXPECT_FALSE(r.has_line("ZOV_SPAWN_BOTH=saved"));
    EXPECT_TRUE(r.has_line("LC_TIME=C"));
    EXPECT_FALSE(r.has_line("LC_TIME=POSIX"));
    EXPECT_TRUE(r.has_line("ZOV_EMPTY="));
    EXPECT_TRUE(r.has_line("NOEQUALSIGN"));
    std::set<std::string> names;
    for (auto& l : r.lines()) {
        std::string n = l.substr(0, l.find('='));
        EXPECT_TRUE(names.insert(n).second) << "duplicate " << n;
    }

    // envp alone: no saved assignment, but the front additions.
    o.mode = SPAWN_ASYNC | SPAWN_ENVP_ONLY;
    Result only = run({probe_, "env"}, o);
    EXPECT_FALSE(only.has_line("ZOV_SPAWN_SAVED=from-putenv"));
    EXPECT_TRUE(only.has_line("ZOV_SPAWN_BOTH=caller"));
    EXPECT_TRUE(only.has_line(std::string("VMR_MAST=") + program_invocation_short_name));
}

TEST_F(SpawnTest, Environment_LocaleVariablesFollowTheProcess) {
    setenv("LC_MESSAGES", "C", 1);
    setenv("DMAP_ROOT_PATH", "/srv/dmap", 1);
    char* none[] = {nullptr};
    RunOpts o;
    o.envp = none;
    o.mode = SPAWN_ASYNC | SPAWN_ENVP_ONLY;
    Result r = run({probe_, "env"}, o);
    unsetenv("LC_MESSAGES");
    unsetenv("DMAP_ROOT_PATH");
    EXPECT_TRUE(r.has_line("LC_MESSAGES=C")) << r.out;
    EXPECT_TRUE(r.has_line("DMAP_ROOT_PATH=/srv/dmap")) << r.out;
}

TEST_F(SpawnTest, Environment_PathUnsetOrCompleteReachesChildAsIs) {
    std::string old = getenv("PATH") ? getenv("PATH") : "";
    unsetenv("PATH");
    kv_env_init_from_environ();
    Result none = run({probe_, "env"});
    setenv("PATH", old.c_str(), 1);
    kv_env_init_from_environ();
    for (auto& l : none.lines()) EXPECT_NE(0u, l.rfind("PATH=", 0)) << l;

    std::string full = "PATH=/usr/sbin:/usr/bin:/etc:/sbin:/bin";
    char* envp[] = {&full[0], nullptr};
    RunOpts o;
    o.envp = envp;
    Result r = run({probe_, "env"}, o);
    int count = 0;
    for (auto& l : r.lines())
        if (l.rfind("PATH=", 0) == 0) {
            ++count;
            EXPECT_EQ(full, l);
        }
    EXPECT_EQ(1, count);
}

TEST_F(SpawnTest, Descriptors_ClosedSourceInDupfdsetEndsChildWith76) {
    int closed = open("/dev/null", O_RDONLY);
    close(closed);
    Argv a({probe_, "lines"});
    int dupfds[3] = {-1, closed, -1};
    pid_t pid = spawn(SPAWN_ASYNC, a.get(), nullptr, 0, dupfds, nullptr);
    ASSERT_GT(pid, 0);
    int st;
    ASSERT_EQ(pid, waitchild(pid, &st, 0));
    ASSERT_TRUE(WIFEXITED(st));
    EXPECT_EQ(SPAWN_EXEC_FAILED, WEXITSTATUS(st));
}

TEST_F(SpawnTest, UserContext_ChildRunsAsAccount) {
    if (geteuid() != 0) GTEST_SKIP() << "needs root";
    void* ctx = build_spawn_user_context("no-such-user-here");
    void* copy = duplicate_spawn_user_context(ctx);
    free_spawn_user_context(ctx);
    RunOpts o;
    o.user = copy;
    Result r = run({probe_, "ids"}, o);
    Result e = run({probe_, "env"}, o);
    free_spawn_user_context(copy);
    EXPECT_EQ(0, r.out.rfind("65534 ", 0)) << r.out;
    EXPECT_TRUE(e.has_line("USER=nobody")) << e.out;
    // The parent keeps its own ids.
    EXPECT_EQ(0u, geteuid());
}

TEST_F(SpawnTest, Waitchild_NoHangAndInterruptedWaitResumes) {
    int in[2];
    ASSERT_EQ(0, pipe(in));
    RunOpts o;
    int p[2];
    ASSERT_EQ(0, pipe(p));
    int dupfds[3] = {in[0], p[1], p[1]};
    Argv a({probe_, "cat"});
    pid_t pid = spawn(SPAWN_ASYNC, a.get(), nullptr, 0, dupfds, nullptr);
    ASSERT_GT(pid, 0);
    close(in[0]);
    close(p[1]);
    int st = 0;
    EXPECT_EQ(0, waitchild(pid, &st, WNOHANG));

    struct sigaction sa {
    }, old;
    sa.sa_handler = [](int) {};  // no SA_RESTART: waitpid sees EINTR
    sigaction(SIGUSR1, &sa, &old);
    pthread_t waiter = pthread_self();
    std::atomic<bool> done{false};
    std::thread kicker([&] {
        for (int i = 0; i < 200 && !done; ++i) pthread_kill(waiter, SIGUSR1);
        close(in[1]);  // lets the child finish
    });
    EXPECT_EQ(pid, waitchild(pid, &st, 0));
    done = true;
    kicker.join();
    sigaction(SIGUSR1, &old, nullptr);
    EXPECT_EQ(0, st);
    close(p[0]);
    EXPECT_EQ(-1, waitchild(pid, &st, 0));
    EXPECT_EQ(ECHILD, errno);
}

TEST_F(SpawnTest, Threads_ConcurrentSpawnsSeeOnlyTheirOwnPipes) {
    std::atomic<int> bad{0};
    std::vector<std::thread> ts;
    for (int t = 0; t < 4; ++t) {
        ts.emplace_back([&] {
            for (int i = 0; i < 15; ++i) {
                Result r = run({probe_, "fds"});
                if (r.out != "fd 0\nfd 1\nfd 2\n" || r.status != 0) ++bad;
            }
        });
    }
    for (auto& t : ts) t.join();
    EXPECT_EQ(0, bad.load());
}

TEST_F(SpawnTest, Threads_EnvironmentChangesWhileSpawning) {
    // Assignments land while other threads copy the saved ones: each child
    // sees one whole value of the variable, never a torn or missing one.
    static char values[2][64] = {"ZOV_SPAWN_RACE=aaaaaaaaaaaaaaaa",
                                 "ZOV_SPAWN_RACE=bbbbbbbbbbbbbbbb"};
    ASSERT_EQ(0, kv_putenv(values[0]));
    std::atomic<bool> stop{false};
    std::thread writer([&] {
        for (int i = 0; !stop; ++i) {
            kv_putenv(values[i & 1]);
            const char* v = kv_getenv("ZOV_SPAWN_RACE");
            if (v == nullptr || strlen(v) != 16) ADD_FAILURE() << "torn value";
            // Let the spawners at the lock too, or they only queue behind us.
            std::this_thread::yield();
        }
    });
    int bad = 0;
    for (int i = 0; i < 20; ++i) {
        Result r = run({probe_, "env"});
        int seen = 0;
        for (auto& l : r.lines())
            if (l == values[0] || l == values[1]) ++seen;
        if (seen != 1) ++bad;
    }
    stop = true;
    writer.join();
    EXPECT_EQ(0, bad);
}

TEST_F(SpawnTest, BadArguments_RefusedBeforeAnyChild) {
    EXPECT_EQ(-1, spawn(SPAWN_ASYNC, nullptr, nullptr, 0, nullptr, nullptr));
    EXPECT_EQ(EINVAL, errno);
    char* empty[] = {nullptr};
    EXPECT_EQ(-1, spawn(SPAWN_ASYNC, empty, nullptr, 0, nullptr, nullptr));
}

void* write_marker(void* arg) {
    int fd = *static_cast<int*>(arg);
    if (write(fd, "child", 5) != 5) _exit(9);
    return nullptr;
}

TEST_F(SpawnTest, Spawnthread_RunsProcInChildAndClosesSets) {
    int p[2];
    ASSERT_EQ(0, pipe(p));
    fd_set parent_set, child_set;
    FD_ZERO(&parent_set);
    FD_ZERO(&child_set);
    FD_SET(p[1], &parent_set);
    FD_SET(p[0], &child_set);
    pid_t pid = spawnthread(write_marker, &p[1], &parent_set, &child_set);
    ASSERT_GT(pid, 0);
    EXPECT_EQ(-1, fcntl(p[1], F_GETFD));  // closed in the parent
    char buf[16] = {0};
    EXPECT_EQ(5, read(p[0], buf, sizeof buf));
    EXPECT_STREQ("child", buf);
    int st;
    ASSERT_EQ(pid, waitchild(pid, &st, 0));
    EXPECT_EQ(0, st);
    close(p[0]);
}

TEST(SpawnNames, SignalAndExceptionTexts) {
    EXPECT_STREQ("SIGHUP", signal_to_str(SIGHUP));
    EXPECT_STREQ("SIGKILL", signal_to_str(SIGKILL));
    EXPECT_STREQ("SIGCHLD", signal_to_str(SIGCHLD));
    EXPECT_STREQ("Signal 14", signal_to_str(SIGALRM));
    EXPECT_STREQ("Signal -3", signal_to_str(-3));
    EXPECT_STREQ("EXCEPTION_UNKNOWN", exception_to_str(12));
    EXPECT_EQ(6, exception_to_signal(0));
    errno = 0;
    EXPECT_EQ(0, get_impersonation_pipe());
    EXPECT_EQ(EINVAL, errno);
    EXPECT_EQ(0, pipe_is_open(1));
}

}  // namespace

namespace {

std::vector<std::string> g_trace;
void collect_trace(int level, int, const char* text) {
    if (level >= 0) g_trace.push_back(text);
}

TEST(SpawnTrace, StartWaitAndReapAreTraced) {
    kv_trace_sink_t old = kv_spawn_set_trace(collect_trace);
    g_trace.clear();
    Argv a({"/nonexistent/tool"});
    int devnull = open("/dev/null", O_WRONLY);
    int dupfds[3] = {-1, devnull, devnull};
    EXPECT_EQ(-1, spawn(SPAWN_WAIT, a.get(), nullptr, 0, dupfds, nullptr));
    close(devnull);
    kv_spawn_set_trace(old);
    ASSERT_EQ(4u, g_trace.size());
    EXPECT_EQ(0u, g_trace[0].rfind("/nonexistent/tool started, pid ", 0));
    EXPECT_EQ(0u, g_trace[1].rfind("/nonexistent/tool waiting, pid ", 0));
    EXPECT_EQ(0u, g_trace[2].rfind("waitchild reaped, pid ", 0));
    EXPECT_EQ(0u, g_trace[3].rfind("/nonexistent/tool terminated abnormally, pid ", 0));
    EXPECT_NE(std::string::npos, g_trace[3].find(", exit status 76\n"));
}

}  // namespace
