// Per-thread last error and the errno <-> portable code mapping.
#include "liblocal/kv_error.h"

#include <errno.h>
#include <langinfo.h>
#include <netdb.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <strings.h>

#include "liblocal/kv_utf8.h"

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
    {0, 0},           {EINVAL, KV_EINVAL}, {ENOMEM, 3},
    {EACCES, 4},      {EPERM, 4},          {ENOENT, 5},
    {EEXIST, 6},      {EAGAIN, 7},         {EBADF, 8},
    {EINTR, 9},       {ETIMEDOUT, 10},     {ENOSYS, 11},
    {EBUSY, 12},      {EIO, 13},           {ENOSPC, 14},
    {EDEADLK, 15},    {ECHILD, 16},        {ENOTDIR, 17},
    {EISDIR, 18},     {ERANGE, 19},        {ECONNREFUSED, 20},
    {ECONNRESET, 21}, {EPIPE, 22},         {ENAMETOOLONG, 23},
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

void kv_error_clear_last(void) {
    t_last = LastError();
}

KVError kv_error_set_errno(int err) {
    kv_error_set_last(KV_ERRKIND_ERRNO, err);
    return kv_error_from_errno(err);
}

namespace {
const size_t kStrerrorSize = 1024;
thread_local char t_strerror_buf[kStrerrorSize];

// Converts the locale's text in buf to UTF-8 in place; left as it is when
// there is nothing to convert or the conversion fails.
void to_utf8(char* buf, size_t size) {
    const char* cs = nl_langinfo(CODESET);
    if (cs == nullptr || *cs == '\0' || kv_locale_is_utf8()) return;
    if (strcmp(cs, "646") == 0 || strcmp(cs, "ANSI_X3.4-1968") == 0) cs = "ISO8859-1";
    char* out = kv_iconv_dup("UTF-8", cs, buf);
    if (out == nullptr) return;
    snprintf(buf, size, "%s", out);
    free(out);
}
}  // namespace

char* kv_strerror(int errnum) {
    int saved_errno = errno;
    int kind = 0;
    int code = kv_error_get_last(&kind);
    char* buf = t_strerror_buf;
    if ((errnum & (1 << 28)) != 0) {
        snprintf(buf, kStrerrorSize, "%s", "Unknown error");
    } else {
        char tmp[kStrerrorSize];
        const char* t = strerror_r(errnum, tmp, sizeof(tmp));
        snprintf(buf, kStrerrorSize, "%s", t != nullptr ? t : "Unknown error");
        to_utf8(buf, kStrerrorSize);
    }
    kv_error_set_last(kind, code);
    errno = saved_errno;
    return buf;
}

const char* kv_error_get_message(void) {
    int kind = 0;
    int code = kv_error_get_last(&kind);
    if (kind == KV_ERRKIND_GAI) {
        snprintf(t_strerror_buf, kStrerrorSize, "%s", gai_strerror(code));
        return t_strerror_buf;
    }
    if (kind == KV_ERRKIND_ERRNO) return kv_strerror(code);
    t_strerror_buf[0] = '\0';
    return t_strerror_buf;
}
