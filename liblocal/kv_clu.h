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
void clu_pathl_addpath(const char* path, const char* host);
void clu_pathl_free(void);
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
