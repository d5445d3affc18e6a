// Host identity: is a name this machine, do two names stand for one machine,
// the primary name of a machine; cached name-service wrappers. Thread-safe:
// the two host caches share Myname_mutex, the address caches their own lock.
// Lock order: Myname_mutex, then the cluster code's Kvclus_mutex.
#pragma once

#include <net/if.h>
#include <netdb.h>
#include <stdio.h>
#include <sys/socket.h>

#include "liblocal/kv_types.h"
#include "liblocal/kvui.h"

typedef enum {
    STATUS_OK = 0,
    STATUS_BUSY = 1,
    STATUS_DELETED = 2,
    STATUS_UNKNOWN_HOST = 3,
} host_status_t;

// One name. A primary entry's `head` is itself; aliases chain by `next`.
struct host_cache {
    char* host;
    kvui_t client_id;
    host_cache* head;
    host_cache* next;
    host_status_t status;
    kv_time64_t exptime;
};
typedef host_cache host_cache_t;

// A sorted table of names (strcasecmp on `host`).
struct hostlist_cache_t {
    host_cache** hosts;
    host_cache* local_host;
    host_cache* recycle_bin;
    int count;
    int deleted;
    int size;
    int max_size;
    int update_style;
    char myname[64];
};

#define KV_HOST_FOUND_TTL 1800
#define KV_HOST_UNKNOWN_TTL 300
#define KV_DNS_CACHE_MIN 0x20000
#define KV_CLIENTS_CACHE_MIN 0x100000

int is_myname(const char* host);
int samehost(const char* host1, const char* host2);
int sameclient(const char* host1, const char* host2);
int is_validhostname(const char* host);
char* get_primaryhostname(const char* host);                         // new memory, null if unknown
char* get_primaryclientname(const char* host);                       // new memory, null if unknown
int client_list_add_client(const char* host, const char** aliases);  // 0 or -1
void client_list_remove_byname(const char* host);
int cache_client_id(char* client_name, kvui_t* client_idp);       // 0 or -1
int get_cached_client_id(char* client_name, kvui_t* client_idp);  // 0 or -1
void free_dns_hostlist_cache(void);
void free_client_hostlist_cache(void);
void print_dns_cache(void);  // to standard output
void print_dns_cache_to(FILE* fp);

int kv_gethostname(char* name, size_t namelen);
char* kv_getlocalhost(char* name, size_t len);
int kv_getaddrinfo(const char* hostname, const char* service, const struct addrinfo* hints,
                   struct addrinfo** res);
void kv_freeaddrinfo(struct addrinfo* res);
int kv_getnameinfo(const struct sockaddr* sa, socklen_t salen, char* node, socklen_t nodelen,
                   char* service, socklen_t servicelen, int flags);
void kv_set_addrinfo_caching(int on);
// Numeric text of an IPv4 or IPv6 address; IPv4-mapped IPv6 reads as IPv4.
const char* kv_inet_ntop(const struct sockaddr* addr, char* dst, size_t dstlen);
int kv_inet_pton(const char* src, struct sockaddr_storage* dst);  // 1 parsed, 0 not
int kv_is_myaddress(const struct sockaddr* addr);                 // loopback or on an interface
// The interface addresses as text: a null-terminated array (free each and it).
int kv_get_ipaddresses(char*** addrs);
int kv_get_ifaddress(struct sockaddr_storage* addr);  // one non-loopback; 0 or -1

// One address of one interface. The layout is this library's own: a plain
// singly linked list, one node per address (an interface with an IPv4 and
// an IPv6 address appears twice), so callers walk it like getifaddrs' list
// without its pointers into kernel-shaped records.
struct KVIfaddrs {
    KVIfaddrs* ifa_next;
    char ifa_name[IFNAMSIZ];           // interface name, "lo", "eth0"
    struct sockaddr_storage ifa_addr;  // AF_INET or AF_INET6
    unsigned char ifa_hwaddr[6];       // all zero when unknown (see ifa_hwaddr_valid)
    int ifa_hwaddr_valid;              // 1 when the hardware address was read
    unsigned int ifa_flags;            // IFF_UP, IFF_LOOPBACK, ... as getifaddrs gives them
};
// This machine's interface addresses (IPv4 and IPv6), from a copy cached for
// KV_HOST_UNKNOWN_TTL seconds; 0 with *addrs a new list, -1 with *addrs null.
// A hardware address that can't be read is traced and left zero.
int kv_get_ifaddresses(KVIfaddrs** addrs);
void kv_free_ifaddresses(KVIfaddrs* addrs);

// Once per process: settles the local name and checks the IPv6 loopback.
// Problems are reported once on standard error; the process goes on.
void _kv_socket_once(void);

// Debug operation: above 0 flushes the DNS and address caches at the next
// call, above 8 also the clients' cache.
void kv_host_request_flush(int level);

// --- Test seams -------------------------------------------------------------
// Time source of the expiry checks; null restores the wall clock.
typedef kv_time64_t (*kv_host_clock_fn)(void);
kv_host_clock_fn kv_host_set_clock(kv_host_clock_fn fn);
// Caps of the two host caches in entries, below the floors that the
// environment may not go under, so that a test can reach them; 0 restores
// the size taken from the environment.
void kv_host_set_cache_limits(int dns_max, int clients_max);
// Entries now held by the answer caches of kv_getaddrinfo and kv_getnameinfo.
void kv_host_addr_cache_counts(size_t* addrinfo_entries, size_t* nameinfo_entries);

// The name service beneath the caches. Null members use the system's.
// `ifaddrs` fills up to `max` numeric addresses of this machine's interfaces.
struct kv_host_resolver {
    int (*getaddrinfo)(const char*, const char*, const struct addrinfo*, struct addrinfo**);
    void (*freeaddrinfo)(struct addrinfo*);
    int (*getnameinfo)(const struct sockaddr*, socklen_t, char*, socklen_t, char*, socklen_t, int);
    int (*gethostname)(char*, size_t);
    int (*ifaddrs)(struct sockaddr_storage* out, int max);
};
// Installs a resolver and forgets every cached answer and the local name.
void kv_host_set_resolver(const kv_host_resolver* r);
// True while the calling thread holds Myname_mutex.
int kv_host_lock_held(void);
