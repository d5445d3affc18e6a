// Per-thread last error and the errno <-> portable code mapping.
#include "liblocal/kv_error.h"

#include <errno.h>
#include <netdb.h>

namespace {
struct LastError {
    int kind = 0;
    int code = 0;
};
thread_local LastError t_last;

// Portable codes: stable across platforms, unlike errno values.
struct Pair {
    int err;
    KVError code;
};
const Pair k_map[] = {
    {0, 0},           {EINVAL, KV_EINVAL}, {ENOMEM, 3},  {EACCES, 4},  {EPERM, 4},
    {ENOENT, 5},      {EEXIST, 6},         {EAGAIN, 7},  {EBADF, 8},   {EINTR, 9},
    {ETIMEDOUT, 10},  {ENOSYS, 11},        {EBUSY, 12},  {EIO, 13},    {ENOSPC, 14},
    {EDEADLK, 15},    {ECHILD, 16},        {ENOTDIR, 17}, {EISDIR, 18}, {ERANGE, 19},
    {ECONNREFUSED, 20}, {ECONNRESET, 21},  {EPIPE, 22},  {ENAMETOOLONG, 23},
};
}  // namespace

KVError kv_error_from_errno(int err) {
    for (const Pair& p : k_map)
        if (p.err == err) return p.code;
    return 1;
}

int kv_error_to_errno(KVError code) {
    for (const Pair& p : k_map)
        if (p.code == code) return p.err;
    return EIO;
}

KVError kv_error_from_gai(int gai_err) {
    switch (gai_err) {
        case 0: return 0;
        case EAI_MEMORY: return 3;
        case EAI_AGAIN: return 7;
        case EAI_NONAME: return 5;
        case EAI_SYSTEM: return kv_error_from_errno(errno);
        default: return 1;
    }
}

void kv_error_set_last(int kind, int code) {
    t_last.kind = kind;
    t_last.code = code;
}

int kv_error_get_last(int* kind_out) {
    if (kind_out != nullptr) *kind_out = t_last.kind;
    return t_last.code;
}

void kv_error_clear_last(void) { t_last = LastError(); }

KVError kv_error_set_errno(int err) {
    kv_error_set_last(KV_ERRKIND_ERRNO, err);
    return kv_error_from_errno(err);
}
