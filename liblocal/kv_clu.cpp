// Cluster awareness: the probe of the two back ends, the virtual hosts
// active here and the owners of paths. Kvclus_mutex guards the state; it is
// taken after Myname_mutex and never held while the host-name code runs.
#include "liblocal/kv_clu.h"

#include <errno.h>
#include <fcntl.h>
#include <limits.h>
#include <mntent.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <strings.h>
#include <sys/file.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <string>
#include <utility>
#include <vector>

#include "liblocal/attrlist.h"
#include "liblocal/kv_env.h"
#include "liblocal/kv_host.h"
#include "liblocal/kv_mem.h"
#include "liblocal/kv_spawn.h"
#include "liblocal/kv_thread.h"
#include "liblocal/kv_trace.h"

int Clu_cluster_type = 0;

namespace {

bool Clu_init_done;
KVMutex Kvclus_mutex;
KVOnce Kvclus_once = KV_ONCE_INIT;
thread_local bool t_clu_held;

struct PathHost {
    std::string path, host, addr;
};

// LC state.
std::vector<PathHost> Lc_fspath_vhost_listp;
std::vector<std::string> Lc_local_vhost_listp;
int Lc_use_local_vhost_list;

// NATIVE state.
struct NativeMap {
    std::string path, vhost, package, addr;
    bool active, rw;
};
std::vector<NativeMap> Hp_map;
std::vector<std::string> Hp_packages;
std::vector<std::pair<std::string, std::string>> Hp_local_vhosts;  // name, address

std::vector<PathHost> Pathl;  // clu_pathl_* list
std::string Clu_name;         // the cluster's own name, when the back end told it
size_t Vhost_cursor;

std::string P_kcmap = "/usr/sbin/kcmap";
std::string P_cache = "/tmp/kcmap.out";
std::string P_conf = "/opt/cmcluster/conf";
std::string P_cmview = "/usr/sbin";
std::string P_mtab = "/etc/mtab";

void clu_once(void) {
    Kvclus_mutex = kv_mutex_new();
}

struct CluLock {
    CluLock() {
        kv_once(&Kvclus_once, clu_once);
        kv_mutex_lock(Kvclus_mutex);
        t_clu_held = true;
    }
    ~CluLock() {
        t_clu_held = false;
        kv_mutex_unlock(Kvclus_mutex);
    }
};

// Runs a tool through the spawner, without a shell, and returns its
// standard output; standard error goes to /dev/null as the tools' own
// command lines asked. The child is always reaped; a failure gives false.
bool run_tool(const std::vector<std::string>& argv, std::string* out) {
    int fds[2];
    if (pipe2(fds, O_CLOEXEC) != 0) return false;
    int devnull = open("/dev/null", O_RDWR | O_CLOEXEC);
    if (devnull < 0) {
        close(fds[0]);
        close(fds[1]);
        return false;
    }
    std::vector<char*> av;
    for (const std::string& a : argv) av.push_back(const_cast<char*>(a.c_str()));
    av.push_back(nullptr);
    int dupfdset[3] = {devnull, fds[1], devnull};
    pid_t pid = spawn(SPAWN_ASYNC, av.data(), nullptr, 0, dupfdset, nullptr);
    close(fds[1]);
    close(devnull);
    if (pid < 0) {
        close(fds[0]);
        kv_trace(5, 0x40, "Error popen'ing buffer %s: %s\n", argv[0].c_str(), strerror(errno));
        return false;
    }
    char buf[4096];
    ssize_t n;
    while ((n = read(fds[0], buf, sizeof buf)) != 0) {
        if (n < 0) {
            if (errno == EINTR) continue;
            break;
        }
        out->append(buf, (size_t)n);
    }
    close(fds[0]);
    int status = 0;
    if (waitchild(pid, &status, 0) != pid) return false;
    return WIFEXITED(status) && WEXITSTATUS(status) == 0;
}

std::string trim(const std::string& s) {
    size_t b = s.find_first_not_of(" \t\r\n");
    if (b == std::string::npos) return "";
    size_t e = s.find_last_not_of(" \t\r\n");
    return s.substr(b, e - b + 1);
}

std::vector<std::string> split_lines(const std::string& text, size_t line_size) {
    std::vector<std::string> lines;
    size_t p = 0;
    while (p < text.size()) {
        size_t nl = text.find('\n', p);
        if (nl == std::string::npos) nl = text.size();
        lines.push_back(text.substr(p, std::min(nl - p, line_size)));
        p = nl + 1;
    }
    return lines;
}

// --- LC back end ----------------------------------------------------------------

bool Lc_active;

void parse_kcmap(const std::string& text) {
    size_t line_size = 1024;
    if (const char* v = getenv("VMR_KCMAP_LINE_SIZE")) {
        long n = strtol(v, nullptr, 10);
        if (n > 0 && n < 1 << 20) line_size = (size_t)n;
    }
    std::string host, addr;
    for (const std::string& line : split_lines(text, line_size)) {
        size_t colon = line.find(':');
        if (colon == std::string::npos) continue;
        std::string key = trim(line.substr(0, colon));
        std::string val = trim(line.substr(colon + 1));
        if (val == "ignore") continue;
        if (key == "clu_name") {
            Clu_name = val;
        } else if (key == "clu_type") {
            const char* want = getenv("VMR_KC_TYPE");
            Lc_active = want == nullptr || strcasecmp(want, val.c_str()) == 0;
        } else if (key == "hostname") {
            host = val;
            addr.clear();
        } else if (key == "address") {
            addr = val;
        } else if (key == "local") {
            Lc_use_local_vhost_list = 1;
            if (!host.empty() && (strcasecmp(val.c_str(), "yes") == 0 ||
                                  strcasecmp(val.c_str(), "true") == 0 || val == "1"))
                Lc_local_vhost_listp.push_back(host);
        } else if (key == "owned paths") {
            size_t p = 0;
            while (p < val.size()) {
                size_t e = val.find_first_of(" ,\t", p);
                if (e == std::string::npos) e = val.size();
                std::string path = val.substr(p, e - p);
                if (!path.empty() && !host.empty()) {
                    char full[PATH_MAX];
                    const char* r = realpath(path.c_str(), full);
                    Lc_fspath_vhost_listp.push_back({r != nullptr ? full : path, host, addr});
                }
                p = e + 1;
            }
        }
    }
}

// Writes the tool's output to the cache file under an exclusive lock.
void clu_build_cache_lc(const std::string& text) {
    int fd = open(P_cache.c_str(), O_WRONLY | O_CREAT | O_CLOEXEC, 0644);
    if (fd < 0) {
        kv_trace(5, 0x40, "Error opening cache file %s for write: %s\n", P_cache.c_str(),
                 strerror(errno));
        return;
    }
    if (flock(fd, LOCK_EX) != 0) {
        kv_trace(5, 0x40, "Error locking kcmap cache file: %s\n", strerror(errno));
        close(fd);
        return;
    }
    if (ftruncate(fd, 0) == 0) {
        size_t off = 0;
        while (off < text.size()) {
            ssize_t n = write(fd, text.data() + off, text.size() - off);
            if (n <= 0) break;
            off += (size_t)n;
        }
    }
    flock(fd, LOCK_UN);
    close(fd);
}

void clu_init_lc(void) {
    Lc_active = false;
    if (access(P_kcmap.c_str(), X_OK) != 0) {
        kv_trace(5, 0x40, "No access to file %s: %s \n", P_kcmap.c_str(), strerror(errno));
        return;
    }
    std::string text;
    int fd = open(P_cache.c_str(), O_RDONLY | O_CLOEXEC);
    if (fd >= 0 && flock(fd, LOCK_SH) == 0) {
        kv_trace(5, 0x40, "Locked kcmap cache file for read\n");
        char buf[4096];
        ssize_t n;
        while ((n = read(fd, buf, sizeof buf)) > 0) text.append(buf, (size_t)n);
        flock(fd, LOCK_UN);
    }
    if (fd >= 0) close(fd);
    if (text.empty()) {
        kv_trace(5, 0x40, "no cache, calling kcmap\n");
        if (!run_tool({P_kcmap}, &text)) return;
        clu_build_cache_lc(text);
    }
    parse_kcmap(text);
}

bool clu_is_localvirthost_lc(const char* name) {
    if (name == nullptr || *name == '\0') return false;
    const char* inst = clu_get_vmrinstname();
    if (inst != nullptr && clu_hosts_matchbyname(name, inst, nullptr)) return true;
    if (Lc_use_local_vhost_list) {
        for (const std::string& h : Lc_local_vhost_listp)
            if (clu_hosts_matchbyname(name, h.c_str(), nullptr)) return true;
        return false;
    }
    for (const PathHost& p : Lc_fspath_vhost_listp)
        if (clu_hosts_matchbyname(name, p.host.c_str(), nullptr) ||
            (!p.addr.empty() && p.addr == name))
            return true;
    return false;
}

// --- NATIVE back end -------------------------------------------------------------

char Hp_delimiter;

bool read_delimiter(void) {
    std::string f = P_conf + "/.vmr_cluster";
    FILE* fp = fopen(f.c_str(), "re");
    if (fp == nullptr) return false;
    char line[256];
    bool found = false;
    while (fgets(line, sizeof line, fp) != nullptr) {
        if (strncmp(line, "VMR_CLUSTER_DELIMITER=", 22) == 0) {
            Hp_delimiter = line[22];
            found = true;
        }
    }
    fclose(fp);
    return found;
}

std::string short_node(void) {
    char host[256] = "";
    if (gethostname(host, sizeof host) != 0) return "";
    host[sizeof host - 1] = '\0';
    char* dot = strchr(host, '.');
    if (dot != nullptr) *dot = '\0';
    return host;
}

bool mounted(const std::string& path) {
    if (getenv("VMR_MCSG_DISABLE_MNTPT_CHECK") != nullptr) return true;
    FILE* fp = fopen(P_mtab.c_str(), "re");
    if (fp == nullptr) return false;
    char line[4096];
    bool hit = false;
    while (!hit && fgets(line, sizeof line, fp) != nullptr) {
        char dev[2048], dir[2048];
        if (sscanf(line, "%2047s %2047s", dev, dir) == 2 && path == dir) hit = true;
    }
    fclose(fp);
    return hit;
}

// Packages: "NAME STATUS STATE AUTO_RUN NODE" rows; a package running on this
// node makes its addresses and file systems local. Its configuration file
// holds "ip_address" and "fs_directory" lines.
void get_cmap_hp(const std::string& node) {
    std::string out;
    if (!run_tool({P_cmview + "/cmviewcl", "-l", "package"}, &out)) return;
    for (const std::string& line : split_lines(out, 4096)) {
        char pkg[256], status[64], state[64], autorun[64], pnode[256];
        if (sscanf(line.c_str(), "%255s %63s %63s %63s %255s", pkg, status, state, autorun,
                   pnode) != 5)
            continue;
        if (strcmp(pkg, "PACKAGE") == 0) continue;
        Hp_packages.push_back(pkg);
        bool active = strcasecmp(status, "up") == 0 && strcasecmp(pnode, node.c_str()) == 0;
        std::string conf = P_conf + "/" + pkg + "/" + pkg + ".conf";
        FILE* fp = fopen(conf.c_str(), "re");
        std::string addr;
        std::vector<std::string> paths;
        if (fp != nullptr) {
            char cl[4096];
            while (fgets(cl, sizeof cl, fp) != nullptr) {
                char k[256], v[2048];
                if (sscanf(cl, "%255s %2047s", k, v) != 2) continue;
                if (strcmp(k, "ip_address") == 0) addr = v;
                if (strcmp(k, "fs_directory") == 0) paths.push_back(v);
            }
            fclose(fp);
        }
        for (const std::string& p : paths)
            Hp_map.push_back({p, pkg, pkg, addr, active && mounted(p), true});
        if (active) Hp_local_vhosts.push_back({pkg, addr});
    }
}

bool clu_is_cluster_host_hp(void) {
    if (!read_delimiter()) return false;  // not configured for us: no query
    std::string node = short_node();
    std::string out;
    if (!run_tool({P_cmview + "/cmviewcl", "-l", "node", "-n", node}, &out)) return false;
    bool member = false;
    bool cluster_row = false;
    for (const std::string& line : split_lines(out, 4096)) {
        char n[256], status[64];
        // "CLUSTER STATUS" heads the row with the cluster's name.
        if (sscanf(line.c_str(), "%255s", n) == 1) {
            if (cluster_row) Clu_name = n;
            cluster_row = strcmp(n, "CLUSTER") == 0;
        }
        if (sscanf(line.c_str(), "%255s %63s", n, status) == 2 &&
            strcasecmp(n, node.c_str()) == 0 && strcasecmp(status, "up") == 0)
            member = true;
    }
    if (member) get_cmap_hp(node);
    return member;
}

bool clu_is_localvirthost_hp(const char* name) {
    if (name == nullptr || *name == '\0') return false;
    for (const auto& v : Hp_local_vhosts)
        if (clu_hosts_matchbyname(name, v.first.c_str(), nullptr) ||
            (!v.second.empty() && v.second == name))
            return true;
    return false;
}

void clear_state(void) {
    Lc_fspath_vhost_listp.clear();
    Lc_local_vhost_listp.clear();
    Lc_use_local_vhost_list = 0;
    Hp_map.clear();
    Hp_packages.clear();
    Hp_local_vhosts.clear();
    Vhost_cursor = 0;
    Clu_name.clear();
}

// REQUIRES: Kvclus_mutex held.
void clu_init_locked(void) {
    Clu_cluster_type = 0;
    Clu_init_done = true;
    clear_state();
    const char* no = getenv("NO_CLU_QUERY");
    if (no != nullptr && strcasecmp(no, "TRUE") == 0) return;
    clu_init_lc();
    if (Lc_active) {
        Clu_cluster_type = 2;
        return;
    }
    clear_state();
    if (clu_is_cluster_host_hp()) {
        Clu_cluster_type = 1;
        return;
    }
    clear_state();
    // Children of this process need not probe again.
    if (no == nullptr) add_to_environment("NO_CLU_QUERY", "TRUE", 0);
}

void ensure_init_locked(void) {
    if (!Clu_init_done) clu_init_locked();
}

bool path_prefix(const std::string& prefix, const char* path) {
    size_t n = prefix.size();
    if (strncmp(prefix.c_str(), path, n) != 0) return false;
    return path[n] == '\0' || path[n] == '/' || (n > 0 && prefix[n - 1] == '/');
}

// The host owning the longest prefix of `path`: the save tool's list
// first when `with_pathl`, then the back ends' maps. REQUIRES: the lock.
const std::string* owner_locked(const char* path, bool with_pathl) {
    const std::string* best = nullptr;
    size_t best_len = 0;
    auto consider = [&](const std::string& p, const std::string& h) {
        if (path_prefix(p, path) && (best == nullptr || p.size() > best_len)) {
            best = &h;
            best_len = p.size();
        }
    };
    if (with_pathl)
        for (const PathHost& e : Pathl) consider(e.path, e.host);
    for (const PathHost& e : Lc_fspath_vhost_listp) consider(e.path, e.host);
    for (const NativeMap& e : Hp_map) consider(e.path, e.vhost);
    return best;
}

bool cluster_on_locked(void) {
    return Clu_cluster_type == 1 || Clu_cluster_type == 2;
}

bool pathl_has(const std::string& path, const std::string& host) {
    for (const PathHost& e : Pathl)
        if (e.path == path && e.host == host) return true;
    return false;
}

// Walks the mount table from entry `skip` on; `fn` returns true to stop.
// Returns the number of entries read.
template <typename Fn>
int each_mount(int skip, Fn fn) {
    FILE* fp = setmntent(P_mtab.c_str(), "re");
    if (fp == nullptr) return 0;
    struct mntent m;
    char buf[4096];
    int line = 0;
    while (getmntent_r(fp, &m, buf, sizeof buf) != nullptr) {
        if (line++ < skip) continue;
        if (fn(m)) break;
    }
    endmntent(fp);
    return line;
}

bool is_cfs_type(const char* t) {
    static const char* const kShared[] = {"gfs", "gfs2", "ocfs2", "gpfs", "cfs"};
    for (const char* k : kShared)
        if (strcmp(t, k) == 0) return true;
    return false;
}

}  // namespace

void clu_init(void) {
    CluLock lock;
    clu_init_locked();
}

int clu_is_cluster_host(void) {
    CluLock lock;
    ensure_init_locked();
    return Clu_cluster_type == 1 || Clu_cluster_type == 2;
}

int clu_is_localvirthost(const char* hostname) {
    CluLock lock;
    ensure_init_locked();
    switch (Clu_cluster_type) {
    case 2: return clu_is_localvirthost_lc(hostname) ? 1 : 0;
    case 1: return clu_is_localvirthost_hp(hostname) ? 1 : 0;
    default: return 0;  // none, and -99
    }
}

char* clu_get_local_vhost_list(int rewind_list) {
    CluLock lock;
    ensure_init_locked();
    if (rewind_list) Vhost_cursor = 0;
    if (Clu_cluster_type == 2 && Vhost_cursor < Lc_local_vhost_listp.size())
        return const_cast<char*>(Lc_local_vhost_listp[Vhost_cursor++].c_str());
    if (Clu_cluster_type == 1 && Vhost_cursor < Hp_local_vhosts.size())
        return const_cast<char*>(Hp_local_vhosts[Vhost_cursor++].first.c_str());
    return nullptr;
}

int clu_hosts_matchbyname(const char* host1, const char* host2, similar_func_t similar_func) {
    if (host1 == nullptr || host2 == nullptr || *host1 == '\0' || *host2 == '\0') return 0;
    if (host1 == host2) return 1;
    const char* d1 = strchr(host1, '.');
    const char* d2 = strchr(host2, '.');
    if ((d1 == nullptr) != (d2 == nullptr)) {
        // One name is qualified: compare the host parts only.
        size_t n1 = d1 != nullptr ? (size_t)(d1 - host1) : strlen(host1);
        size_t n2 = d2 != nullptr ? (size_t)(d2 - host2) : strlen(host2);
        if (n1 == n2 && strncasecmp(host1, host2, n1) == 0) return 1;
    } else if (strcasecmp(host1, host2) == 0) {
        return 1;
    }
    return similar_func != nullptr ? similar_func(host1, host2) : 0;
}

int clu_hostname_cmp(const char* host1, const char* host2) {
    // By DNS, so never with Kvclus_mutex held (lock order).
    return samehost(host1, host2);
}

void clu_pathl_addpath(const char* path, const char* host) {
    if (path == nullptr || host == nullptr) return;
    CluLock lock;
    Pathl.push_back({path, host, ""});
}

void clu_pathl_free(void) {
    CluLock lock;
    Pathl.clear();
}

char* clu_pathl_gethost(const char* path, char* cluhost, size_t cluhostlen) {
    if (path == nullptr || cluhost == nullptr || cluhostlen == 0) return nullptr;
    CluLock lock;
    ensure_init_locked();
    const std::string* best = owner_locked(path, true);
    if (best == nullptr) return nullptr;
    snprintf(cluhost, cluhostlen, "%s", best->c_str());
    return cluhost;
}

int clu_path_owner_ignore(int v) {
    (void)v;
    static int answer = -1;
    CluLock lock;
    if (answer < 0) {
        char exe[PATH_MAX];
        ssize_t n = readlink("/proc/self/exe", exe, sizeof exe - 1);
        answer = 0;
        if (n > 0) {
            exe[n] = '\0';
            char* slash = strrchr(exe, '/');
            if (slash != nullptr) {
                std::string f = std::string(exe, (size_t)(slash - exe)) + "/pathownerignore";
                answer = access(f.c_str(), F_OK) == 0 ? 1 : 0;
            }
        }
    }
    return answer;
}

int clu_is_cluster_mode(char* app_name, char* app_dir) {
    (void)app_name;
    if (app_dir == nullptr) return 0;
    std::string f = std::string(app_dir) + "/clustersvr";
    return access(f.c_str(), F_OK) == 0 ? 1 : 0;
}

int clu_lock_held(void) {
    return t_clu_held ? 1 : 0;
}

void clu_set_paths_for_test(const clu_paths* p) {
    CluLock lock;
    P_kcmap = p != nullptr && p->kcmap != nullptr ? p->kcmap : "/usr/sbin/kcmap";
    P_cache = p != nullptr && p->kcmap_cache != nullptr ? p->kcmap_cache : "/tmp/kcmap.out";
    P_conf = p != nullptr && p->conf_dir != nullptr ? p->conf_dir : "/opt/cmcluster/conf";
    P_cmview = p != nullptr && p->cmview_dir != nullptr ? p->cmview_dir : "/usr/sbin";
    P_mtab = p != nullptr && p->mtab != nullptr ? p->mtab : "/etc/mtab";
}

void clu_reset_for_test(void) {
    CluLock lock;
    Clu_init_done = false;
    Clu_cluster_type = 0;
    clear_state();
}

char* clu_pathl_normalize(const char* path, char* out, size_t outlen) {
    if (path == nullptr || path[0] != '/' || out == nullptr || outlen == 0) return nullptr;
    std::vector<std::string> parts;
    const char* p = path;
    while (*p != '\0') {
        while (*p == '/') p++;
        const char* e = p;
        while (*e != '\0' && *e != '/') e++;
        std::string c(p, (size_t)(e - p));
        if (c == "..") {
            if (!parts.empty()) parts.pop_back();
        } else if (!c.empty() && c != ".") {
            parts.push_back(c);
        }
        p = e;
    }
    std::string r;
    for (const std::string& c : parts) r += "/" + c;
    if (r.empty()) r = "/";
    if (r.size() >= outlen) return nullptr;
    memcpy(out, r.c_str(), r.size() + 1);
    return out;
}

int clu_pathl_finalize(void) {
    CluLock lock;
    std::vector<PathHost> done;
    for (const PathHost& e : Pathl) {
        char norm[PATH_MAX];
        if (clu_pathl_normalize(e.path.c_str(), norm, sizeof norm) == nullptr) continue;
        bool dup = false;
        for (const PathHost& d : done)
            if (d.path == norm && d.host == e.host) dup = true;
        if (!dup) done.push_back({norm, e.host, e.addr});
    }
    // Longest first, so that a reader stopping at its first prefix hit has
    // the most specific owner; stable keeps the order of equal lengths.
    std::stable_sort(done.begin(), done.end(), [](const PathHost& a, const PathHost& b) {
        return a.path.size() > b.path.size();
    });
    Pathl.swap(done);
    return (int)Pathl.size();
}

int clu_pathl_hostpath_match(const char* host, const char* path) {
    if (host == nullptr || path == nullptr || *host == '\0') return 0;
    CluLock lock;
    ensure_init_locked();
    const std::string* owner = owner_locked(path, true);
    return owner != nullptr && clu_hosts_matchbyname(host, owner->c_str(), nullptr) ? 1 : 0;
}

int clu_pathl_getmounts(void) {
    CluLock lock;
    ensure_init_locked();
    if (!cluster_on_locked()) return 0;
    int added = 0;
    each_mount(0, [&](const struct mntent& m) {
        const std::string* owner = owner_locked(m.mnt_dir, false);
        if (owner != nullptr && !pathl_has(m.mnt_dir, *owner)) {
            Pathl.push_back({m.mnt_dir, *owner, ""});
            added++;
        }
        return false;
    });
    return added;
}

int clu_pathl_addvirthosts(void) {
    CluLock lock;
    ensure_init_locked();
    int added = 0;
    auto add = [&](const std::string& path, const std::string& host) {
        if (pathl_has(path, host)) return;
        Pathl.push_back({path, host, ""});
        added++;
    };
    if (Clu_cluster_type == 2) {
        for (const PathHost& e : Lc_fspath_vhost_listp) {
            // Without a list of local hosts every owned path counts as here,
            // as in clu_is_localvirthost.
            bool local = !Lc_use_local_vhost_list;
            for (const std::string& h : Lc_local_vhost_listp)
                if (clu_hosts_matchbyname(e.host.c_str(), h.c_str(), nullptr)) local = true;
            if (local) add(e.path, e.host);
        }
    } else if (Clu_cluster_type == 1) {
        for (const NativeMap& e : Hp_map)
            if (e.active) add(e.path, e.vhost);
    }
    return added;
}

kv_mntent* clu_get_vhost_mntent(clu_mntent_pos_t* mntp) {
    if (mntp == nullptr) return nullptr;
    CluLock lock;
    ensure_init_locked();
    if (!cluster_on_locked()) return nullptr;
    bool found = false;
    int nread = each_mount(mntp->line, [&](const struct mntent& m) {
        const std::string* owner = owner_locked(m.mnt_dir, true);
        if (owner == nullptr) return false;
        // Four strings packed one after another into the record's buffer;
        // an entry too long for it is passed over.
        const char* f[4] = {m.mnt_fsname, m.mnt_dir, m.mnt_type, m.mnt_opts};
        size_t need = 0;
        for (const char* x : f) need += strlen(x) + 1;
        if (need > sizeof mntp->buf) return false;
        char* w = mntp->buf;
        char** dst[4] = {&mntp->ent.mnt_fsname, &mntp->ent.mnt_dir, &mntp->ent.mnt_type,
                         &mntp->ent.mnt_opts};
        for (int i = 0; i < 4; i++) {
            size_t n = strlen(f[i]) + 1;
            memcpy(w, f[i], n);
            *dst[i] = w;
            w += n;
        }
        snprintf(mntp->vhost, sizeof mntp->vhost, "%s", owner->c_str());
        mntp->ent.mnt_vhost = mntp->vhost;
        found = true;
        return true;
    });
    mntp->line = nread > mntp->line ? nread : mntp->line;
    return found ? &mntp->ent : nullptr;
}

char* clu_dflt_name(char* buf, size_t len) {
    if (buf == nullptr || len == 0) return nullptr;
    CluLock lock;
    ensure_init_locked();
    if (!cluster_on_locked() || Clu_name.empty()) return nullptr;
    snprintf(buf, len, "%s", Clu_name.c_str());
    return buf;
}

int clu_has_cfs(void) {
    CluLock lock;
    ensure_init_locked();
    if (!cluster_on_locked()) return 0;
    bool cfs = false;
    each_mount(0, [&](const struct mntent& m) {
        cfs = is_cfs_type(m.mnt_type) && owner_locked(m.mnt_dir, false) != nullptr;
        return cfs;
    });
    return cfs ? 1 : 0;
}

const char* clu_get_vmrinstname(void) {
    const char* v = getenv("VMR_INSTANCE_NAME");
    return v != nullptr && *v != '\0' ? v : nullptr;
}
