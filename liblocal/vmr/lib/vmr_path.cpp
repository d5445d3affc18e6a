// The product's directory table.
#include "liblocal/vmr/lib/vmr_path.h"

#include <stdlib.h>

#include <mutex>
#include <set>
#include <string>

#include "liblocal/kv_mem.h"

namespace {
std::mutex g_mutex;
// Every root handed out, so that a text a caller holds stays valid.
std::set<std::string>* g_roots = new std::set<std::string>;

// Joins the root and the parts with "/" the first time, and keeps it.
char* kept(char** slot, const char* part1, const char* part2 = nullptr) {
    std::lock_guard<std::mutex> lock(g_mutex);
    if (*slot == nullptr) {
        const char* env = getenv("VMR_DIR_PATH");
        std::string p = env != nullptr && *env != '\0' ? env : VMR_DEFAULT_ROOT;
        while (p.size() > 1 && p.back() == '/') p.pop_back();
        if (p == "/") p.clear();
        p += "/";
        p += part1;
        if (part2 != nullptr) {
            p += "/";
            p += part2;
        }
        *slot = xstrdup(p.c_str());
    }
    return *slot;
}

char* g_run;
char* g_tmp;
char* g_deftmp;
char* g_index;
char* g_mm;
char* g_rap;
char* g_cores;
char* g_debug;
char* g_lock;
char* g_sec;
char* g_res;
char* g_lares;
char* g_jbres;
char* g_vmrres;
char* g_resdb;
char* g_laresdb;
char* g_logs;
char* g_logfile;
char* g_rendlog;
char* g_raplog;
char* g_apps;
char* g_applogs;
}  // namespace

char* find_vmrdir(void) {
    const char* env = getenv("VMR_DIR_PATH");
    const char* root = env != nullptr && *env != '\0' ? env : VMR_DEFAULT_ROOT;
    std::lock_guard<std::mutex> lock(g_mutex);
    return const_cast<char*>(g_roots->insert(root).first->c_str());
}

char* find_vmrrundir(void) {
    return kept(&g_run, "vmr", "run");
}
char* find_vmrtmpdir(void) {
    return kept(&g_tmp, "tmp");
}
char* find_vmrdefaulttmpdir(void) {
    return kept(&g_deftmp, "vmr", "tmp");
}
char* find_vmrindexdir(void) {
    return kept(&g_index, "index");
}
char* find_vmrmmdir(void) {
    return kept(&g_mm, "mm");
}
char* find_vmrrapdir(void) {
    return kept(&g_rap, "rap");
}
char* find_vmrcoresdir(void) {
    return kept(&g_cores, "cores");
}
char* find_vmrdebugdir(void) {
    return kept(&g_debug, "debug");
}
char* find_vmrlockdir(void) {
    return kept(&g_lock, "lock");
}
char* find_vmrsecuredir(void) {
    return kept(&g_sec, "sec");
}
char* find_vmrresdir(void) {
    return kept(&g_res, "res");
}
char* find_vmrlaresfile(void) {
    return kept(&g_lares, "vmrla.res");
}
char* find_vmrjbresfile(void) {
    return kept(&g_jbres, "vmrjb.res");
}
char* find_vmrresfile(void) {
    return kept(&g_vmrres, "vmr.res");
}
char* find_vmrresdb(void) {
    return kept(&g_resdb, "vmrdb");
}
char* find_vmrlaresdb(void) {
    return kept(&g_laresdb, "vmrladb");
}
char* find_vmrlogsdir(void) {
    return kept(&g_logs, "logs");
}
char* find_vmrlogfile(void) {
    return kept(&g_logfile, "daemon.raw");
}
char* find_vmrRendLogFile(void) {
    return kept(&g_rendlog, "daemon.log");
}
char* find_vmrraplogfile(void) {
    return kept(&g_raplog, "rap.log");
}
char* find_vmrappsdir(void) {
    return kept(&g_apps, "apps");
}
char* find_vmrapplogsdir(void) {
    return kept(&g_applogs, "applogs");
}
