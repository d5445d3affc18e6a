// The per-thread record of the portable layer: buffers whose results stay
// valid until the next such call on the same thread. Thread-safe by design
// (each thread sees only its own record).
#pragma once

#include <pwd.h>
#include <stddef.h>
#include <time.h>

#define KV_CTIME_BUFSIZE 26
#define KV_KVUI_BUFCOUNT 8
#define KV_KVUI_BUFSIZE 64

struct liblocal_t_struct {
    char ctime_buf[KV_CTIME_BUFSIZE];  // kv_ctime
    struct tm localtime_tm;            // kv_localtime
    struct passwd pw_ent;              // kv_ts_getpwuid
    char* pw_buf;                      // grows by doubling on ERANGE
    size_t pw_bufsize;
    char kvui_buf[KV_KVUI_BUFCOUNT][KV_KVUI_BUFSIZE];  // kvui_to_string rotation
    int kvui_next;
};

// The calling thread's record, made on first use. Never null: a failed
// allocation is retried every 2 seconds.
liblocal_t_struct* get_liblocal_t_varp(void);
