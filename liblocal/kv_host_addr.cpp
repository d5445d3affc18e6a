// Cached name-service wrappers: kv_getaddrinfo, kv_getnameinfo and the local
// host name. Results are always the library's own copies, freed by
// kv_freeaddrinfo. The address caches have their own lock.
#include <arpa/inet.h>
#include <ctype.h>
#include <errno.h>
#include <ifaddrs.h>
#include <netinet/in.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <strings.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <map>
#include <string>
#include <vector>

#include "liblocal/kv_error.h"
#include "liblocal/kv_host.h"
#include "liblocal/kv_host_internal.h"
#include "liblocal/kv_mem.h"
#include "liblocal/kv_thread.h"

namespace {

// Bounds of what the host's own tables leave open: the interface list read
// at once, and the entries of each answer cache. A cache at its bound drops
// what has expired, then the eighth of it that would expire soonest.
const size_t kMaxIfaddrs = 65536;
const size_t kMaxCacheEntries = 8192;

std::atomic<kv_host_clock_fn> g_clock{nullptr};
kv_host_resolver g_res;  // guarded by Addr_mutex for changes; read without
std::atomic<int> g_caching{1};

// The resolver in use: the one installed for tests, else the system's.
int res_getaddrinfo(const char* node, const char* service, const struct addrinfo* hints,
                    struct addrinfo** res) {
    auto gai = g_res.getaddrinfo != nullptr ? g_res.getaddrinfo : ::getaddrinfo;
    return gai(node, service, hints, res);
}

void res_freeaddrinfo(struct addrinfo* ai) {
    auto fai = g_res.freeaddrinfo != nullptr ? g_res.freeaddrinfo : ::freeaddrinfo;
    fai(ai);
}

int sys_ifaddrs(struct sockaddr_storage* out, int max) {
    struct ifaddrs* ifa = nullptr;
    if (getifaddrs(&ifa) != 0) return -1;
    int n = 0;
    for (struct ifaddrs* p = ifa; p != nullptr && n < max; p = p->ifa_next) {
        if (p->ifa_addr == nullptr) continue;
        int fam = p->ifa_addr->sa_family;
        if (fam != AF_INET && fam != AF_INET6) continue;
        memset(&out[n], 0, sizeof out[n]);
        memcpy(&out[n], p->ifa_addr, fam == AF_INET ? sizeof(sockaddr_in) : sizeof(sockaddr_in6));
        n++;
    }
    freeifaddrs(ifa);
    return n;
}

struct AddrEntry {
    struct addrinfo* ai;  // null for a cached failure
    int err;
    kv_time64_t exptime;
};
struct NameEntry {
    std::string node, service;
    int err;
    kv_time64_t exptime;
};

KVMutex Addr_mutex;
std::map<std::string, AddrEntry>* Addr_cache;  // under Addr_mutex
std::map<std::string, NameEntry>* Name_cache;  // under Addr_mutex
kv_time64_t Addr_next_sweep;                   // under Addr_mutex
kv_time64_t Name_next_sweep;                   // under Addr_mutex

void release(AddrEntry& e) {
    kv_freeaddrinfo(e.ai);
}
void release(NameEntry&) {}

// Room for one more entry. Expired entries are swept out every few minutes
// as well, so that a cache far from its bound doesn't keep dead answers.
// REQUIRES: Addr_mutex held.
template <typename Entry>
void make_room(std::map<std::string, Entry>* cache, kv_time64_t now, kv_time64_t* next_sweep) {
    if (cache->size() < kMaxCacheEntries && now < *next_sweep) return;
    *next_sweep = now + KV_HOST_UNKNOWN_TTL;
    for (auto it = cache->begin(); it != cache->end();) {
        if (it->second.exptime <= now) {
            release(it->second);
            it = cache->erase(it);
        } else {
            ++it;
        }
    }
    if (cache->size() < kMaxCacheEntries) return;
    std::vector<kv_time64_t> times;
    times.reserve(cache->size());
    for (const auto& e : *cache) times.push_back(e.second.exptime);
    auto cut = times.begin() + static_cast<std::ptrdiff_t>(times.size() / 8);
    std::nth_element(times.begin(), cut, times.end());
    kv_time64_t limit = *cut;
    for (auto it = cache->begin(); it != cache->end();) {
        if (it->second.exptime <= limit) {
            release(it->second);
            it = cache->erase(it);
        } else {
            ++it;
        }
    }
}

// An expired entry met on a lookup goes at once. REQUIRES: Addr_mutex held.
template <typename Entry>
void drop(std::map<std::string, Entry>* cache, typename std::map<std::string, Entry>::iterator it) {
    release(it->second);
    cache->erase(it);
}
bool Ipv6_on;
KVOnce Addr_once = KV_ONCE_INIT;

void addr_once(void) {
    Addr_mutex = kv_mutex_new();
    Addr_cache = new std::map<std::string, AddrEntry>;
    Name_cache = new std::map<std::string, NameEntry>;
    // IPv6 counts as on when ::1 is on an interface and a socket opens.
    std::vector<struct sockaddr_storage> addrs;
    int n = host_ifaddrs(&addrs);
    bool have_lo6 = false;
    for (int i = 0; i < n; i++) {
        if (addrs[i].ss_family != AF_INET6) continue;
        const sockaddr_in6* s6 = reinterpret_cast<const sockaddr_in6*>(&addrs[i]);
        if (IN6_IS_ADDR_LOOPBACK(&s6->sin6_addr)) have_lo6 = true;
    }
    if (have_lo6) {
        int fd = socket(AF_INET6, SOCK_STREAM, 0);
        if (fd >= 0) {
            Ipv6_on = true;
            close(fd);
        }
    }
}

// One allocation per node: the record, its address and its canonical name.
struct addrinfo* ai_node(const struct addrinfo* src, const sockaddr* addr, socklen_t addrlen,
                         const char* canon) {
    size_t clen = canon != nullptr ? strlen(canon) + 1 : 0;
    char* mem = static_cast<char*>(xcalloc(1, sizeof(struct addrinfo) + addrlen + clen));
    struct addrinfo* n = reinterpret_cast<struct addrinfo*>(mem);
    n->ai_flags = src->ai_flags;
    n->ai_family = src->ai_family;
    n->ai_socktype = src->ai_socktype;
    n->ai_protocol = src->ai_protocol;
    n->ai_addrlen = addrlen;
    n->ai_addr = reinterpret_cast<sockaddr*>(mem + sizeof(struct addrinfo));
    if (addrlen != 0) memcpy(n->ai_addr, addr, addrlen);
    if (canon != nullptr) {
        n->ai_canonname = mem + sizeof(struct addrinfo) + addrlen;
        memcpy(n->ai_canonname, canon, clen);
    }
    return n;
}

struct addrinfo* ai_copy(const struct addrinfo* src) {
    struct addrinfo* head = nullptr;
    struct addrinfo** tail = &head;
    for (; src != nullptr; src = src->ai_next) {
        *tail = ai_node(src, src->ai_addr, src->ai_addrlen, src->ai_canonname);
        tail = &(*tail)->ai_next;
    }
    return head;
}

struct addrinfo* anyaddr(bool v6, const char* service, const struct addrinfo* hints) {
    struct addrinfo tmpl;
    memset(&tmpl, 0, sizeof tmpl);
    tmpl.ai_family = v6 ? AF_INET6 : AF_INET;
    if (hints != nullptr) {
        tmpl.ai_socktype = hints->ai_socktype;
        tmpl.ai_protocol = hints->ai_protocol;
        tmpl.ai_flags = hints->ai_flags;
    }
    unsigned short port = service != nullptr ? (unsigned short)atoi(service) : 0;
    if (v6) {
        sockaddr_in6 s6;
        memset(&s6, 0, sizeof s6);
        s6.sin6_family = AF_INET6;
        s6.sin6_addr = in6addr_any;
        s6.sin6_port = htons(port);
        return ai_node(&tmpl, reinterpret_cast<sockaddr*>(&s6), sizeof s6, nullptr);
    }
    sockaddr_in s4;
    memset(&s4, 0, sizeof s4);
    s4.sin_family = AF_INET;
    s4.sin_addr.s_addr = htonl(INADDR_ANY);
    s4.sin_port = htons(port);
    return ai_node(&tmpl, reinterpret_cast<sockaddr*>(&s4), sizeof s4, nullptr);
}

std::string addr_key(const char* host, const char* service, const struct addrinfo* hints) {
    std::string k(host != nullptr ? std::string(host).substr(0, 1024) : "");
    k += '\x01';
    k += service != nullptr ? std::string(service).substr(0, 31) : "";
    char h[64];
    if (hints != nullptr)
        snprintf(h, sizeof h, "\x01%d/%d/%d/%d", hints->ai_flags, hints->ai_family,
                 hints->ai_socktype, hints->ai_protocol);
    else
        snprintf(h, sizeof h, "\x01-");
    return k + h;
}

bool is_numeric_host(const char* h) {
    return inet_addr(h) != INADDR_NONE || strchr(h, ':') != nullptr;
}

// Local name, found once per resolver.
char Local_name[64];
bool Local_done;

}  // namespace

// --- shared with kv_host.cpp -------------------------------------------------
std::atomic<int> Host_dbg_level{0};
std::atomic<int> Addr_dbg_flush{0};

void kv_host_request_flush(int level) {
    if (level > 0) Addr_dbg_flush.store(1);
    Host_dbg_level.store(level);
}

kv_time64_t host_now(void) {
    kv_host_clock_fn fn = g_clock.load();
    return fn != nullptr ? fn() : (kv_time64_t)time(nullptr);
}

int host_ifaddrs(std::vector<struct sockaddr_storage>* out) {
    // The list is read into an array of a given size, which grows until the
    // list fits. Past kMaxIfaddrs the rest is left out: a bound that only
    // keeps a broken interface table from taking all memory.
    size_t cap = 64;
    for (;;) {
        out->assign(cap, sockaddr_storage());
        int n = g_res.ifaddrs != nullptr ? g_res.ifaddrs(out->data(), static_cast<int>(cap))
                                         : sys_ifaddrs(out->data(), static_cast<int>(cap));
        if (n < 0) {
            out->clear();
            return -1;
        }
        if (static_cast<size_t>(n) < cap || cap >= kMaxIfaddrs) {
            out->resize(static_cast<size_t>(n));
            return n;
        }
        cap *= 2;
    }
}

void host_addr_flush(void) {
    kv_once(&Addr_once, addr_once);
    kv_mutex_lock(Addr_mutex);
    for (auto& e : *Addr_cache) kv_freeaddrinfo(e.second.ai);
    Addr_cache->clear();
    Name_cache->clear();
    Addr_next_sweep = 0;
    Name_next_sweep = 0;
    kv_mutex_unlock(Addr_mutex);
}

void host_reset_local_name(void) {
    kv_once(&Addr_once, addr_once);
    kv_mutex_lock(Addr_mutex);
    Local_done = false;
    Local_name[0] = '\0';
    kv_mutex_unlock(Addr_mutex);
}

void host_set_resolver_fields(const kv_host_resolver* r) {
    if (r != nullptr)
        g_res = *r;
    else
        memset(&g_res, 0, sizeof g_res);
}

kv_host_clock_fn kv_host_set_clock(kv_host_clock_fn fn) {
    return g_clock.exchange(fn);
}

void kv_set_addrinfo_caching(int on) {
    g_caching.store(on != 0);
}

void kv_host_addr_cache_counts(size_t* addrinfo_entries, size_t* nameinfo_entries) {
    kv_once(&Addr_once, addr_once);
    kv_mutex_lock(Addr_mutex);
    if (addrinfo_entries != nullptr) *addrinfo_entries = Addr_cache->size();
    if (nameinfo_entries != nullptr) *nameinfo_entries = Name_cache->size();
    kv_mutex_unlock(Addr_mutex);
}

// --- public -----------------------------------------------------------------
int kv_gethostname(char* name, size_t namelen) {
    kv_once(&Addr_once, addr_once);
    int rc = g_res.gethostname != nullptr ? g_res.gethostname(name, namelen)
                                          : gethostname(name, namelen);
    if (rc != 0) kv_error_set_errno(errno);
    return rc;
}

char* kv_getlocalhost(char* name, size_t len) {
    kv_once(&Addr_once, addr_once);
    kv_mutex_lock(Addr_mutex);
    bool done = Local_done;
    kv_mutex_unlock(Addr_mutex);
    if (!done) {
        char host[256];
        if (kv_gethostname(host, sizeof host) != 0 || host[0] == '\0')
            snprintf(host, sizeof host, "localhost");
        host[sizeof host - 1] = '\0';
        for (char* p = host; *p != '\0'; p++) *p = (char)tolower((unsigned char)*p);
        // Up to 63 characters of the name are kept.
        char canon[64];
        size_t hl = strnlen(host, sizeof canon - 1);
        memcpy(canon, host, hl);
        canon[hl] = '\0';
        struct addrinfo hints;
        memset(&hints, 0, sizeof hints);
        hints.ai_flags = AI_CANONNAME;
        hints.ai_socktype = SOCK_STREAM;
        struct addrinfo* res = nullptr;
        if (kv_getaddrinfo(host, nullptr, &hints, &res) == 0 && res != nullptr) {
            if (res->ai_canonname != nullptr) {
                size_t cl = strnlen(res->ai_canonname, sizeof canon - 1);
                memcpy(canon, res->ai_canonname, cl);
                canon[cl] = '\0';
            }
            kv_freeaddrinfo(res);
        } else {
            // The process goes on under the name it has: a plug-in must not
            // end its host's process over a resolver problem.
            fprintf(stderr,
                    "%s: Failed to resolve hostname %s to an internet address. Please verify a "
                    "mapping for %s\n",
                    program_invocation_short_name, host, "/etc/hosts");
        }
        for (char* p = canon; *p != '\0'; p++) *p = (char)tolower((unsigned char)*p);
        kv_mutex_lock(Addr_mutex);
        memcpy(Local_name, canon, sizeof Local_name);
        Local_done = true;
        kv_mutex_unlock(Addr_mutex);
    }
    if (name == nullptr || len == 0) return nullptr;
    kv_mutex_lock(Addr_mutex);
    snprintf(name, len, "%s", Local_name);
    kv_mutex_unlock(Addr_mutex);
    return name;
}

int kv_getaddrinfo(const char* hostname, const char* service, const struct addrinfo* hints,
                   struct addrinfo** res) {
    if (res == nullptr) return EAI_FAIL;
    *res = nullptr;
    kv_once(&Addr_once, addr_once);
    if (Addr_dbg_flush.exchange(0) != 0) host_addr_flush();
    bool caching = g_caching.load() != 0;
    kv_time64_t now = host_now();
    std::string key = addr_key(hostname, service, hints);
    if (caching) {
        kv_mutex_lock(Addr_mutex);
        auto it = Addr_cache->find(key);
        if (it != Addr_cache->end() && it->second.exptime <= now) {
            drop(Addr_cache, it);
            it = Addr_cache->end();
        }
        if (it != Addr_cache->end()) {
            int err = it->second.err;
            if (err == 0) *res = ai_copy(it->second.ai);
            kv_mutex_unlock(Addr_mutex);
            if (err != 0) {
                kv_error_set_last(KV_ERRKIND_GAI, EAI_NONAME);
                return EAI_NONAME;
            }
            return 0;
        }
        kv_mutex_unlock(Addr_mutex);
    }
    if (hostname != nullptr &&
        (strcmp(hostname, "0.0.0.0") == 0 || strncmp(hostname, "::", 2) == 0)) {
        *res = anyaddr(hostname[0] == ':', service, hints);
        return 0;
    }
    std::string query = hostname != nullptr ? hostname : "";
    if (hostname != nullptr && is_numeric_host(hostname)) {
        // A numeric query gets a canonical name too, where one exists.
        struct addrinfo nh;
        memset(&nh, 0, sizeof nh);
        nh.ai_flags = AI_NUMERICHOST;
        struct addrinfo* num = nullptr;
        if (res_getaddrinfo(hostname, nullptr, &nh, &num) == 0 && num != nullptr) {
            char name[NI_MAXHOST];
            if (kv_getnameinfo(num->ai_addr, num->ai_addrlen, name, sizeof name, nullptr, 0,
                               NI_NAMEREQD) == 0)
                query = name;
            res_freeaddrinfo(num);
        }
    }
    struct addrinfo* sys = nullptr;
    int rc = res_getaddrinfo(hostname != nullptr ? query.c_str() : nullptr, service, hints, &sys);
    struct addrinfo* mine = nullptr;
    if (rc == 0) {
        mine = ai_copy(sys);
        res_freeaddrinfo(sys);
        struct addrinfo** link = &mine;
        while (*link != nullptr) {
            struct addrinfo* a = *link;
            if (service == nullptr && a->ai_addr != nullptr) {
                if (a->ai_family == AF_INET)
                    reinterpret_cast<sockaddr_in*>(a->ai_addr)->sin_port = 0;
                if (a->ai_family == AF_INET6)
                    reinterpret_cast<sockaddr_in6*>(a->ai_addr)->sin6_port = 0;
            }
            if (hints != nullptr && hints->ai_socktype != 0 && a->ai_socktype == 0)
                a->ai_socktype = hints->ai_socktype;
            if (!Ipv6_on && hostname != nullptr && strcasecmp(hostname, "localhost") == 0 &&
                a->ai_family == AF_INET6) {
                *link = a->ai_next;
                a->ai_next = nullptr;
                // A dropped first entry must not take the canonical name with it.
                if (link == &mine && a->ai_canonname != nullptr && *link != nullptr &&
                    (*link)->ai_canonname == nullptr) {
                    struct addrinfo* b = *link;
                    *link = ai_node(b, b->ai_addr, b->ai_addrlen, a->ai_canonname);
                    (*link)->ai_next = b->ai_next;
                    free(b);
                }
                free(a);
                continue;
            }
            link = &a->ai_next;
        }
        if (mine != nullptr && hints != nullptr && (hints->ai_flags & AI_CANONNAME) != 0 &&
            mine->ai_canonname == nullptr && hostname != nullptr) {
            struct addrinfo* first = mine;
            mine = ai_node(first, first->ai_addr, first->ai_addrlen, hostname);
            mine->ai_next = first->ai_next;
            free(first);
        }
        if (mine == nullptr) rc = EAI_NONAME;
    }
    if (caching && (rc == 0 || rc == EAI_NONAME || rc == EAI_NODATA || rc == EAI_FAIL)) {
        kv_mutex_lock(Addr_mutex);
        auto it = Addr_cache->find(key);
        if (it != Addr_cache->end()) drop(Addr_cache, it);
        make_room(Addr_cache, now, &Addr_next_sweep);
        (*Addr_cache)[key] = AddrEntry{rc == 0 ? ai_copy(mine) : nullptr, rc,
                                       now + (rc == 0 ? KV_HOST_FOUND_TTL : KV_HOST_UNKNOWN_TTL)};
        kv_mutex_unlock(Addr_mutex);
    }
    if (rc != 0) {
        kv_error_set_last(KV_ERRKIND_GAI, rc);
        return rc;
    }
    *res = mine;
    return 0;
}

void kv_freeaddrinfo(struct addrinfo* res) {
    while (res != nullptr) {
        struct addrinfo* next = res->ai_next;
        free(res);
        res = next;
    }
}

int kv_getnameinfo(const struct sockaddr* sa, socklen_t salen, char* node, socklen_t nodelen,
                   char* service, socklen_t servicelen, int flags) {
    if (sa == nullptr) return EAI_FAIL;
    kv_once(&Addr_once, addr_once);
    kv_time64_t now = host_now();
    std::string key(reinterpret_cast<const char*>(sa), salen);
    key += std::to_string(flags) + "/" + std::to_string(node != nullptr) + "/" +
           std::to_string(service != nullptr);
    kv_mutex_lock(Addr_mutex);
    auto it = Name_cache->find(key);
    if (it != Name_cache->end() && it->second.exptime <= now) {
        drop(Name_cache, it);
        it = Name_cache->end();
    }
    if (it != Name_cache->end()) {
        NameEntry e = it->second;
        kv_mutex_unlock(Addr_mutex);
        if (e.err != 0) return e.err;
        if (node != nullptr && nodelen > 0) snprintf(node, nodelen, "%s", e.node.c_str());
        if (service != nullptr && servicelen > 0)
            snprintf(service, servicelen, "%s", e.service.c_str());
        return 0;
    }
    kv_mutex_unlock(Addr_mutex);
    char n[NI_MAXHOST] = "";
    char s[NI_MAXSERV] = "";
    auto gni = g_res.getnameinfo != nullptr ? g_res.getnameinfo : ::getnameinfo;
    int rc = gni(sa, salen, node != nullptr ? n : nullptr, node != nullptr ? sizeof n : 0,
                 service != nullptr ? s : nullptr, service != nullptr ? sizeof s : 0, flags);
    kv_mutex_lock(Addr_mutex);
    auto old = Name_cache->find(key);
    if (old != Name_cache->end()) drop(Name_cache, old);
    make_room(Name_cache, now, &Name_next_sweep);
    (*Name_cache)[key] =
        NameEntry{n, s, rc, now + (rc == 0 ? KV_HOST_FOUND_TTL : KV_HOST_UNKNOWN_TTL)};
    kv_mutex_unlock(Addr_mutex);
    if (rc != 0) return rc;
    if (node != nullptr && nodelen > 0) snprintf(node, nodelen, "%s", n);
    if (service != nullptr && servicelen > 0) snprintf(service, servicelen, "%s", s);
    return 0;
}

// --- numeric forms and this machine's addresses ------------------------------

const char* kv_inet_ntop(const struct sockaddr* addr, char* dst, size_t dstlen) {
    if (addr == nullptr || dst == nullptr || dstlen == 0) {
        errno = EINVAL;
        return nullptr;
    }
    socklen_t len;
    if (addr->sa_family == AF_INET) {
        len = sizeof(sockaddr_in);
    } else if (addr->sa_family == AF_INET6) {
        len = sizeof(sockaddr_in6);
    } else {
        kv_error_set_last(KV_ERRKIND_GAI, EAI_FAMILY);
        errno = EAFNOSUPPORT;
        return nullptr;
    }
    char text[NI_MAXHOST];
    int rc = kv_getnameinfo(addr, len, text, sizeof text, nullptr, 0, NI_NUMERICHOST);
    if (rc != 0) {
        kv_error_set_last(KV_ERRKIND_GAI, rc);
        errno = rc == EAI_SYSTEM ? errno : EINVAL;
        return nullptr;
    }
    // IPv4-mapped IPv6 addresses read as plain IPv4.
    const char* shown = text;
    if (strncasecmp(text, "::ffff:", 7) == 0 && strchr(text, '.') != nullptr) shown = text + 7;
    if (strlen(shown) >= dstlen) {
        errno = ENOSPC;
        return nullptr;
    }
    memcpy(dst, shown, strlen(shown) + 1);
    return dst;
}

int kv_inet_pton(const char* src, struct sockaddr_storage* dst) {
    if (src == nullptr || dst == nullptr) return 0;
    struct addrinfo hints;
    memset(&hints, 0, sizeof hints);
    hints.ai_flags = AI_NUMERICHOST;
    struct addrinfo* res = nullptr;
    if (res_getaddrinfo(src, nullptr, &hints, &res) != 0 || res == nullptr) return 0;
    memset(dst, 0, sizeof *dst);
    memcpy(dst, res->ai_addr, res->ai_addrlen < sizeof *dst ? res->ai_addrlen : sizeof *dst);
    res_freeaddrinfo(res);
    return 1;
}

static bool same_address(const sockaddr* a, const sockaddr_storage& b) {
    if (a->sa_family != b.ss_family) return false;
    if (a->sa_family == AF_INET)
        return reinterpret_cast<const sockaddr_in*>(a)->sin_addr.s_addr ==
               reinterpret_cast<const sockaddr_in*>(&b)->sin_addr.s_addr;
    if (a->sa_family == AF_INET6)
        return memcmp(&reinterpret_cast<const sockaddr_in6*>(a)->sin6_addr,
                      &reinterpret_cast<const sockaddr_in6*>(&b)->sin6_addr, sizeof(in6_addr)) == 0;
    return false;
}

static bool is_loopback(const sockaddr* a) {
    if (a->sa_family == AF_INET)
        return (ntohl(reinterpret_cast<const sockaddr_in*>(a)->sin_addr.s_addr) >> 24) == 127;
    if (a->sa_family == AF_INET6)
        return IN6_IS_ADDR_LOOPBACK(&reinterpret_cast<const sockaddr_in6*>(a)->sin6_addr);
    return false;
}

int kv_is_myaddress(const struct sockaddr* addr) {
    if (addr == nullptr) return 0;
    if (is_loopback(addr)) return 1;
    std::vector<struct sockaddr_storage> ifs;
    int n = host_ifaddrs(&ifs);
    for (int i = 0; i < n; i++)
        if (same_address(addr, ifs[i])) return 1;
    return 0;
}

int kv_get_ipaddresses(char*** addrs) {
    if (addrs == nullptr) return -1;
    *addrs = nullptr;
    std::vector<struct sockaddr_storage> ifs;
    int n = host_ifaddrs(&ifs);
    if (n < 0) return -1;
    char** out = static_cast<char**>(xcalloc((size_t)n + 1, sizeof(char*)));
    int k = 0;
    for (int i = 0; i < n; i++) {
        char text[NI_MAXHOST];
        if (kv_inet_ntop(reinterpret_cast<const sockaddr*>(&ifs[i]), text, sizeof text) != nullptr)
            out[k++] = xstrdup(text);
    }
    *addrs = out;
    return k;
}

int kv_get_ifaddress(struct sockaddr_storage* addr) {
    if (addr == nullptr) return -1;
    std::vector<struct sockaddr_storage> ifs;
    int n = host_ifaddrs(&ifs);
    for (int i = 0; i < n; i++) {
        if (is_loopback(reinterpret_cast<const sockaddr*>(&ifs[i]))) continue;
        *addr = ifs[i];
        return 0;
    }
    return -1;
}
