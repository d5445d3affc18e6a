// Paths of the installation.
#include "liblocal/kv_path.h"

#include <limits.h>
#include <stdlib.h>
#include <string.h>
#include <unistd.h>

#include <string>

#include "liblocal/kv_mem.h"
#include "liblocal/kv_spawn.h"
#include "liblocal/kv_thread.h"

namespace {
KVOnce g_once = KV_ONCE_INIT;
KVMutex Installdir_mutex = nullptr;
char* g_installdir = nullptr;
char* g_argv0 = nullptr;

// Kept paths, one slot per word.
enum Slot {
    K_TMP,
    K_SEC,
    K_RES,
    K_RAP,
    K_MOD,
    K_MM,
    K_LOGS,
    K_LIB,
    K_INDEX,
    K_GLS,
    K_ETC,
    K_DEBUG,
    K_CORES,
    K_BIN,
    K_APPLOGS,
    K_CST,
    K_NSLOTS
};
char* g_kept[K_NSLOTS];

void init_mutex(void) {
    Installdir_mutex = kv_mutex_new();
}

void lock(void) {
    kv_once(&g_once, init_mutex);
    kv_mutex_lock(Installdir_mutex);
}
void unlock(void) {
    kv_mutex_unlock(Installdir_mutex);
}

// The running binary's directory. A plug-in has no argv0 of its own, so the
// kernel's name of the executable stands in for it; that guess is kept here
// and not handed to find_origin, whose answer other areas rely on as given.
std::string origin(char* argv0) {
    char* o = find_origin(argv0);
    if (o != nullptr) return o;
    char exe[PATH_MAX];
    ssize_t n = readlink("/proc/self/exe", exe, sizeof(exe) - 1);
    if (n <= 0) return std::string();
    exe[n] = '\0';
    char* slash = strrchr(exe, '/');
    if (slash == nullptr) return std::string();
    if (slash == exe) return "/";
    *slash = '\0';
    return exe;
}

std::string parent_of(const std::string& dir) {
    size_t slash = dir.find_last_of('/');
    if (slash == std::string::npos) return ".";
    if (slash == 0) return "/";
    return dir.substr(0, slash);
}
}  // namespace

char* kv_find_installdir(char* argv0) {
    lock();
    char* r = g_installdir;
    std::string arg = argv0 != nullptr ? argv0 : (g_argv0 != nullptr ? g_argv0 : "");
    unlock();
    if (r != nullptr) return r;
    // Found without the lock: the origin lookup takes a lock of its own.
    std::string o = origin(arg.empty() ? nullptr : &arg[0]);
    lock();
    if (g_installdir == nullptr && !o.empty()) g_installdir = xstrdup(parent_of(o).c_str());
    r = g_installdir;
    unlock();
    return r;
}

char* kv_get_installdir(void) {
    return kv_find_installdir(nullptr);
}

void kv_set_argv0(const char* argv0) {
    lock();
    free(g_argv0);
    g_argv0 = xstrdup(argv0);
    unlock();
}

char* kv_get_argv0(void) {
    lock();
    char* r = g_argv0;
    unlock();
    return r;
}

char* kv_getset_dir(char** cache, const char* word) {
    if (cache == nullptr || word == nullptr) return nullptr;
    lock();
    char* r = *cache;
    unlock();
    if (r != nullptr) return r;
    char* inst = kv_get_installdir();
    std::string path = std::string(inst != nullptr ? inst : KV_DEFAULT_INSTALLDIR) + "/" + word;
    lock();
    if (*cache == nullptr) *cache = xstrdup(path.c_str());
    r = *cache;
    unlock();
    return r;
}

char* kv_get_tmpdir(void) {
    return kv_getset_dir(&g_kept[K_TMP], "tmp");
}
char* kv_get_securedir(void) {
    return kv_getset_dir(&g_kept[K_SEC], "sec");
}
char* kv_get_resdir(void) {
    return kv_getset_dir(&g_kept[K_RES], "res");
}
char* kv_get_rapdir(void) {
    return kv_getset_dir(&g_kept[K_RAP], "rap");
}
char* kv_get_moddir(void) {
    return kv_getset_dir(&g_kept[K_MOD], "mod");
}
char* kv_get_mmdir(void) {
    return kv_getset_dir(&g_kept[K_MM], "mm");
}
char* kv_get_logsdir(void) {
    return kv_getset_dir(&g_kept[K_LOGS], "logs");
}
char* kv_get_libdir(void) {
    return kv_getset_dir(&g_kept[K_LIB], "lib");
}
char* kv_get_indexdir(void) {
    return kv_getset_dir(&g_kept[K_INDEX], "index");
}
char* kv_get_glsdir(void) {
    return kv_getset_dir(&g_kept[K_GLS], "gls");
}
char* kv_get_etcdir(void) {
    return kv_getset_dir(&g_kept[K_ETC], "etc");
}
char* kv_get_debugdir(void) {
    return kv_getset_dir(&g_kept[K_DEBUG], "debug");
}
char* kv_get_coresdir(void) {
    return kv_getset_dir(&g_kept[K_CORES], "cores");
}
char* kv_get_applogsdir(void) {
    return kv_getset_dir(&g_kept[K_APPLOGS], "applogs");
}

// "cst" alone has a fixed default, which the default installation gives.
char* kv_get_cstdir(void) {
    return kv_getset_dir(&g_kept[K_CST], "cst");
}

// Programs live in the binary's own folder, whatever the installation's shape.
char* kv_get_bindir(void) {
    lock();
    char* r = g_kept[K_BIN];
    unlock();
    if (r != nullptr) return r;
    lock();
    std::string arg = g_argv0 != nullptr ? g_argv0 : "";
    unlock();
    std::string o = origin(arg.empty() ? nullptr : &arg[0]);
    if (o.empty()) return kv_getset_dir(&g_kept[K_BIN], "bin");
    lock();
    if (g_kept[K_BIN] == nullptr) g_kept[K_BIN] = xstrdup(o.c_str());
    r = g_kept[K_BIN];
    unlock();
    return r;
}

void kv_path_reset_for_test(void) {
    lock();
    free(g_installdir);
    g_installdir = nullptr;
    for (char*& slot : g_kept) {
        free(slot);
        slot = nullptr;
    }
    unlock();
}
