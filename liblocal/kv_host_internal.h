// Shared between the host cache and the address caches; not for callers.
#pragma once

#include <sys/socket.h>

#include <atomic>
#include <vector>

#include "liblocal/kv_host.h"

kv_time64_t host_now(void);
// Every address on this machine's interfaces, from the resolver in use:
// the count, or -1 with `out` empty.
int host_ifaddrs(std::vector<struct sockaddr_storage>* out);
void host_addr_flush(void);
void host_reset_local_name(void);
void host_set_resolver_fields(const kv_host_resolver* r);
// Pending debug flushes: the host caches' level, and a separate flag for
// the address caches so that kv_getaddrinfo never needs Myname_mutex.
extern std::atomic<int> Host_dbg_level;
extern std::atomic<int> Addr_dbg_flush;
