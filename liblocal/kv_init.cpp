// Start-up of the library and its exit handlers.
#include "liblocal/kv_init.h"

#include <errno.h>
#include <locale.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <unistd.h>

#include <atomic>
#include <mutex>
#include <string>
#include <vector>

#include "liblocal/kv_env.h"
#include "liblocal/kv_error.h"
#include "liblocal/kv_mem.h"
#include "liblocal/kv_msg.h"
#include "liblocal/kv_path.h"
#include "liblocal/kv_spawn.h"
#include "liblocal/kv_trace.h"
#include "liblocal/kv_utf8.h"

namespace {
std::mutex g_init_mutex;
bool g_init_done = false;
char* g_appname = nullptr;
char* g_modname = nullptr;
char* g_debug_cmdfile = nullptr;
uid_t g_ruid, g_euid;
gid_t g_rgid, g_egid;

// The management console keeps its debug command file beside its binary.
const char k_console_program[] = "vmrconsole";
const size_t k_modname_max = 30;

const char* base_name(const char* path) {
    const char* slash = strrchr(path, '/');
    return slash != nullptr ? slash + 1 : path;
}

// A set-id program runs its work as the user who started it.
void set_nonprivileged(void) {
    g_ruid = getuid();
    g_euid = geteuid();
    g_rgid = getgid();
    g_egid = getegid();
    // Asked for by name, so it is written whatever the trace level.
    if (getenv("VMR_PRINT_UIDS") != nullptr)
        fprintf(stderr, "ruid %d euid %d rgid %d egid %d\n", static_cast<int>(g_ruid),
                static_cast<int>(g_euid), static_cast<int>(g_rgid), static_cast<int>(g_egid));
    if (g_egid != g_rgid && setegid(g_rgid) != 0) kv_error_set_errno(errno);
    if (g_euid != g_ruid && seteuid(g_ruid) != 0) kv_error_set_errno(errno);
}

void first_time(const char* progname, char* argv0, bool own_process) {
    if (g_appname == nullptr) g_appname = xstrdup(progname);
    if (argv0 != nullptr) kv_set_argv0(argv0);
    // Application and installation directories (the origin is kept by find_origin).
    kv_find_installdir(argv0);
    // No signal table is set up and no handler installed: the library is
    // loaded into hosts whose signal handling is theirs alone, the names
    // that traces need come from signal_to_str's fixed table, and a child's
    // signals are reset in the child, after the fork, by the spawner.
    init_locales(own_process ? 1 : 0);
    // The thread library needs no state of its own here: every area makes
    // its keys and locks on first use through kv_once.
    // There is no crypto toolkit in this build whose library path could be set.
    set_nonprivileged();
    std::string dir;
    if (strcmp(progname, k_console_program) == 0) {
        char* bin = kv_get_bindir();
        dir = bin != nullptr ? bin : ".";
    } else {
        dir = kv_get_tmpdir();
    }
    g_debug_cmdfile = xstrdup((dir + "/kvdbg.tmp").c_str());
}

// Arguments in the locale's form become UTF-8 in place; the converted texts
// live for the process, as argv does.
void convert_arguments(int argc, char** argv) {
    if (argv == nullptr || getenv("VMR_MAST") != nullptr) return;
    for (int i = 0; i < argc && argv[i] != nullptr; ++i) {
        char* conv = kv_syscalls_mbs_to_utf8s(argv[i]);
        if (conv != argv[i]) argv[i] = conv;
    }
}

// --- exit handlers ---
std::mutex g_exit_mutex;
std::vector<void (*)(void)>* g_handlers = nullptr;
bool g_registered = false;
std::atomic<bool> g_disabled{false};
std::atomic<bool> g_executing{false};

void run_handlers(void) {
    if (g_disabled.load()) return;
    g_executing = true;
    for (;;) {
        void (*f)(void) = nullptr;
        {
            std::lock_guard<std::mutex> lock(g_exit_mutex);
            if (g_handlers == nullptr || g_handlers->empty()) break;
            f = g_handlers->back();
            g_handlers->pop_back();
        }
        // Run without the lock: a handler may register or remove others.
        f();
    }
    g_executing = false;
}
}  // namespace

void _kvinit(char* app_name, int argc, char** argv) {
    // The spawner works from this copy of the environment.
    kv_env_init_from_environ();
    char* argv0 = argc > 0 && argv != nullptr ? argv[0] : nullptr;
    if (argv0 != nullptr) msg_set_program_name(argv0);

    std::string name = app_name != nullptr ? app_name : (argv0 != nullptr ? base_name(argv0) : "");
    std::string module;
    size_t dash = name.find('-');
    if (app_name != nullptr && dash != std::string::npos) {
        module = name.substr(dash + 1, k_modname_max);
        name.erase(dash);
    }
    {
        std::lock_guard<std::mutex> lock(g_init_mutex);
        if (!module.empty() && g_modname == nullptr) g_modname = xstrdup(module.c_str());
        if (!g_init_done) {
            g_init_done = true;
            // A caller without arguments is a plug-in inside someone else's
            // process; one with them is a program of its own.
            first_time(name.c_str(), argv0, argc > 0 && argv != nullptr);
            // The C library's option parsing belongs to the program; a
            // plug-in inside someone else's process leaves it alone.
            if (argc > 0 && argv != nullptr) opterr = 0;
        }
    }
    kv_error_clear_last();
    convert_arguments(argc, argv);
    debug_check(name.c_str());
    if (!module.empty()) debug_check(module.c_str());
    if (argv0 != nullptr) debug_check(base_name(argv0));
}

void init_locales(int own_process) {
    // The process locale is the host's: only a program of our own takes the
    // environment's, which also gives argument conversion its codeset.
    if (own_process) setlocale(LC_ALL, "");
    // The module speaks in the language the process chose for its messages;
    // where none was chosen ("C"), the catalogue keeps following the
    // environment by itself.
    const char* cur = setlocale(LC_MESSAGES, nullptr);
    if (cur != nullptr && strcmp(cur, "C") != 0 && strcmp(cur, "POSIX") != 0) kv_set_my_locale(cur);
}

int debug_check(const char* progname) {
    const char* list = getenv("VMR_DEBUGPROCS");
    if (list == nullptr || progname == nullptr || *progname == '\0') return 0;
    const std::string text = list;
    int hit = 0;
    size_t pos = 0;
    while (pos < text.size()) {
        size_t end = text.find_first_of(", \t", pos);
        if (end == std::string::npos) end = text.size();
        const std::string entry = text.substr(pos, end - pos);
        pos = end + 1;
        const size_t eq = entry.find('=');
        const std::string who = entry.substr(0, eq);
        if (who != "*" && who != progname) continue;
        long level = 1;
        unsigned long mask = 0;
        if (eq != std::string::npos) {
            const char* p = entry.c_str() + eq + 1;
            char* rest = nullptr;
            level = strtol(p, &rest, 10);
            if (*rest == '/') mask = strtoul(rest + 1, nullptr, 0);
        }
        if (level > 99) level = 99;
        // Settings only add: a level the host set already is never lowered.
        if (level > Debug) Debug = static_cast<int>(level);
        Debug_mask |= mask;
        hit = 1;
    }
    return hit;
}

const char* kv_get_appname(void) {
    std::lock_guard<std::mutex> lock(g_init_mutex);
    return g_appname;
}

const char* kv_get_modname(void) {
    std::lock_guard<std::mutex> lock(g_init_mutex);
    return g_modname;
}

void kv_get_startup_ids(uid_t* ruid, uid_t* euid, gid_t* rgid, gid_t* egid) {
    std::lock_guard<std::mutex> lock(g_init_mutex);
    if (ruid != nullptr) *ruid = g_ruid;
    if (euid != nullptr) *euid = g_euid;
    if (rgid != nullptr) *rgid = g_rgid;
    if (egid != nullptr) *egid = g_egid;
}

const char* kv_get_debug_cmdfile(void) {
    std::lock_guard<std::mutex> lock(g_init_mutex);
    return g_debug_cmdfile;
}

KVError kv_atexit(void (*func)(void)) {
    if (func == nullptr) return kv_error_set_errno(EINVAL);
    std::lock_guard<std::mutex> lock(g_exit_mutex);
    if (g_handlers == nullptr) g_handlers = new std::vector<void (*)(void)>;
    g_handlers->push_back(func);
    if (!g_registered) {
        g_registered = true;
        atexit(run_handlers);
    }
    return KV_OK;
}

KVError kv_unatexit(void (*func)(void)) {
    std::lock_guard<std::mutex> lock(g_exit_mutex);
    if (func != nullptr && g_handlers != nullptr) {
        for (auto it = g_handlers->rbegin(); it != g_handlers->rend(); ++it) {
            if (*it == func) {
                g_handlers->erase(std::next(it).base());
                return KV_OK;
            }
        }
    }
    return kv_error_set_errno(func == nullptr ? EINVAL : ENOENT);
}

void kv_exit(int status) {
    run_handlers();
    exit(status);
}

void kv_atexit_disable(void) {
    g_disabled = true;
}
void kv_atexit_enable(void) {
    g_disabled = false;
}
int kv_atexit_is_executing(void) {
    return g_executing.load() ? 1 : 0;
}
