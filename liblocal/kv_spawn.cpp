// Child processes: start, reap, descriptors, signals, program location.
//
// A child is started with clone(CLONE_VM | CLONE_VFORK) on a small stack of
// its own: the host may be a large process, and fork would copy its page
// tables (tens of milliseconds per gigabyte) and leave it paying
// copy-on-write faults afterwards. Sharing the address space until exec has
// a price: everything the child needs is prepared by the parent first, and
// between the start and the exec the child makes raw system calls only (no
// locks, no allocation, no libc state, no sanitizer interceptors). Signals
// are blocked across the clone so that no handler of the host ever runs on
// the child's side of the shared memory.
#include "liblocal/kv_spawn.h"

#include <dirent.h>
#include <errno.h>
#include <fcntl.h>
#include <grp.h>
#include <limits.h>
#include <locale.h>
#include <pwd.h>
#include <sched.h>
#include <stdarg.h>
#include <stdint.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/mman.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/uio.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <mutex>
#include <string>
#include <unordered_set>
#include <vector>

#include "liblocal/kv_env.h"
#include "liblocal/kv_mem.h"
#include "liblocal/kv_msg.h"
#include "liblocal/kv_path.h"
#include "liblocal/kv_trace.h"

#ifndef SYS_close_range
#define SYS_close_range 436
#endif

// Locale conversion shared with kv_env.cpp.
char* kv_env_convert(const char* in, bool to_locale);

namespace {

// ---------------------------------------------------------------------------
// Trace and messages.

std::atomic<kv_trace_sink_t> g_sink{nullptr};

void vemit(int level, int mask, const char* fmt, va_list ap) {
    kv_trace_sink_t sink = g_sink.load();
    if (sink == nullptr && level >= 0 && !kv_trace_on(level, static_cast<unsigned long>(mask)))
        return;
    char buf[4096];
    vsnprintf(buf, sizeof buf, fmt, ap);
    if (sink != nullptr) {
        sink(level, mask, buf);
    } else if (level >= 0) {
        kv_trace(level, static_cast<unsigned long>(mask), "%s", buf);
    } else {
        fputs(buf, stderr);
    }
}

bool tracing(int level = 1, unsigned long mask = 1) {
    return g_sink.load() != nullptr || kv_trace_on(level, mask);
}

const char* const kLocaleVars[] = {"LANG",          "LC_CTYPE",   "LC_NUMERIC",
                                   "LC_TIME",       "LC_COLLATE", "LC_MONETARY",
                                   "LC_MESSAGES",   "LC_ALL",     "VMR_CATCH_CHILD_STDOUT",
                                   "DMAP_ROOT_PATH"};

// Relocations tried by execpath, in order.
const char* const kRelocations[] = {
    "/../lib/vmr/", "/../../lib/vmr/", "/../../bin/",   "/../../sbin/",    "/../bin/",
    "/../sbin/",    "/../bin/vmr/",    "/../sbin/vmr/", "/../../bin/vmr/", "/../../sbin/vmr/"};

// The name the message layer knows the program by (start-up sets it).
const char* program_name() {
    const char* n = msg_get_program_name();
    if (n == nullptr || *n == '\0') n = program_invocation_short_name;
    return (n && *n) ? n : "unknown";
}

// Lexical canonical form: "//", "/./" and "dir/.." removed. Symbolic links
// are left alone on purpose: the path must stay the one the user gave.
std::string canon(const std::string& path) {
    bool absolute = !path.empty() && path[0] == '/';
    std::vector<std::string> parts;
    size_t i = 0;
    while (i <= path.size()) {
        size_t j = path.find('/', i);
        if (j == std::string::npos) j = path.size();
        std::string part = path.substr(i, j - i);
        if (part.empty() || part == ".") {
        } else if (part == "..") {
            if (!parts.empty() && parts.back() != "..")
                parts.pop_back();
            else if (!absolute)
                parts.push_back(part);
        } else {
            parts.push_back(part);
        }
        i = j + 1;
    }
    std::string out = absolute ? "/" : "";
    for (size_t k = 0; k < parts.size(); ++k) {
        if (k) out += '/';
        out += parts[k];
    }
    if (out.empty()) out = ".";
    return out;
}

// An executable regular file (directories pass access(X_OK) too).
bool is_executable(const std::string& path) {
    struct stat st;
    if (stat(path.c_str(), &st) != 0 || !S_ISREG(st.st_mode)) return false;
    return access(path.c_str(), X_OK) == 0;
}

std::string fullpath2(const std::string& name) {
    if (!name.empty() && name[0] == '/') return canon(name);
    char cwd[PATH_MAX];
    if (getcwd(cwd, sizeof cwd) == nullptr) return canon(name);
    return canon(std::string(cwd) + "/" + name);
}

// Joins arguments into one line for "/bin/sh -c", each in double quotes
// with a backslash before every double quote, backslash, dollar sign and
// back quote, so that the shell sees each argument as it stands.
std::string command_string_quoted(char* const* args) {
    std::string out;
    for (size_t i = 0; args[i] != nullptr; ++i) {
        if (i) out += ' ';
        out += '"';
        for (const char* p = args[i]; *p; ++p) {
            if (*p == '"' || *p == '\\' || *p == '$' || *p == '`') out += '\\';
            out += *p;
        }
        out += '"';
    }
    return out;
}

// ---------------------------------------------------------------------------
// User context.

struct SpawnUserContext {
    char* name;
    char* home;
    uid_t uid;
    gid_t gid;
    gid_t* groups;
    int ngroups;
};

// ---------------------------------------------------------------------------
// The child's side. Everything here is async-signal-safe: raw system calls
// on data the parent laid out, on a stack of its own.

struct ChildPlan {
    const char* path;
    char* const* argv;
    char* const* envp;
    int mode;
    int dup[3];
    bool stdin_given;
    const char* dir;  // chdir target, or null
    bool dir_must;    // a failed chdir ends the child
    const int* keep;  // sorted descriptors >= 3 to keep
    size_t nkeep;
    const char* errprefix;  // "Failed to exec process '<path>': "
    size_t errprefix_len;
    int errfd;
    bool trace_dup2;
    const SpawnUserContext* user;
    int ngroups_max;
    volatile int exec_errno;  // written by the child, read by the parent
};

#define CHILD_FN __attribute__((no_sanitize("address", "undefined"), noinline))

CHILD_FN void child_exit(int status) {
    for (;;) syscall(SYS_exit_group, status);
}

CHILD_FN size_t child_strlen(const char* s) {
    size_t n = 0;
    while (s[n]) ++n;
    return n;
}

CHILD_FN bool in_keep(const int* keep, size_t nkeep, int fd) {
    for (size_t i = 0; i < nkeep; ++i)
        if (keep[i] == fd) return true;
    return false;
}

// Closes [lo, hi] with close_range; when the kernel lacks it, closes what
// /proc/self/fd lists in that range; as the last resort a loop.
CHILD_FN void close_span(unsigned lo, unsigned hi, const int* keep, size_t nkeep) {
    if (lo > hi) return;
    if (syscall(SYS_close_range, lo, hi, 0) == 0) return;
    int dfd = static_cast<int>(
        syscall(SYS_openat, AT_FDCWD, "/proc/self/fd", O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    if (dfd >= 0) {
        char buf[4096];
        bool again = true;
        while (again) {
            again = false;
            syscall(SYS_lseek, dfd, 0, SEEK_SET);
            for (;;) {
                long n = syscall(SYS_getdents64, dfd, buf, sizeof buf);
                if (n <= 0) break;
                for (long off = 0; off < n;) {
                    struct linux_dirent64 {
                        uint64_t d_ino;
                        int64_t d_off;
                        unsigned short d_reclen;
                        unsigned char d_type;
                        char d_name[];
                    };
                    auto* d = reinterpret_cast<linux_dirent64*>(buf + off);
                    off += d->d_reclen;
                    unsigned fd = 0;
                    bool num = d->d_name[0] != '\0';
                    for (const char* p = d->d_name; *p; ++p) {
                        if (*p < '0' || *p > '9') {
                            num = false;
                            break;
                        }
                        fd = fd * 10 + static_cast<unsigned>(*p - '0');
                    }
                    if (!num || static_cast<int>(fd) == dfd || fd < lo || fd > hi) continue;
                    if (in_keep(keep, nkeep, static_cast<int>(fd))) continue;
                    syscall(SYS_close, fd);
                    again = true;
                }
            }
        }
        syscall(SYS_close, dfd);
        return;
    }
    if (hi > 65535) hi = 65535;
    for (unsigned fd = lo; fd <= hi; ++fd) syscall(SYS_close, fd);
}

CHILD_FN void close_all_but(const int* keep, size_t nkeep) {
    unsigned lo = 3;
    for (size_t i = 0; i < nkeep; ++i) {
        unsigned k = static_cast<unsigned>(keep[i]);
        if (k < lo) continue;
        if (k > lo) close_span(lo, k - 1, keep, nkeep);
        // A kept descriptor must survive the exec even if the host marked it.
        syscall(SYS_fcntl, k, F_SETFD, 0);
        lo = k + 1;
    }
    close_span(lo, ~0U, keep, nkeep);
}

CHILD_FN void open_std_files() {
    for (;;) {
        long fd = syscall(SYS_openat, AT_FDCWD, "/dev/null", O_RDWR);
        if (fd < 0) return;
        if (fd > 2) {
            syscall(SYS_close, fd);
            return;
        }
    }
}

CHILD_FN void write_all(int fd, const char* s, size_t n) {
    while (n > 0) {
        long w = syscall(SYS_write, fd, s, n);
        if (w <= 0) return;
        s += w;
        n -= static_cast<size_t>(w);
    }
}

CHILD_FN int child_main(void* arg) {
    ChildPlan* p = static_cast<ChildPlan*>(arg);

    // No handler of the host may run here: the memory is still the host's.
    // Handlers become the default action while every signal is blocked;
    // ignored signals stay ignored, as an exec would keep them.
    struct sigaction dfl;
    memset(&dfl, 0, sizeof dfl);
    dfl.sa_handler = SIG_DFL;
    for (int sig = 1; sig < NSIG; ++sig) {
        struct sigaction cur;
        if (sigaction(sig, nullptr, &cur) != 0) continue;
        bool reset = sig == SIGCHLD || sig == SIGINT || sig == SIGTERM ||
                     (cur.sa_handler != SIG_DFL && cur.sa_handler != SIG_IGN);
        if (reset) sigaction(sig, &dfl, nullptr);
    }

    if (p->user != nullptr) {
        // Raw calls: libc's set*id would signal every thread of the host.
        syscall(SYS_setgid, p->user->gid);
        int n = p->user->ngroups;
        if (n > p->ngroups_max) n = p->ngroups_max;
        syscall(SYS_setgroups, n, p->user->groups);
        syscall(SYS_setuid, p->user->uid);
    }

    if (p->mode & SPAWN_DEVNULL) {
        long nfd = syscall(SYS_openat, AT_FDCWD, "/dev/null", O_RDWR);
        if (nfd >= 0) {
            for (int s = 0; s < 3; ++s)
                if (nfd != s) syscall(SYS_dup3, nfd, s, 0);
            if (nfd > 2) syscall(SYS_close, nfd);
        }
    }

    for (int s = 0; s < 3; ++s) {
        int src = p->dup[s];
        if (src < 0) continue;
        if (src == s) {
            syscall(SYS_fcntl, s, F_SETFD, 0);
            continue;
        }
        if (syscall(SYS_dup3, src, s, 0) < 0) {
            if (p->trace_dup2) {
                static const char msg[] = "dup2 failed in child\n";
                write_all(2, msg, sizeof msg - 1);
            }
            child_exit(SPAWN_EXEC_FAILED);
        }
    }

    if (p->dir != nullptr) {
        if (syscall(SYS_chdir, p->dir) != 0 && p->dir_must) child_exit(SPAWN_EXEC_FAILED);
    }

    uint64_t none = 0;
    syscall(SYS_rt_sigprocmask, SIG_SETMASK, &none, nullptr, sizeof none);

    if (p->mode & SPAWN_SETSID) {
        syscall(SYS_setsid);
        if (!p->stdin_given) {
            syscall(SYS_close, 0);
            open_std_files();
        }
    }

    close_all_but(p->keep, p->nkeep);

    syscall(SYS_execve, p->path, p->argv, p->envp);
    int err = errno;
    p->exec_errno = err;
    if (p->errfd >= 0) {
        const char* etext = strerrordesc_np(err);
        if (etext == nullptr) etext = "Unknown error";
        struct iovec iov[3];
        iov[0].iov_base = const_cast<char*>(p->errprefix);
        iov[0].iov_len = p->errprefix_len;
        iov[1].iov_base = const_cast<char*>(etext);
        iov[1].iov_len = child_strlen(etext);
        iov[2].iov_base = const_cast<char*>("\n");
        iov[2].iov_len = 1;
        syscall(SYS_writev, p->errfd, iov, 3);
    }
    child_exit(SPAWN_EXEC_FAILED);
    return SPAWN_EXEC_FAILED;
}

// The child's stack: one per thread, kept for the next spawn (the parent is
// suspended until the child has exec'd or exited, so it is free again once
// clone returns).
class ChildStack {
public:
    static constexpr size_t kSize = 64 * 1024;
    ~ChildStack() {
        if (base_ != nullptr) munmap(base_, kSize);
    }
    void* top() {
        if (base_ == nullptr) {
            void* m = mmap(nullptr, kSize, PROT_READ | PROT_WRITE,
                           MAP_PRIVATE | MAP_ANONYMOUS | MAP_STACK | MAP_NORESERVE, -1, 0);
            if (m == MAP_FAILED) return nullptr;
            // A guard page at the bottom, so an overflow faults instead of
            // writing over the host's memory.
            mprotect(m, 4096, PROT_NONE);
            base_ = m;
        }
        return static_cast<char*>(base_) + kSize;
    }

private:
    void* base_ = nullptr;
};

thread_local ChildStack t_stack;

// Starts the child; the pid, or -1 with errno.
pid_t start_child(ChildPlan* plan) {
    void* top = t_stack.top();
    if (top == nullptr) return -1;
    uint64_t all = ~0ULL, old = 0;
    syscall(SYS_rt_sigprocmask, SIG_SETMASK, &all, &old, sizeof all);
#if defined(__SANITIZE_THREAD__)
    // The thread checker keeps its own books on every thread's memory, and a
    // child that runs in the parent's memory corrupts them; under the checker
    // a child gets its own copy.
    (void)top;
    pid_t pid = fork();
    if (pid == 0) _exit(child_main(plan));
#else
    pid_t pid = clone(child_main, top, CLONE_VM | CLONE_VFORK | SIGCHLD, plan);
#endif
    int err = errno;
    syscall(SYS_rt_sigprocmask, SIG_SETMASK, &old, nullptr, sizeof old);
    errno = err;
    return pid;
}

// Owned strings of one spawn, released together.
struct Arena {
    std::vector<char*> strings;
    ~Arena() {
        for (char* s : strings) free(s);
    }
    char* own(char* s) {
        if (s != nullptr) strings.push_back(s);
        return s;
    }
    char* dup(const std::string& s) { return own(xstrdup(s.c_str())); }
};

std::string env_name(const char* entry) {
    const char* eq = strchr(entry, '=');
    return eq ? std::string(entry, static_cast<size_t>(eq - entry)) : std::string(entry);
}

// The child's PATH entry (name compared without regard to case), or null.
const char* env_path(const std::vector<char*>& env) {
    for (char* e : env)
        if (e != nullptr && strncasecmp(e, "PATH=", 5) == 0) return e + 5;
    return nullptr;
}

std::mutex g_origin_mutex;
char* g_origin = nullptr;

}  // namespace

// ---------------------------------------------------------------------------

kv_trace_sink_t kv_spawn_set_trace(kv_trace_sink_t sink) {
    return g_sink.exchange(sink);
}

void kv_spawn_trace(int level, int mask, const char* fmt, ...) {
    if (!tracing(level, static_cast<unsigned long>(mask))) return;
    va_list ap;
    va_start(ap, fmt);
    vemit(level, mask, fmt, ap);
    va_end(ap);
}

void kv_spawn_report(int msgid, int severity, const char* fmt, ...) {
    (void)msgid;
    va_list ap;
    va_start(ap, fmt);
    vemit(-1, severity, fmt, ap);
    va_end(ap);
}

pid_t spawn(int mode, char** argv, struct pollfd* exfds, nfds_t nfds, int* dupfdset, char** envp) {
    return spawn_as_user(mode, argv, exfds, nfds, dupfdset, envp, nullptr, nullptr, 1);
}

pid_t spawn_as_user(int mode, char** argv, struct pollfd* exfds, nfds_t nfds, int* dupfdset,
                    char** envp, void* usercontext, char* cwd, int utf8_args) {
    if (argv == nullptr || argv[0] == nullptr) {
        errno = EINVAL;
        return -1;
    }
    Arena arena;
    const SpawnUserContext* user = static_cast<const SpawnUserContext*>(usercontext);

    // 1-3. The environment: additions at the front, then envp, then the saved
    // assignments. A name is given once: the first entry wins, as getenv
    // would read it, and no shell in between sees a different value.
    std::vector<char*> front;
    std::vector<char*> env;
    front.push_back(arena.dup(std::string("VMR_MAST=") + program_name()));
    if (char* rp = arena.own(kv_env_rendered_path_dup()))
        front.push_back(arena.dup(std::string("VMR_RENDERED_PATH=") + rp));
    if (user != nullptr) {
        std::string home = user->home ? user->home : "/";
        if (home.size() > 1536) home.resize(1536);
        std::string name = user->name ? user->name : "nobody";
        if (name.size() > 20) name.resize(20);
        front.push_back(arena.dup("HOME=" + home));
        front.push_back(arena.dup("USER=" + name));
    }
    std::unordered_set<std::string> caller_names;
    for (char** e = envp; e && *e; ++e) caller_names.insert(env_name(*e));
    size_t locale_budget = 2304;
    for (const char* var : kLocaleVars) {
        if (caller_names.count(var)) continue;  // the caller's choice stands
        const char* v = kv_getenv(var);
        if (v == nullptr) continue;
        std::string entry = std::string(var) + "=" + v;
        if (entry.size() + 1 > locale_budget) continue;
        locale_budget -= entry.size() + 1;
        front.push_back(arena.dup(entry));
    }
    // addenvp order: the last added stands first.
    std::reverse(front.begin(), front.end());
    char** saved = nullptr;
    if (!(mode & SPAWN_ENVP_ONLY)) saved = kv_env_saved_copy();
    {
        std::unordered_set<std::string> seen;
        auto add = [&](char* e) {
            if (e == nullptr) return;
            if (seen.insert(env_name(e)).second) env.push_back(e);
        };
        for (char* e : front) add(e);
        for (char** e = envp; e && *e; ++e) add(*e);
        for (char** e = saved; e && *e; ++e) add(*e);
    }
    env.push_back(nullptr);

    // 4. Descriptors of dupfdset are struck out of exfds.
    std::vector<int> keep;
    for (nfds_t i = 0; exfds != nullptr && i < nfds; ++i) {
        if (dupfdset != nullptr &&
            (exfds[i].fd == dupfdset[0] || exfds[i].fd == dupfdset[1] ||
             exfds[i].fd == dupfdset[2]) &&
            exfds[i].fd >= 0)
            exfds[i].fd = -1;
        if (exfds[i].fd >= 3) keep.push_back(exfds[i].fd);
    }
    std::sort(keep.begin(), keep.end());
    keep.erase(std::unique(keep.begin(), keep.end()), keep.end());

    // 7. Arguments, converted to the locale's form when asked.
    std::vector<char*> args;
    for (char** a = argv; *a; ++a) {
        if (utf8_args) {
            args.push_back(*a);
        } else {
            char* c = arena.own(kv_env_convert(*a, true));
            args.push_back(c ? c : *a);
        }
    }

    // 8. Locate the command.
    std::string located;
    {
        char buf[12288];
        char* r = execpath(args[0], buf, sizeof buf);
        located = r ? r : args[0];
        if (located.empty() || located[0] != '/') {
            if (const char* path = env_path(env)) {
                const char* p = path;
                while (true) {
                    const char* colon = strchr(p, ':');
                    std::string dir =
                        colon ? std::string(p, static_cast<size_t>(colon - p)) : std::string(p);
                    if (!dir.empty()) {
                        std::string cand = dir + "/" + located;
                        if (is_executable(cand)) {
                            located = cand;
                            break;
                        }
                    }
                    if (colon == nullptr) break;
                    p = colon + 1;
                }
            }
        }
    }
    char* path = arena.dup(located);
    args[0] = path;
    args.push_back(nullptr);

    // 9. Through the shell.
    std::vector<char*> shargs;
    if (mode & SPAWN_SHELL) {
        shargs.push_back(const_cast<char*>("/bin/sh"));
        shargs.push_back(const_cast<char*>("-c"));
        shargs.push_back(arena.dup(command_string_quoted(args.data())));
        shargs.push_back(nullptr);
        path = shargs[0];
    }

    // 10. Working directory.
    const char* dir = cwd;
    bool dir_must = cwd != nullptr;
    if (mode & SPAWN_CORESDIR) {
        const char* cores = kv_get_coresdir();
        std::string base = cores ? cores : "/tmp";
        const char* prog = strrchr(args[0], '/');
        prog = prog ? prog + 1 : args[0];
        char buf[12288];
        snprintf(buf, sizeof buf, "%s%c%s%c", base.c_str(), '/', prog, '/');
        prepare_coresdir(buf);
        dir = arena.dup(buf);
        dir_must = false;
    }

    // 5. The failure text, rendered now: nothing can be rendered in the child.
    const char* rendered = render_string(89752, nullptr, "Failed to exec process");
    std::string errprefix =
        std::string(rendered ? rendered : "Failed to exec process") + " '" + path + "': ";

    ChildPlan plan;
    memset(static_cast<void*>(&plan), 0, sizeof plan);
    plan.path = path;
    plan.argv = (mode & SPAWN_SHELL) ? shargs.data() : args.data();
    plan.envp = env.data();
    plan.mode = mode;
    for (int s = 0; s < 3; ++s) plan.dup[s] = dupfdset ? dupfdset[s] : -1;
    plan.stdin_given = dupfdset != nullptr && dupfdset[0] >= 0;
    plan.dir = dir;
    plan.dir_must = dir_must;
    plan.keep = keep.data();
    plan.nkeep = keep.size();
    plan.errprefix = errprefix.c_str();
    plan.errprefix_len = errprefix.size();
    plan.errfd = fileno(stderr);  // 6. the standard error of the stream
    plan.trace_dup2 = tracing(2, 0);
    plan.user = user;
    if (user != nullptr) {
        // sysconf reads /proc for this one: once per process is enough.
        static const long gmax = sysconf(_SC_NGROUPS_MAX);
        plan.ngroups_max = gmax > 0 ? static_cast<int>(gmax) : 65536;
    }
    plan.exec_errno = 0;

    // 11. Start.
    pid_t pid = start_child(&plan);
    int err = errno;
    kv_env_vec_free(saved);
    if (pid < 0) {
        kv_spawn_trace(1, 1, "Failed to fork process: %s\n", strerror(err));
        errno = err;
        return -1;
    }
    kv_spawn_trace(1, 1, "%s started, pid %d\n", path, static_cast<int>(pid));
    if (!(mode & SPAWN_WAIT)) {
        errno = err;
        return pid;
    }

    kv_spawn_trace(1, 1, "%s waiting, pid %d\n", path, static_cast<int>(pid));
    int status = 0;
    pid_t r = waitchild(pid, &status, 0);
    if (r != pid) return pid;
    if (WIFEXITED(status) && WEXITSTATUS(status) != 0) {
        kv_spawn_trace(1, 1, "%s terminated abnormally, pid %d, exit status %d\n", path,
                       static_cast<int>(pid), WEXITSTATUS(status));
        return -1;
    }
    if (WIFSIGNALED(status)) {
        kv_spawn_trace(1, 1, "%s (pid %1d) terminated due to signal %d\n", path,
                       static_cast<int>(pid), WTERMSIG(status));
        return -1;
    }
    return pid;
}

pid_t waitchild(int pid, int* stat_loc, int options) {
    pid_t r;
    do {
        r = waitpid(pid, stat_loc, options);
    } while (r < 0 && errno == EINTR);
    if (r > 0) {
        kv_spawn_trace(1, 1, "waitchild reaped, pid %d\n", static_cast<int>(r));
    } else if (r < 0 && pid > 0) {
        int e = errno;
        kv_spawn_trace(1, 1, "waitchild error on reap, pid %d: %s(%d)\n", pid, strerror(e), e);
        errno = e;
    }
    return r;
}

int kv_kill(pid_t pid, int signo) {
    return kill(pid, signo);
}

int spawn_openfd(int fd) {
    return fd;
}

int spawn_closefd(int fd) {
    return close(fd);
}

void closefdset(fd_set* cfdset) {
    if (cfdset == nullptr) return;
    int top = getdtablesize();
    if (top > FD_SETSIZE) top = FD_SETSIZE;
    for (int fd = top - 1; fd >= 1; --fd)
        if (FD_ISSET(fd, cfdset)) close(fd);
}

pid_t spawnthread(thread_proc_func_t proc, void* param, kv_fd_set* parentfdset,
                  kv_fd_set* childfdset) {
    pid_t pid = fork();
    if (pid < 0) return -1;
    if (pid == 0) {
        closefdset(childfdset);
        setlocale(LC_ALL, "");
        if (proc != nullptr) proc(param);
        // Not exit: the host's exit handlers belong to the host.
        _exit(0);
    }
    closefdset(parentfdset);
    kv_spawn_trace(1, 1, "process started, pid %d\n", static_cast<int>(pid));
    return pid;
}

const char* signal_to_str(int sig) {
    switch (sig) {
    case SIGHUP: return "SIGHUP";
    case SIGINT: return "SIGINT";
    case SIGILL: return "SIGILL";
    case SIGABRT: return "SIGABRT";
    case SIGBUS: return "SIGBUS";
    case SIGFPE: return "SIGFPE";
    case SIGKILL: return "SIGKILL";
    case SIGUSR1: return "SIGUSR1";
    case SIGSEGV: return "SIGSEGV";
    case SIGUSR2: return "SIGUSR2";
    case SIGPIPE: return "SIGPIPE";
    case SIGTERM: return "SIGTERM";
    case SIGCHLD: return "SIGCHLD";
    default: break;
    }
    thread_local char buf[64];
    const char* r = render_string(81474, nullptr, "Signal %d", ARG_INT, inttostr(sig));
    snprintf(buf, sizeof buf, "%s", r ? r : "Signal");
    return buf;
}

const char* exception_to_str(int) {
    return "EXCEPTION_UNKNOWN";
}

int exception_to_signal(int) {
    return 6;
}

// ---------------------------------------------------------------------------
// Program location.

char* execpath(char* cmd, char* buf, size_t bufsz) {
    if (cmd == nullptr || *cmd == '\0') {
        kv_spawn_trace(1, 1, "Failed to find command execution path due to missing command string");
        return cmd;
    }
    const char* origin = find_origin(nullptr);
    if (origin == nullptr || buf == nullptr || strlen(origin) + strlen(cmd) + 2 > bufsz) return cmd;
    auto try_path = [&](const std::string& cand) {
        std::string c = canon(cand);
        if (c.size() + 1 > bufsz || !is_executable(c)) return false;
        memcpy(buf, c.c_str(), c.size() + 1);
        return true;
    };
    std::string first = cmd[0] == '/' ? std::string(cmd) : std::string(origin) + "/" + cmd;
    if (try_path(first)) return buf;
    for (const char* rel : kRelocations)
        if (try_path(std::string(origin) + rel + cmd)) return buf;
    kv_spawn_trace(1, 1, "using `%s' for execpath,\n", cmd);
    snprintf(buf, bufsz, "%s", cmd);
    return cmd;
}

char* find_origin(char* argv0) {
    std::lock_guard<std::mutex> lock(g_origin_mutex);
    if (g_origin != nullptr || argv0 == nullptr || *argv0 == '\0') return g_origin;
    if (strlen(argv0) > 12287) exit(111);
    std::string name = argv0;
    if (name.find('/') == std::string::npos) {
        const char* pv = getenv("PATH");
        std::string search = std::string(pv ? pv : "") + ":.";
        size_t i = 0;
        while (i <= search.size()) {
            size_t j = search.find(':', i);
            if (j == std::string::npos) j = search.size();
            std::string dir = search.substr(i, j - i);
            if (!dir.empty() && is_executable(dir + "/" + name)) {
                name = dir + "/" + name;
                break;
            }
            i = j + 1;
        }
    }
    std::string full = fullpath2(name);
    struct stat st;
    if (stat(full.c_str(), &st) == 0 && S_ISREG(st.st_mode) && st.st_nlink > 1) {
        kv_spawn_report(
            84738, 5,
            "Binary '%s' is resolved to hardlinks. Therefore it is unable to be executed.\n",
            full.c_str());
        exit(1);
    }
    size_t slash = full.rfind('/');
    std::string dir = slash == 0 ? "/" : full.substr(0, slash);
    if (const char* p = getenv("VMR_PRINT_ORIGIN")) {
        kv_spawn_trace(1, 1, "origin for `%s' is `%s'\n", argv0, dir.c_str());
        if (*p == 'Q' || *p == 'q') exit(0);
    }
    g_origin = xstrdup(dir.c_str());
    return g_origin;
}

void kv_spawn_origin_reset_for_test(void) {
    std::lock_guard<std::mutex> lock(g_origin_mutex);
    free(g_origin);
    g_origin = nullptr;
}

// ---------------------------------------------------------------------------
// Descriptors.

void kv_closenstdfiles(struct pollfd* exfds, nfds_t nfds) {
    // Sorted without allocation: async-signal-safe callers use this too.
    int keep[1024];
    size_t n = 0;
    for (nfds_t i = 0; exfds != nullptr && i < nfds && n < 1024; ++i) {
        int fd = exfds[i].fd;
        if (fd < 3) continue;
        size_t k = n++;
        while (k > 0 && keep[k - 1] > fd) {
            keep[k] = keep[k - 1];
            --k;
        }
        keep[k] = fd;
    }
    close_all_but(keep, n);
}

void kv_openstdfiles(void) {
    open_std_files();
}

// ---------------------------------------------------------------------------
// User context.

void* build_spawn_user_context(const char* username) {
    auto* ctx = static_cast<SpawnUserContext*>(xcalloc(1, sizeof(SpawnUserContext)));
    std::vector<char> buf(16384);
    struct passwd pw, *res = nullptr;
    const char* want = (username && *username) ? username : "nobody";
    while (getpwnam_r(want, &pw, buf.data(), buf.size(), &res) == ERANGE)
        buf.resize(buf.size() * 2);
    if (res == nullptr) {
        want = "nobody";
        while (getpwnam_r(want, &pw, buf.data(), buf.size(), &res) == ERANGE)
            buf.resize(buf.size() * 2);
    }
    if (res != nullptr) {
        ctx->name = xstrdup(res->pw_name);
        ctx->home = xstrdup(res->pw_dir ? res->pw_dir : "/");
        ctx->uid = res->pw_uid;
        ctx->gid = res->pw_gid;
    } else {
        ctx->name = xstrdup("nobody");
        ctx->home = xstrdup("/");
        ctx->uid = 65534;
        ctx->gid = 65534;
    }
    int ng = 64;
    std::vector<gid_t> groups(static_cast<size_t>(ng));
    int rc = getgrouplist(ctx->name, ctx->gid, groups.data(), &ng);
    if (rc < 0 && ng > 64) {
        groups.resize(static_cast<size_t>(ng));
        rc = getgrouplist(ctx->name, ctx->gid, groups.data(), &ng);
    }
    if (rc < 0) {
        kv_spawn_trace(1, 1,
                       "Could not get group information when creating the spawn user context: %s\n",
                       strerror(errno));
        ng = 0;
    }
    if (ng > 0) {
        ctx->groups = static_cast<gid_t*>(xmalloc(sizeof(gid_t) * static_cast<size_t>(ng)));
        memcpy(ctx->groups, groups.data(), sizeof(gid_t) * static_cast<size_t>(ng));
        ctx->ngroups = ng;
    }
    return ctx;
}

void* duplicate_spawn_user_context(void* usercontext) {
    if (usercontext == nullptr) return nullptr;
    auto* src = static_cast<SpawnUserContext*>(usercontext);
    auto* ctx = static_cast<SpawnUserContext*>(xcalloc(1, sizeof(SpawnUserContext)));
    *ctx = *src;
    ctx->name = xstrdup(src->name);
    ctx->home = xstrdup(src->home);
    if (src->ngroups > 0 && src->groups != nullptr) {
        size_t sz = sizeof(gid_t) * static_cast<size_t>(src->ngroups);
        ctx->groups = static_cast<gid_t*>(xmalloc(sz));
        memcpy(ctx->groups, src->groups, sz);
    } else {
        ctx->groups = nullptr;
        ctx->ngroups = 0;
    }
    return ctx;
}

void free_spawn_user_context(void* usercontext) {
    if (usercontext == nullptr) return;
    auto* ctx = static_cast<SpawnUserContext*>(usercontext);
    free(ctx->name);
    free(ctx->home);
    free(ctx->groups);
    free(ctx);
}

int set_effective_user(void* usercontext) {
    if (usercontext == nullptr) {
        errno = EINVAL;
        return -1;
    }
    auto* ctx = static_cast<SpawnUserContext*>(usercontext);
    uid_t euid = geteuid();
    gid_t egid = getegid();
    if (euid != 0 && ctx->uid != 0 && ctx->uid != euid) {
        kv_spawn_trace(1, 1, "Attempted to change effective user from non-root to non-root.\n");
        errno = EPERM;
        return -1;
    }
    // Groups first, while we may still change them; undone in reverse.
    if (setegid(ctx->gid) != 0) return -1;
    if (seteuid(ctx->uid) != 0) {
        int e = errno;
        setegid(egid);
        errno = e;
        return -1;
    }
    return 0;
}

int prepare_coresdir(const char* dir) {
    if (dir == nullptr || *dir == '\0') {
        errno = EINVAL;
        return -1;
    }
    std::string p = dir;
    for (size_t i = 1; i <= p.size(); ++i) {
        if (i == p.size() || p[i] == '/') {
            std::string part = p.substr(0, i);
            if (mkdir(part.c_str(), 0755) != 0 && errno != EEXIST) return -1;
        }
    }
    return 0;
}

// ---------------------------------------------------------------------------
// Impersonation pipes: nothing to impersonate with on this platform.

int get_impersonation_pipe(void) {
    errno = EINVAL;
    return 0;
}
int client_open_impersonation_pipe(void) {
    errno = EINVAL;
    return 0;
}
int impersonate_user_from_pipe(int) {
    errno = EINVAL;
    return 0;
}
int get_usercontext_from_pipe(int, void**) {
    errno = EINVAL;
    return 0;
}
int pipe_is_open(int) {
    return 0;
}
void destroy_impersonation_pipe(int) {}
void revert_to_self(void) {}
int pipe_for_select(int fds[2]) {
    return pipe(fds);
}
