// Shared between the host cache and the address caches; not for callers.
#pragma once

#include <sys/socket.h>

#include <atomic>

#include "liblocal/kv_host.h"

kv_time64_t host_now(void);
int host_ifaddrs(struct sockaddr_storage* out, int max);
void host_addr_flush(void);
void host_reset_local_name(void);
void host_set_resolver_fields(const kv_host_resolver* r);
// Pending debug flushes: the host caches' level, and a separate flag for
// the address caches so that kv_getaddrinfo never needs Myname_mutex.
extern std::atomic<int> Host_dbg_level;
extern std::atomic<int> Addr_dbg_flush;
