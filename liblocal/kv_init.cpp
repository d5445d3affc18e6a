// Start-up of the library and its exit handlers.
#include "liblocal/kv_init.h"

#include <errno.h>
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

void first_time(const char* progname, char* argv0) {
    if (g_appname == nullptr) g_appname = xstrdup(progname);
    if (argv0 != nullptr) kv_set_argv0(argv0);
    // Application and installation directories (the origin is kept by find_origin).
    kv_find_installdir(argv0);
    // Steps that belong to the other areas of the library and are wired there:
    //  - the signal table (regevent_setup), child processes;
    //  - the locales and the named module's locale (init_locales), messages.
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
            first_time(name.c_str(), argv0);
        }
    }
    kv_error_clear_last();
    opterr = 0;
    convert_arguments(argc, argv);
    // The per-program debug settings (debug_check, VMR_DEBUGPROCS) belong to
    // the messages area and are checked there.
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

void kv_atexit_disable(void) { g_disabled = true; }
void kv_atexit_enable(void) { g_disabled = false; }
int kv_atexit_is_executing(void) { return g_executing.load() ? 1 : 0; }
