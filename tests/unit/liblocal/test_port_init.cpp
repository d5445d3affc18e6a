// Start-up, exit handlers, installation paths and the vmr directory table.
// Whatever depends on process-wide first-time state runs in a forked child.
#include <gtest/gtest.h>

#include <langinfo.h>
#include <locale.h>
#include <signal.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/wait.h>
#include <unistd.h>

#include <string>

#include "liblocal/kv_init.h"
#include "liblocal/kv_msg.h"
#include "liblocal/kv_path.h"
#include "liblocal/kv_thread.h"
#include "liblocal/kv_trace.h"
#include "liblocal/vmr/lib/vmr_path.h"

namespace {
// Runs `body` in a forked child; returns its exit status, or -1.
template <typename F>
int in_child(F body) {
    fflush(nullptr);
    pid_t pid = fork();
    if (pid == 0) _exit(body());
    int st = 0;
    if (pid < 0 || waitpid(pid, &st, 0) != pid || !WIFEXITED(st)) return -1;
    return WEXITSTATUS(st);
}

int g_out_fd = -1;
void say_a(void) {
    (void)!write(g_out_fd, "a", 1);
}
void say_b(void) {
    (void)!write(g_out_fd, "b", 1);
}
void say_c(void) {
    (void)!write(g_out_fd, "c", 1);
}
void say_executing(void) {
    (void)!write(g_out_fd, kv_atexit_is_executing() ? "E" : "-", 1);
}

// Runs `body` in a child that may exit by itself, and returns what the exit
// handlers wrote to the pipe.
template <typename F>
std::string handler_output(F body) {
    int fds[2];
    if (pipe(fds) != 0) return "<pipe>";
    fflush(nullptr);
    pid_t pid = fork();
    if (pid == 0) {
        close(fds[0]);
        g_out_fd = fds[1];
        body();
        _exit(0);
    }
    close(fds[1]);
    std::string out;
    char buf[64];
    ssize_t n;
    while ((n = read(fds[0], buf, sizeof(buf))) > 0) out.append(buf, static_cast<size_t>(n));
    close(fds[0]);
    waitpid(pid, nullptr, 0);
    return out;
}
}  // namespace

TEST(PortAtexit, HandlersRunInReverseOrderAtKvExit) {
    EXPECT_EQ("cEa", handler_output([] {
                  kv_atexit(say_a);
                  kv_atexit(say_b);
                  kv_atexit(say_executing);
                  kv_atexit(say_c);
                  kv_unatexit(say_b);
                  kv_exit(3);
              }));
}

TEST(PortAtexit, HandlersRunAtNormalExitUnlessDisabled) {
    EXPECT_EQ("ba", handler_output([] {
                  kv_atexit(say_a);
                  kv_atexit(say_b);
                  exit(0);
              }));
    // A plug-in inside a host turns them off.
    EXPECT_EQ("", handler_output([] {
                  kv_atexit(say_a);
                  kv_atexit_disable();
                  exit(0);
              }));
    EXPECT_EQ("a", handler_output([] {
                  kv_atexit(say_a);
                  kv_atexit_disable();
                  kv_atexit_enable();
                  kv_exit(0);
              }));
}

TEST(PortAtexit, BadArguments) {
    EXPECT_NE(KV_OK, kv_atexit(nullptr));
    EXPECT_NE(KV_OK, kv_unatexit(say_c));
    EXPECT_EQ(0, kv_atexit_is_executing());
}

TEST(PortInit, SplitsModuleNameAndFindsInstallation) {
    EXPECT_EQ(0, in_child([] {
                  char app[] = "merlsnap-zovmerl_module_with_a_very_long_name_indeed";
                  char arg0[512];
                  ssize_t n = readlink("/proc/self/exe", arg0, sizeof(arg0) - 1);
                  if (n <= 0) return 1;
                  arg0[n] = '\0';
                  char* argv[] = {arg0, nullptr};
                  _kvinit(app, 1, argv);
                  if (strcmp(kv_get_appname(), "merlsnap") != 0) return 2;
                  if (strlen(kv_get_modname()) != 30) return 3;
                  if (strncmp(kv_get_modname(), "zovmerl_module", 14) != 0) return 4;
                  // The installation is the parent of the binary's directory.
                  std::string exe = arg0;
                  std::string bindir = exe.substr(0, exe.rfind('/'));
                  std::string inst = bindir.substr(0, bindir.rfind('/'));
                  if (inst != kv_get_installdir()) return 5;
                  if (std::string(kv_get_tmpdir()) != inst + "/tmp") return 6;
                  if (std::string(kv_get_cstdir()) != inst + "/cst") return 7;
                  if (std::string(kv_get_bindir()) != bindir) return 8;
                  if (std::string(kv_get_debug_cmdfile()) != inst + "/tmp/kvdbg.tmp") return 9;
                  // A second start-up keeps what the first found.
                  char other[] = "other";
                  _kvinit(other, 1, argv);
                  if (strcmp(kv_get_appname(), "merlsnap") != 0) return 10;
                  uid_t ruid, euid;
                  kv_get_startup_ids(&ruid, &euid, nullptr, nullptr);
                  return ruid == getuid() && euid == geteuid() ? 0 : 11;
              }));
}

void host_handler(int) {}

// A plug-in starts inside a host: the host's signal handlers and locale stay
// as they were, and the module's messages follow the host's message locale.
TEST(PortInit, PluginLeavesHostSignalsAndLocaleAlone) {
    EXPECT_EQ(0, in_child([] {
                  const int sigs[] = {SIGINT, SIGTERM, SIGCHLD, SIGPIPE, SIGHUP, SIGUSR1};
                  struct sigaction sa;
                  memset(&sa, 0, sizeof sa);
                  sa.sa_handler = host_handler;
                  for (int sig : sigs) sigaction(sig, &sa, nullptr);
                  // The environment names another language than the host chose.
                  unsetenv("LC_ALL");
                  unsetenv("LC_MESSAGES");
                  setenv("LANG", "de_DE.UTF-8", 1);
                  if (setlocale(LC_MESSAGES, "C.UTF-8") == nullptr) return 0;  // not installed here
                  char app[] = "vmr";
                  _kvinit(app, 0, nullptr);
                  for (int sig : sigs) {
                      struct sigaction cur;
                      sigaction(sig, nullptr, &cur);
                      if (cur.sa_handler != host_handler) return 1;
                  }
                  if (strcmp(setlocale(LC_CTYPE, nullptr), "C") != 0) return 2;
                  const char* mine = kv_get_my_locale();
                  return mine != nullptr && strcmp(mine, "C.UTF-8") == 0 ? 0 : 3;
              }));
}

// A program of its own takes the environment's locale, which gives the
// conversion of its arguments a codeset.
TEST(PortInit, ProgramTakesEnvironmentLocale) {
    EXPECT_EQ(0, in_child([] {
                  setenv("LC_ALL", "C.UTF-8", 1);
                  if (newlocale(LC_ALL_MASK, "C.UTF-8", nullptr) == nullptr) return 0;
                  char arg0[] = "/usr/bin/prog";
                  char* argv[] = {arg0, nullptr};
                  char app[] = "prog";
                  _kvinit(app, 1, argv);
                  return strcmp(nl_langinfo(CODESET), "UTF-8") == 0 ? 0 : 1;
              }));
}

TEST(PortInit, DebugProcsRaiseTraceForNamedPrograms) {
    EXPECT_EQ(0, in_child([] {
                  // Entries for other programs, empty and malformed ones are ignored;
                  // the module part of the name and the binary's name count too.
                  setenv("VMR_DEBUGPROCS", "other=9, ,=4,zovmerl=3/0x20\tprog", 1);
                  Debug = 0;
                  Debug_mask = 0;
                  char app[] = "vmr-zovmerl";
                  char arg0[] = "/opt/bin/prog";
                  char* argv[] = {arg0, nullptr};
                  _kvinit(app, 1, argv);
                  if (Debug != 3 || Debug_mask != 0x20) return 1;
                  // A level already higher is kept; bits only add.
                  setenv("VMR_DEBUGPROCS", "*=2/0x100,vmr", 1);
                  if (debug_check("vmr") != 1) return 2;
                  if (Debug != 3 || Debug_mask != 0x120) return 3;
                  if (debug_check("nobody") != 1) return 4;  // "*" names everyone
                  setenv("VMR_DEBUGPROCS", "merlsnap=100000000000", 1);
                  if (debug_check("merlsnap") != 1 || Debug != 99) return 5;
                  if (debug_check("other") != 0 || debug_check(nullptr) != 0) return 6;
                  unsetenv("VMR_DEBUGPROCS");
                  return debug_check("merlsnap") == 0 ? 0 : 7;
              }));
}

TEST(PortPath, EveryDirectoryIsKeptAfterFirstUse) {
    EXPECT_EQ(0, in_child([] {
                  char* a = kv_get_resdir();
                  if (a == nullptr || a != kv_get_resdir()) return 1;
                  if (!strstr(a, "/res")) return 2;
                  kv_path_reset_for_test();
                  return kv_get_logsdir() != nullptr ? 0 : 3;
              }));
}

TEST(PortVmrPath, RootFromEnvironmentOrDefault) {
    EXPECT_EQ(0, in_child([] {
                  unsetenv("VMR_DIR_PATH");
                  if (strcmp(find_vmrdir(), VMR_DEFAULT_ROOT) != 0) return 1;
                  if (strcmp(find_vmrtmpdir(), "/vmr/tmp") != 0) return 2;
                  if (strcmp(find_vmrresdir(), "/vmr/res") != 0) return 3;
                  return 0;
              }));
    EXPECT_EQ(0, in_child([] {
                  setenv("VMR_DIR_PATH", "/srv/product/", 1);
                  if (strcmp(find_vmrdir(), "/srv/product/") != 0) return 1;
                  struct {
                      char* (*f)(void);
                      const char* want;
                  } table[] = {
                      {find_vmrrundir, "/srv/product/vmr/run"},
                      {find_vmrtmpdir, "/srv/product/tmp"},
                      {find_vmrdefaulttmpdir, "/srv/product/vmr/tmp"},
                      {find_vmrindexdir, "/srv/product/index"},
                      {find_vmrmmdir, "/srv/product/mm"},
                      {find_vmrrapdir, "/srv/product/rap"},
                      {find_vmrcoresdir, "/srv/product/cores"},
                      {find_vmrdebugdir, "/srv/product/debug"},
                      {find_vmrlockdir, "/srv/product/lock"},
                      {find_vmrsecuredir, "/srv/product/sec"},
                      {find_vmrresdir, "/srv/product/res"},
                      {find_vmrlaresfile, "/srv/product/vmrla.res"},
                      {find_vmrjbresfile, "/srv/product/vmrjb.res"},
                      {find_vmrresfile, "/srv/product/vmr.res"},
                      {find_vmrresdb, "/srv/product/vmrdb"},
                      {find_vmrlaresdb, "/srv/product/vmrladb"},
                      {find_vmrlogsdir, "/srv/product/logs"},
                      {find_vmrlogfile, "/srv/product/daemon.raw"},
                      {find_vmrRendLogFile, "/srv/product/daemon.log"},
                      {find_vmrraplogfile, "/srv/product/rap.log"},
                      {find_vmrappsdir, "/srv/product/apps"},
                      {find_vmrapplogsdir, "/srv/product/applogs"},
                  };
                  int i = 10;
                  for (auto& row : table) {
                      if (strcmp(row.f(), row.want) != 0) return i;
                      ++i;
                  }
                  // Kept: a later change of the variable does not move them.
                  setenv("VMR_DIR_PATH", "/elsewhere", 1);
                  if (strcmp(find_vmrtmpdir(), "/srv/product/tmp") != 0) return 2;
                  return strcmp(find_vmrdir(), "/elsewhere") == 0 ? 0 : 3;
              }));
}

namespace {
void* add_one(void* arg) {
    int* v = static_cast<int*>(arg);
    ++*v;
    return v;
}
}  // namespace

TEST(PortThread, StartJoinAndIdentity) {
    int value = 41;
    KVThread t = kv_thread_new(add_one, &value);
    ASSERT_NE(nullptr, t);
    EXPECT_NE(KV_OK, kv_thread_join(t, nullptr));  // not started yet
    ASSERT_EQ(KV_OK, kv_thread_start(t));
    void* res = nullptr;
    ASSERT_EQ(KV_OK, kv_thread_join(t, &res));
    EXPECT_EQ(&value, res);
    EXPECT_EQ(42, value);
    EXPECT_EQ(KV_OK, kv_thread_tryjoin(t, &res));  // already reaped: same result
    EXPECT_EQ(0, kv_thread_equal(kv_thread_get_id(t), kv_thread_self()));
    EXPECT_EQ(1, kv_thread_equal(kv_thread_self(), kv_thread_self()));
    EXPECT_EQ(KV_OK, kv_thread_destroy(t));
    EXPECT_EQ(nullptr, kv_thread_new(nullptr, nullptr));
}
