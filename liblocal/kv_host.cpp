// The host caches: a sorted table of names grouped by machine, filled by
// the name service on demand, with time limits. One mutex, Myname_mutex,
// guards both caches for the whole of each call; the cluster code is
// called under it (lock order: Myname_mutex, then Kvclus_mutex).
#include "liblocal/kv_host.h"

#include <arpa/inet.h>
#include <errno.h>
#include <ifaddrs.h>
#include <net/if.h>
#include <netinet/in.h>
#include <stdlib.h>
#include <string.h>
#include <strings.h>
#include <sys/ioctl.h>
#include <unistd.h>

#include <mutex>
#include <string>
#include <vector>

#include "liblocal/attrlist.h"
#include "liblocal/kv_clu.h"
#include "liblocal/kv_error.h"
#include "liblocal/kv_host_internal.h"
#include "liblocal/kv_mem.h"
#include "liblocal/kv_msg.h"
#include "liblocal/kv_thread.h"
#include "liblocal/kv_trace.h"

namespace {

const kv_time64_t kForever = INT64_MAX;
const int kGrow = 1024;
const int kMinFree = 100;

KVMutex Myname_mutex;
KVOnce Myname_once = KV_ONCE_INIT;
thread_local bool t_myname_held;
// Messages of a lookup, posted once Myname_mutex is let go: a logging hook
// of the loader's may well ask whether a name is this host.
thread_local std::vector<errinfo> t_reports;
hostlist_cache_t DNScache;
hostlist_cache_t CLIENTcache;

int env_size(const char* name, int minimum) {
    const char* v = getenv(name);
    if (v == nullptr) return minimum;
    long n = strtol(v, nullptr, 0);
    return n > minimum && n < 0x40000000 ? (int)n : minimum;  // smaller values are ignored
}

void myname_once(void) {
    Myname_mutex = kv_mutex_new();
    DNScache.max_size = env_size("MAX_DNS_CACHE_SIZE", KV_DNS_CACHE_MIN);
    CLIENTcache.max_size = env_size("MAX_CLIENTS_CACHE_SIZE", KV_CLIENTS_CACHE_MIN);
}

// Holds Myname_mutex for the time of a public call.
struct MynameLock {
    MynameLock() {
        kv_once(&Myname_once, myname_once);
        kv_mutex_lock(Myname_mutex);
        t_myname_held = true;
        check_for_dbg_op();
    }
    ~MynameLock() {
        t_myname_held = false;
        kv_mutex_unlock(Myname_mutex);
        std::vector<errinfo> reports;
        reports.swap(t_reports);
        for (errinfo& e : reports) {
            // To the hook or the log files: the loader's console is not ours.
            msg_post(MSG_DEST_LOGONLY, &e);
            msg_free(&e);
        }
    }
    static void check_for_dbg_op();
};

// --- the sorted table -------------------------------------------------------

// Index of `name`, or -1 with *pos the insertion point.
int find_idx(hostlist_cache_t* c, const char* name, int* pos) {
    int lo = 0, hi = c->count - 1;
    while (lo <= hi) {
        int mid = (lo + hi) / 2;
        int r = strcasecmp(c->hosts[mid]->host, name);
        if (r == 0) return mid;
        if (r < 0)
            lo = mid + 1;
        else
            hi = mid - 1;
    }
    if (pos != nullptr) *pos = lo;
    return -1;
}

host_cache* find_entry(hostlist_cache_t* c, const char* name) {
    if (name == nullptr || c->count == 0) return nullptr;
    int i = find_idx(c, name, nullptr);
    if (i < 0 || c->hosts[i]->status == STATUS_DELETED) return nullptr;
    return c->hosts[i];
}

void unlink_from_group(host_cache* e) {
    host_cache* h = e->head;
    if (h == nullptr || h == e) return;
    for (host_cache* p = h; p != nullptr; p = p->next) {
        if (p->next == e) {
            p->next = e->next;
            break;
        }
    }
    e->next = nullptr;
    e->head = e;
}

// Marks an entry deleted; a primary takes its whole group with it, so
// that no alias is left pointing at a dead head.
void mark_deleted(hostlist_cache_t* c, host_cache* e) {
    if (e == nullptr || e->status == STATUS_DELETED) return;
    if (e->head == e) {
        host_cache* p = e->next;
        while (p != nullptr) {
            host_cache* n = p->next;
            p->next = nullptr;
            p->head = p;
            if (p->status != STATUS_DELETED) {
                p->status = STATUS_DELETED;
                c->deleted++;
            }
            p = n;
        }
        e->next = nullptr;
    } else {
        unlink_from_group(e);
    }
    if (c->local_host == e) c->local_host = nullptr;
    e->status = STATUS_DELETED;
    c->deleted++;
}

void free_entry(host_cache* e) {
    free(e->host);
    free(e);
}

// Physically drops entries that `drop` selects, keeping the array sorted.
template <typename Drop>
void compact(hostlist_cache_t* c, Drop drop) {
    int w = 0;
    for (int r = 0; r < c->count; r++) {
        host_cache* e = c->hosts[r];
        if (drop(e)) {
            if (e->status == STATUS_DELETED) c->deleted--;
            free_entry(e);
        } else {
            c->hosts[w++] = e;
        }
    }
    c->count = w;
}

bool spared(hostlist_cache_t* c, host_cache* e) {
    if (e == c->local_host || (c->local_host != nullptr && e->head == c->local_host)) return true;
    return e->head != nullptr && e->head->status == STATUS_BUSY;
}

void drop_deleted(hostlist_cache_t* c) {
    compact(c, [](host_cache* e) { return e->status == STATUS_DELETED; });
}

void hostlist_cache_trim(hostlist_cache_t* c, int hard, kv_time64_t now) {
    // Whole groups go at once: mark, then drop the marked.
    for (int i = 0; i < c->count; i++) {
        host_cache* e = c->hosts[i];
        if (e->status != STATUS_DELETED && !spared(c, e) && e->exptime <= now)
            mark_deleted(c, e->head);
    }
    drop_deleted(c);
    if (hard && c->size - c->count < kMinFree) {
        for (int i = 0; i < c->count && c->size - (c->count - c->deleted) < kMinFree; i++) {
            host_cache* e = c->hosts[i];
            if (e->status != STATUS_DELETED && !spared(c, e)) mark_deleted(c, e->head);
        }
        drop_deleted(c);
    }
}

void hostlist_cache_extend(hostlist_cache_t* c, kv_time64_t now) {
    if (c->size - c->count >= kMinFree) return;
    drop_deleted(c);
    if (c->size - c->count >= kMinFree) return;
    if (c->size < c->max_size) {
        int ns = c->size + kGrow;
        c->hosts = static_cast<host_cache**>(xrealloc(c->hosts, sizeof(host_cache*) * (size_t)ns));
        c->size = ns;
        return;
    }
    hostlist_cache_trim(c, 1, now);
}

// A new entry under `name`. An entry of that name already in the table is
// taken over in place rather than freed, so that a pointer a caller still
// holds (the busy group of samehost) never dangles.
host_cache* insert_entry(hostlist_cache_t* c, const char* name, host_cache* head,
                         host_status_t status, kv_time64_t exptime, kv_time64_t now) {
    int pos = 0;
    host_cache* e = nullptr;
    int i = c->count != 0 ? find_idx(c, name, &pos) : -1;
    if (i >= 0) {
        e = c->hosts[i];
        mark_deleted(c, e);
        c->deleted--;
        free(e->host);
        memset(e, 0, sizeof *e);
    } else {
        hostlist_cache_extend(c, now);
        if (c->count != 0) find_idx(c, name, &pos);  // the table may have changed
        if (c->count >= c->size) return nullptr;
        e = static_cast<host_cache*>(xcalloc(1, sizeof(host_cache)));
        memmove(&c->hosts[pos + 1], &c->hosts[pos], sizeof(host_cache*) * (size_t)(c->count - pos));
        c->hosts[pos] = e;
        c->count++;
    }
    e->host = xstrdup(name);
    e->status = status;
    e->exptime = exptime;
    if (head == nullptr) {
        e->head = e;
    } else {
        e->head = head;
        e->next = head->next;
        head->next = e;
    }
    return e;
}

void renew_group(host_cache* head, kv_time64_t exptime) {
    for (host_cache* p = head; p != nullptr; p = p->next) p->exptime = exptime;
}

host_cache* hostlist_cache_add(hostlist_cache_t* c, const char* ip_address, const char* host,
                               const std::vector<std::string>& aliases, host_status_t status,
                               kv_time64_t exptime, kv_time64_t now) {
    host_cache* e = find_entry(c, ip_address);
    if (e == nullptr) e = find_entry(c, host);
    host_cache* head = nullptr;
    if (e != nullptr && e->status != STATUS_UNKNOWN_HOST &&
        e->head->status != STATUS_UNKNOWN_HOST) {
        head = e->head;  // a live group keeps its members
    } else {
        if (e != nullptr) mark_deleted(c, e);
        head = insert_entry(c, host, nullptr, status, exptime, now);
        if (head == nullptr) {
            kv_trace(5, 0x40, "Failed to insert DNS cache entry: %s\n", host);
            return nullptr;
        }
    }
    renew_group(head, exptime);
    // An alias may find the table full, and the trim that makes room must not
    // take the group that the aliases are being linked to: it is busy until
    // they are in.
    host_status_t saved = head->status;
    head->status = STATUS_BUSY;
    bool complete = true;
    for (const std::string& a : aliases) {
        if (a.empty()) continue;
        host_cache* old = find_entry(c, a.c_str());
        if (old != nullptr && old->head == head) continue;
        if (old == head) continue;
        if (insert_entry(c, a.c_str(), head, status, exptime, now) == nullptr) {
            kv_trace(5, 0x40, "Failed to insert DNS cache entry: %s\n", a.c_str());
            complete = false;
            break;
        }
    }
    head->status = saved;
    if (!complete) {
        // A group with missing aliases would answer "not the same host"
        // for a name of its own, so it goes. A group that was busy before
        // (samehost's first one) is another caller's to hold; it stays.
        if (saved != STATUS_BUSY) mark_deleted(c, head);
        return nullptr;
    }
    return head;
}

host_cache* add_unknown(hostlist_cache_t* c, const char* name, kv_time64_t now) {
    host_cache* old = find_entry(c, name);
    if (old != nullptr) mark_deleted(c, old);
    return insert_entry(c, name, nullptr, STATUS_UNKNOWN_HOST, now + KV_HOST_UNKNOWN_TTL, now);
}

std::string numeric_text(const sockaddr* sa, socklen_t len) {
    char buf[NI_MAXHOST];
    if (kv_getnameinfo(sa, len, buf, sizeof buf, nullptr, 0, NI_NUMERICHOST) != 0) return "";
    return buf;
}

std::string reverse_name(const sockaddr* sa, socklen_t len) {
    char buf[NI_MAXHOST];
    if (kv_getnameinfo(sa, len, buf, sizeof buf, nullptr, 0, NI_NAMEREQD) != 0) return "";
    return buf;
}

bool is_anyaddr(const sockaddr_storage& ss) {
    if (ss.ss_family == AF_INET)
        return reinterpret_cast<const sockaddr_in*>(&ss)->sin_addr.s_addr == htonl(INADDR_ANY);
    if (ss.ss_family == AF_INET6)
        return IN6_IS_ADDR_UNSPECIFIED(&reinterpret_cast<const sockaddr_in6*>(&ss)->sin6_addr);
    return true;
}

// Adds a name and address pair unless the name is a floating cluster name
// owned here, which must never become an alias of this physical machine.
void add_alias_pair(std::vector<std::string>* out, const std::string& addr,
                    const std::string& name) {
    if (!name.empty() && clu_is_localvirthost(name.c_str())) return;
    if (!addr.empty()) out->push_back(addr);
    if (!name.empty()) out->push_back(name);
}

host_cache* dns_cache_a_host(hostlist_cache_t* c, const char* host, kv_time64_t now) {
    bool local = host == nullptr;
    if (local && c->myname[0] == '\0') kv_getlocalhost(c->myname, sizeof c->myname);
    const char* query = local ? c->myname : host;
    struct addrinfo hints;
    memset(&hints, 0, sizeof hints);
    hints.ai_family = AF_UNSPEC;
    hints.ai_socktype = SOCK_STREAM;
    hints.ai_protocol = IPPROTO_TCP;
    hints.ai_flags = AI_CANONNAME;
    struct addrinfo* res = nullptr;
    int rc = kv_getaddrinfo(query, nullptr, &hints, &res);
    if (rc != 0) {
        kv_trace(5, 0x40, "DNS lookup failed for %s: %s\n", query, gai_strerror(rc));
        return add_unknown(c, query, now);
    }
    std::string canon, first_ip;
    for (struct addrinfo* a = res; a != nullptr && canon.empty(); a = a->ai_next) {
        std::string r = reverse_name(a->ai_addr, a->ai_addrlen);
        if (r.empty()) continue;
        first_ip = numeric_text(res->ai_addr, res->ai_addrlen);
        canon = res->ai_canonname != nullptr ? res->ai_canonname : r;
    }
    if (canon.empty()) {
        // Reported, while the lookup itself just says no.
        errinfo* e = msg_create(82666, 12000, "Reverse DNS lookup failed for %s: %s", ARG_HOSTNAME,
                                query, ARG_TEXT, gai_strerror(EAI_NONAME));
        errinfo kept;
        memset(&kept, 0, sizeof kept);
        err_dup2(e, &kept);
        msg_free(e);
        t_reports.push_back(kept);
        kv_freeaddrinfo(res);
        return add_unknown(c, query, now);
    }
    std::vector<std::string> aliases;
    bool canon_virtual = clu_is_localvirthost(canon.c_str()) != 0;
    if (local) {
        size_t dot = canon.find('.');
        if (dot != std::string::npos) aliases.push_back(canon.substr(0, dot));
        aliases.push_back(query);
        std::vector<struct sockaddr_storage> ifs;
        int n = host_ifaddrs(&ifs);
        if (n < 0) kv_trace(5, 0x40, "Failed to find any NIC addresses: %s", strerror(errno));
        for (int i = 0; i < n; i++) {
            if (is_anyaddr(ifs[i])) continue;
            socklen_t len =
                ifs[i].ss_family == AF_INET ? sizeof(sockaddr_in) : sizeof(sockaddr_in6);
            const sockaddr* sa = reinterpret_cast<const sockaddr*>(&ifs[i]);
            std::string text = numeric_text(sa, len);
            std::string r = reverse_name(sa, len);
            if (r.empty()) {
                kv_trace(5, 0x40, "Reverse DNS lookup failed for address %s\n", text.c_str());
                continue;
            }
            add_alias_pair(&aliases, text, r);
        }
    }
    if (!(local && canon_virtual)) add_alias_pair(&aliases, first_ip, canon);
    for (struct addrinfo* a = res; a != nullptr; a = a->ai_next)
        add_alias_pair(&aliases, numeric_text(a->ai_addr, a->ai_addrlen),
                       reverse_name(a->ai_addr, a->ai_addrlen));
    aliases.push_back(local ? "localhost" : query);
    kv_freeaddrinfo(res);
    host_cache* e = hostlist_cache_add(c, first_ip.c_str(), canon.c_str(), aliases, STATUS_OK,
                                       now + KV_HOST_FOUND_TTL, now);
    if (e == nullptr) {
        kv_trace(5, 0x40, "Failed to add %s entry to DNS cache: %s", query, "table full");
        return nullptr;
    }
    if (local) c->local_host = e;
    return e;
}

host_cache* dns_host_find_byname(const char* host, kv_time64_t now) {
    hostlist_cache_t* c = &DNScache;
    if (c->local_host == nullptr || c->local_host->exptime <= now)
        dns_cache_a_host(c, nullptr, now);
    if (host == nullptr || strcasecmp(host, "localhost") == 0) return c->local_host;
    host_cache* e = find_entry(c, host);
    if (e != nullptr && e->exptime > now) return e->status == STATUS_UNKNOWN_HOST ? nullptr : e;
    e = dns_cache_a_host(c, host, now);
    return e != nullptr && e->status != STATUS_UNKNOWN_HOST ? e : nullptr;
}

host_cache* client_find_byname(const char* host) {
    return find_entry(&CLIENTcache, host);
}

void free_cache(hostlist_cache_t* c) {
    for (int i = 0; i < c->count; i++) free_entry(c->hosts[i]);
    free(c->hosts);
    int max = c->max_size;
    memset(c, 0, sizeof *c);
    c->max_size = max;
}

void ifaddrs_flush(void);

void MynameLock::check_for_dbg_op() {
    int level = Host_dbg_level.exchange(0);
    if (level > 0) {
        free_cache(&DNScache);
        ifaddrs_flush();
        host_addr_flush();
        Addr_dbg_flush.store(0);
    }
    if (level > 8) free_cache(&CLIENTcache);
}

int same_group(host_cache* (*find)(const char*, kv_time64_t), const char* h1, const char* h2,
               kv_time64_t now) {
    host_cache* a = find(h1, now);
    if (a == nullptr) return 0;
    // Keep the first group out of reach of a trim while the second lookup runs.
    host_cache* head = a->head;
    host_status_t saved = head->status;
    head->status = STATUS_BUSY;
    host_cache* b = find(h2, now);
    head->status = saved == STATUS_BUSY ? STATUS_OK : saved;
    return b != nullptr && b->head == head;
}

host_cache* client_find(const char* h, kv_time64_t) {
    return client_find_byname(h);
}

}  // namespace

int kv_host_lock_held(void) {
    return t_myname_held ? 1 : 0;
}

int is_myname(const char* host) {
    if (host == nullptr || strcasecmp(host, "localhost") == 0) return 1;
    {
        MynameLock lock;
        host_cache* e = dns_host_find_byname(host, host_now());
        if (e != nullptr && DNScache.local_host != nullptr && e->head == DNScache.local_host)
            return 1;
    }
    return clu_is_localvirthost(host);
}

int samehost(const char* host1, const char* host2) {
    if (host1 == host2) return 1;
    if (host1 != nullptr && host2 != nullptr && strcasecmp(host1, host2) == 0) return 1;
    MynameLock lock;
    return same_group(dns_host_find_byname, host1, host2, host_now());
}

int sameclient(const char* host1, const char* host2) {
    if (host1 == nullptr || host2 == nullptr) return 0;
    if (host1 == host2 || strcasecmp(host1, host2) == 0) return 1;
    MynameLock lock;
    return same_group(client_find, host1, host2, host_now());
}

int is_validhostname(const char* host) {
    MynameLock lock;
    return dns_host_find_byname(host, host_now()) != nullptr;
}

char* get_primaryhostname(const char* host) {
    MynameLock lock;
    host_cache* e = dns_host_find_byname(host, host_now());
    return e != nullptr ? xstrdup(e->head->host) : nullptr;
}

char* get_primaryclientname(const char* host) {
    MynameLock lock;
    host_cache* e = client_find_byname(host);
    return e != nullptr ? xstrdup(e->head->host) : nullptr;
}

int client_list_add_client(const char* host, const char** aliases) {
    if (host == nullptr || *host == '\0') return -1;
    std::vector<std::string> al;
    for (const char** p = aliases; p != nullptr && *p != nullptr; p++) al.push_back(*p);
    MynameLock lock;
    kv_time64_t now = host_now();
    return hostlist_cache_add(&CLIENTcache, nullptr, host, al, STATUS_OK, kForever, now) != nullptr
               ? 0
               : -1;
}

void client_list_remove_byname(const char* host) {
    MynameLock lock;
    host_cache* e = client_find_byname(host);
    if (e != nullptr) mark_deleted(&CLIENTcache, e->head);
}

int cache_client_id(char* client_name, kvui_t* client_idp) {
    if (client_idp == nullptr) return -1;
    MynameLock lock;
    host_cache* e = client_find_byname(client_name);
    if (e == nullptr) return -1;
    e->client_id = *client_idp;
    e->head->client_id = *client_idp;
    return 0;
}

int get_cached_client_id(char* client_name, kvui_t* client_idp) {
    if (client_idp == nullptr) return -1;
    MynameLock lock;
    host_cache* e = client_find_byname(client_name);
    if (e == nullptr) return -1;
    *client_idp = e->head->client_id;
    return 0;
}

void free_dns_hostlist_cache(void) {
    MynameLock lock;
    free_cache(&DNScache);
}

void free_client_hostlist_cache(void) {
    MynameLock lock;
    free_cache(&CLIENTcache);
}

static const char* status_name(host_status_t s) {
    switch (s) {
    case STATUS_OK: return "STATUS_OK";
    case STATUS_BUSY: return "STATUS_BUSY";
    case STATUS_DELETED: return "STATUS_DELETED";
    case STATUS_UNKNOWN_HOST: return "STATUS_UNKNOWN_HOST";
    }
    return "?";
}

void print_dns_cache_to(FILE* fp) {
    if (fp == nullptr) return;
    MynameLock lock;
    const struct {
        const char* title;
        hostlist_cache_t* c;
    } caches[] = {{"DNS cache:\n", &DNScache}, {"Clients cache:\n", &CLIENTcache}};
    for (const auto& k : caches) {
        fputs(k.title, fp);
        for (int i = 0; i < k.c->count; i++) {
            host_cache* e = k.c->hosts[i];
            fprintf(fp, "host: %s, status: %s, head: %s\n", e->host, status_name(e->status),
                    e->head != nullptr ? e->head->host : "");
        }
    }
}

void print_dns_cache(void) {
    print_dns_cache_to(stdout);
}

void kv_host_set_cache_limits(int dns_max, int clients_max) {
    MynameLock lock;
    DNScache.max_size = dns_max > 0 ? dns_max : env_size("MAX_DNS_CACHE_SIZE", KV_DNS_CACHE_MIN);
    CLIENTcache.max_size =
        clients_max > 0 ? clients_max : env_size("MAX_CLIENTS_CACHE_SIZE", KV_CLIENTS_CACHE_MIN);
}

void kv_host_set_resolver(const kv_host_resolver* r) {
    MynameLock lock;
    host_set_resolver_fields(r);
    free_cache(&DNScache);
    host_addr_flush();
    host_reset_local_name();
}

// --- interface list -----------------------------------------------------------

namespace {

std::mutex Ifaddrs_mutex;
KVIfaddrs* Ifaddrs_cache;  // guarded by Ifaddrs_mutex
kv_time64_t Ifaddrs_exptime;

KVIfaddrs* ifaddrs_copy(const KVIfaddrs* src) {
    KVIfaddrs* head = nullptr;
    KVIfaddrs** tail = &head;
    for (const KVIfaddrs* p = src; p != nullptr; p = p->ifa_next) {
        KVIfaddrs* n = static_cast<KVIfaddrs*>(xmalloc(sizeof(KVIfaddrs)));
        *n = *p;
        n->ifa_next = nullptr;
        *tail = n;
        tail = &n->ifa_next;
    }
    return head;
}

void ifaddrs_flush(void) {
    std::lock_guard<std::mutex> g(Ifaddrs_mutex);
    kv_free_ifaddresses(Ifaddrs_cache);
    Ifaddrs_cache = nullptr;
    Ifaddrs_exptime = 0;
}

// Reads the interfaces afresh. One datagram socket serves every hardware
// address query; without it each interface is traced and keeps a zero one.
KVIfaddrs* ifaddrs_read(void) {
    struct ifaddrs* ifa = nullptr;
    if (getifaddrs(&ifa) != 0) return nullptr;
    int fd = socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    int sock_errno = errno;
    KVIfaddrs* head = nullptr;
    KVIfaddrs** tail = &head;
    for (struct ifaddrs* p = ifa; p != nullptr; p = p->ifa_next) {
        if (p->ifa_addr == nullptr || p->ifa_name == nullptr) continue;
        int fam = p->ifa_addr->sa_family;
        if (fam != AF_INET && fam != AF_INET6) continue;
        KVIfaddrs* n = static_cast<KVIfaddrs*>(xcalloc(1, sizeof(KVIfaddrs)));
        snprintf(n->ifa_name, sizeof n->ifa_name, "%s", p->ifa_name);
        memcpy(&n->ifa_addr, p->ifa_addr,
               fam == AF_INET ? sizeof(sockaddr_in) : sizeof(sockaddr_in6));
        n->ifa_flags = p->ifa_flags;
        if (fd < 0) {
            kv_trace(5, 0x40, "Failed to create socket to get MAC address for %s : %s\n",
                     n->ifa_name, strerror(sock_errno));
        } else {
            struct ifreq req;
            memset(&req, 0, sizeof req);
            snprintf(req.ifr_name, sizeof req.ifr_name, "%s", n->ifa_name);
            if (ioctl(fd, SIOCGIFHWADDR, &req) != 0) {
                kv_trace(5, 0x40, "Failed to get MAC address for %s : %s\n", n->ifa_name,
                         strerror(errno));
            } else {
                memcpy(n->ifa_hwaddr, req.ifr_hwaddr.sa_data, sizeof n->ifa_hwaddr);
                n->ifa_hwaddr_valid = 1;
            }
        }
        *tail = n;
        tail = &n->ifa_next;
    }
    if (fd >= 0) close(fd);
    freeifaddrs(ifa);
    return head;
}

}  // namespace

int kv_get_ifaddresses(KVIfaddrs** addrs) {
    if (addrs == nullptr) return -1;
    *addrs = nullptr;
    kv_time64_t now = host_now();
    std::lock_guard<std::mutex> g(Ifaddrs_mutex);
    if (Ifaddrs_cache == nullptr || Ifaddrs_exptime <= now) {
        kv_free_ifaddresses(Ifaddrs_cache);
        Ifaddrs_cache = ifaddrs_read();
        Ifaddrs_exptime = now + KV_HOST_UNKNOWN_TTL;
    }
    if (Ifaddrs_cache == nullptr) {
        kv_trace(5, 0x40, "Failed to find any active network interfaces\n");
        kv_error_set_errno(ENXIO);
        return -1;
    }
    *addrs = ifaddrs_copy(Ifaddrs_cache);
    return 0;
}

void kv_free_ifaddresses(KVIfaddrs* addrs) {
    while (addrs != nullptr) {
        KVIfaddrs* n = addrs->ifa_next;
        free(addrs);
        addrs = n;
    }
}

// --- once per process ------------------------------------------------------------

namespace {

KVOnce Socket_once = KV_ONCE_INIT;

void socket_once(void) {
    // The local name: a name that doesn't resolve is reported on standard
    // error by kv_getlocalhost, and the process goes on under it.
    kv_getlocalhost(nullptr, 0);
    // The IPv6 loopback only matters where IPv6 sockets exist at all.
    int fd = socket(AF_INET6, SOCK_STREAM | SOCK_CLOEXEC, 0);
    if (fd < 0) return;
    close(fd);
    struct sockaddr_storage ss;
    memset(&ss, 0, sizeof ss);
    // Parsed numerically: kv_getaddrinfo takes every "::" name for the
    // any-address, which would make this check fail everywhere.
    bool ok = kv_inet_pton("::1", &ss) == 1 && ss.ss_family == AF_INET6 &&
              IN6_IS_ADDR_LOOPBACK(&reinterpret_cast<const sockaddr_in6*>(&ss)->sin6_addr);
    if (!ok)
        fprintf(
            stderr,
            "%s: Failed to resolve the IPv6 localhost address ::1. Please verify an entry for the "
            "IPv6 localhost\n",
            program_invocation_short_name);
}

}  // namespace

void _kv_socket_once(void) {
    kv_once(&Socket_once, socket_once);
}
