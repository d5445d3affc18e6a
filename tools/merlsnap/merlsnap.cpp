// merlsnap: opens the snapshot module the way the backup product's loader
// does and drives it from the command line.
#include <dlfcn.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include <string>
#include <vector>

#include "liblocal/attrlist.h"
#include "storage/ssm/client/StorageSubsystem.h"

namespace {

const char* k_usage =
    "usage: merlsnap [--module PATH] [--frame ADDR]... [--attr NAME=VALUE]...\n"
    "                [--log-level N] COMMAND\n"
    "\n"
    "commands:\n"
    "  info     open the module and show its API version, services and\n"
    "           snapshot technologies\n"
    "\n"
    "options:\n"
    "  --module PATH      the module to load (default: the one built with merlsnap)\n"
    "  --frame ADDR       an array frame address; repeat for several frames\n"
    "  --attr NAME=VALUE  an attribute for the directory service; repeatable\n"
    "  --log-level N      show the module's log lines up to level N (default 5)\n"
    "\n"
    "exit codes: 0 success, 1 the module reported an error, 2 bad usage,\n"
    "            3 the module could not be loaded\n";

struct Options {
    std::string module = MERLSNAP_DEFAULT_MODULE;
    std::vector<std::string> frames;
    std::vector<std::pair<std::string, std::string>> attrs;
    int log_level = 5;
    std::string command;
};

int g_log_level = 5;

void print_log(int level, const char* file, int line, const char* message, void*) {
    if (level > g_log_level) return;
    fprintf(stderr, "  [%d] %s:%d %s\n", level, file, line, message);
}

struct Module {
    void* handle = nullptr;
    SSError* (*instantiate)(StorageSubsystem*&) = nullptr;
    void (*free_object)(SSObject*) = nullptr;
    SSAPIVersion (*api_version)() = nullptr;
    void (*free_attrlist)(attrlist*) = nullptr;
};

bool load_module(const std::string& path, Module& m) {
    m.handle = dlopen(path.c_str(), RTLD_NOW | RTLD_LOCAL);
    if (m.handle == nullptr) {
        fprintf(stderr, "merlsnap: cannot load %s: %s\n", path.c_str(), dlerror());
        return false;
    }
    m.instantiate = reinterpret_cast<SSError* (*)(StorageSubsystem*&)>(dlsym(m.handle, "instantiateSS"));
    m.free_object = reinterpret_cast<void (*)(SSObject*)>(dlsym(m.handle, "freeSSObject"));
    m.api_version = reinterpret_cast<SSAPIVersion (*)()>(dlsym(m.handle, "getSSAPIVersion"));
    m.free_attrlist = reinterpret_cast<void (*)(attrlist*)>(dlsym(m.handle, "freeSSAttrlist"));
    if (!m.instantiate || !m.free_object || !m.api_version || !m.free_attrlist) {
        fprintf(stderr, "merlsnap: %s lacks an entry point of the snapshot interface\n", path.c_str());
        return false;
    }
    return true;
}

// Reports and frees a module error; true when there was one.
bool failed(Module& m, SSError* e, const char* what) {
    if (e == nullptr) return false;
    fprintf(stderr, "merlsnap: %s failed: %s (code %d)\n", what, e->getErrMsg(),
            static_cast<int>(e->getErrCode()));
    m.free_object(e);
    return true;
}

// Appends a value to an attribute of the list, creating it if needed.
void add_value(attrlist** al, const std::string& name, const std::string& value) {
    attrlist* a = attrlist_find(*al, name.c_str());
    vallist* vals = a != nullptr ? vallist_dup(a->values) : nullptr;
    vallist** tail = &vals;
    while (*tail != nullptr) tail = &(*tail)->next;
    *tail = val_new(value.c_str());
    attrlist_setlist(al, name.c_str(), vals);
    vallist_free(vals);
}

attrlist* build_attrs(const Options& o) {
    attrlist* al = nullptr;
    for (const std::string& f : o.frames) add_value(&al, "FRAME_IP", f);
    for (const auto& a : o.attrs) add_value(&al, a.first, a.second);
    return al;
}

int cmd_info(const Options& o) {
    Module m;
    if (!load_module(o.module, m)) return 3;
    SSAPIVersion v = m.api_version();
    printf("module          %s\n", o.module.c_str());
    printf("interface       %d.%d\n", v.m_majorVersion, v.m_minorVersion);

    StorageSubsystem* ss = nullptr;
    if (failed(m, m.instantiate(ss), "instantiateSS")) return 1;
    int rc = 0;
    if (failed(m, ss->init(nullptr, print_log, nullptr), "StorageSubsystem::init")) {
        m.free_object(ss);
        return 1;
    }
    SSAPIVersion sv{};
    ss->getAPIVersion(sv);
    printf("subsystem API   %d.%d\n", sv.m_majorVersion, sv.m_minorVersion);
    SSServiceType* types = nullptr;
    int ntypes = 0;
    if (!failed(m, ss->querySupportedServices(types, ntypes), "querySupportedServices"))
        for (int i = 0; i < ntypes; i++)
            printf("service         %s\n", types[i] == SS_SERV_SNAPSHOT ? "snapshot" : "other");

    SSDirectoryService* ds = nullptr;
    if (failed(m, ss->getDirectoryService(SS_SERV_SNAPSHOT, ds), "getDirectoryService")) {
        rc = 1;
    } else {
        attrlist* attrs = build_attrs(o);
        if (failed(m, ds->init(attrs), "SSDirectoryService::init")) rc = 1;
        attrlist_free(attrs);
        char** subs = nullptr;
        int nsubs = 0;
        if (rc == 0 && !failed(m, ds->querySupportedServiceSubType(subs, nsubs), "querySupportedServiceSubType")) {
            printf("technologies    %d\n", nsubs);
            for (int i = 0; i < nsubs; i++) {
                SSAPIVersion tv{};
                SSStorageStackLevel lvl = SS_LEVEL_FILESYSTEM;
                bool ok = !failed(m, ds->getAPIVersion(subs[i], tv), "getAPIVersion") &&
                          !failed(m, ds->getStorageStackLevel(subs[i], lvl), "getStorageStackLevel");
                if (ok)
                    printf("  %-12s  API %d.%d, works on %s\n", subs[i], tv.m_majorVersion,
                           tv.m_minorVersion, lvl == SS_LEVEL_DISK ? "disks" : "volumes");
            }
        }
        ds->deInit();
        m.free_object(ds);
    }
    ss->deInit();
    m.free_object(ss);
    return rc;
}

bool parse(int argc, char** argv, Options& o) {
    for (int i = 1; i < argc; i++) {
        std::string a = argv[i];
        auto value = [&](std::string& out) {
            if (i + 1 >= argc) return false;
            out = argv[++i];
            return true;
        };
        std::string v;
        if (a == "--help" || a == "-h") {
            o.command = "help";
            return true;
        } else if (a == "--module") {
            if (!value(o.module)) return false;
        } else if (a == "--frame") {
            if (!value(v)) return false;
            o.frames.push_back(v);
        } else if (a == "--attr") {
            if (!value(v)) return false;
            std::string::size_type eq = v.find('=');
            if (eq == std::string::npos || eq == 0) return false;
            o.attrs.emplace_back(v.substr(0, eq), v.substr(eq + 1));
        } else if (a == "--log-level") {
            if (!value(v)) return false;
            o.log_level = atoi(v.c_str());
        } else if (!a.empty() && a[0] == '-') {
            return false;
        } else if (o.command.empty()) {
            o.command = a;
        } else {
            return false;
        }
    }
    return !o.command.empty();
}

}  // namespace

int main(int argc, char** argv) {
    Options o;
    if (!parse(argc, argv, o)) {
        fputs(k_usage, stderr);
        return 2;
    }
    g_log_level = o.log_level;
    if (o.command == "help") {
        fputs(k_usage, stdout);
        return 0;
    }
    if (o.command == "info") return cmd_info(o);
    fprintf(stderr, "merlsnap: unknown command '%s'\n\n%s", o.command.c_str(), k_usage);
    return 2;
}
