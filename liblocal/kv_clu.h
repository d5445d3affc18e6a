// Cluster awareness: whether this host is in a cluster, which virtual host
// names are active here, which virtual host owns a path. Thread-safe under
// Kvclus_mutex, which is taken after Myname_mutex and never held while the
// host-name code is called.
#pragma once

#include <stddef.h>

typedef int (*similar_func_t)(const char* host1, const char* host2);

void clu_init(void);
int clu_is_cluster_host(void);
int clu_is_localvirthost(const char* hostname);
char* clu_get_local_vhost_list(int rewind_list);
int clu_hosts_matchbyname(const char* host1, const char* host2, similar_func_t similar_func);
int clu_hostname_cmp(const char* host1, const char* host2);
char* clu_pathl_gethost(const char* path, char* cluhost, size_t cluhostlen);

// The path list: paths with the virtual hosts that own them, built up by a
// save tool before it walks its file systems, then asked by
// clu_pathl_gethost and clu_pathl_hostpath_match.
// Adds one pair; the path is taken as given (see clu_pathl_finalize).
void clu_pathl_addpath(const char* path, const char* host);
// Normalizes every path, drops exact repeats (the first pair wins) and
// orders the list longest path first; returns the number of pairs.
int clu_pathl_finalize(void);
void clu_pathl_free(void);
// Lexical clean-up of an absolute path: repeated and trailing slashes, "."
// and ".." (never above "/"). Returns `out`, or null for a relative or
// empty path or one that doesn't fit.
char* clu_pathl_normalize(const char* path, char* out, size_t outlen);
// Adds the mount points of the mount table that lie under a path the
// cluster gives a virtual host, each under that host; returns how many.
int clu_pathl_getmounts(void);
// 1 when the list (or the cluster's own map) gives `path` to `host`, by the
// longest owning prefix and clu_hosts_matchbyname.
int clu_pathl_hostpath_match(const char* host, const char* path);
// Adds every path the cluster gives to a virtual host active here, under
// that host; returns how many.
int clu_pathl_addvirthosts(void);

// A mount table entry of a file system that a virtual host owns. The
// strings live in the position record and last until its next use.
struct kv_mntent {
    char* mnt_fsname;
    char* mnt_dir;
    char* mnt_type;
    char* mnt_opts;
    char* mnt_vhost;  // the owning virtual host
};
// Where clu_get_vhost_mntent is in the mount table; zero it to start over.
struct clu_mntent_pos_t {
    int line;  // entries of the table already read
    kv_mntent ent;
    char buf[4096];
    char vhost[256];
};
// Next mount entry owned by a virtual host, null at the end (or with no
// cluster). The table is read afresh each call, so that a position record
// holds no file open between calls.
kv_mntent* clu_get_vhost_mntent(clu_mntent_pos_t* mntp);

// The cluster's name (LC: "clu_name"; NATIVE: the cluster row of the node
// listing) copied into buf, or null with no cluster.
char* clu_dflt_name(char* buf, size_t len);
// 1 when a file system the cluster owns is a shared cluster file system
// (its type in the mount table is one of those that mount on every node).
int clu_has_cfs(void);
// The name this application instance runs under in the cluster, from the
// environment variable VMR_INSTANCE_NAME; null when unset or empty.
const char* clu_get_vmrinstname(void);
int clu_path_owner_ignore(int v);
int clu_is_cluster_mode(char* app_name, char* app_dir);

// Cluster type: 0 none, 1 NATIVE, 2 LC (-99 also counts as none).
extern int Clu_cluster_type;

// --- Test seams -------------------------------------------------------------
// Locations of the tools and files probed; null members keep the defaults.
struct clu_paths {
    const char* kcmap;        // "/usr/sbin/kcmap"
    const char* kcmap_cache;  // "/tmp/kcmap.out"
    const char* conf_dir;     // "/opt/cmcluster/conf"
    const char* cmview_dir;   // folder of cmviewcl, "/usr/sbin"
    const char* mtab;         // "/etc/mtab"
};
void clu_set_paths_for_test(const clu_paths* p);
// Forgets the probe so that the next call probes again.
void clu_reset_for_test(void);
// True while the calling thread holds Kvclus_mutex.
int clu_lock_held(void);
