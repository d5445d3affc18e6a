// Per-thread record of the portable layer.
#include "liblocal/kv_tls.h"

#include <stdlib.h>
#include <string.h>

#include "liblocal/kv_thread.h"

namespace {
KVOnce g_key_once = KV_ONCE_INIT;
KVThreadStorage g_key = nullptr;

void free_record(void* p) {
    liblocal_t_struct* rec = static_cast<liblocal_t_struct*>(p);
    if (rec == nullptr) return;
    free(rec->pw_buf);
    free(rec);
}

void make_key(void) {
    g_key = kv_threadstorage_new(free_record);
}
}  // namespace

liblocal_t_struct* get_liblocal_t_varp(void) {
    kv_once(&g_key_once, make_key);
    liblocal_t_struct* rec = static_cast<liblocal_t_struct*>(kv_threadstorage_get(g_key));
    if (rec != nullptr) return rec;
    // The record sits below the checked allocators' callers, so it waits for
    // memory on its own, more patiently than they do.
    while ((rec = static_cast<liblocal_t_struct*>(calloc(1, sizeof(*rec)))) == nullptr)
        kv_thread_sleep(2000);
    kv_threadstorage_set(g_key, rec);
    return rec;
}
