// The per-thread last error of the foundation library, and the one place
// where errno becomes a portable code. Thread-safe (per-thread state).
#pragma once

#include "liblocal/kv_types.h"

// Kinds of a last error.
#define KV_ERRKIND_ERRNO 1
#define KV_ERRKIND_GAI 2

KVError kv_error_from_errno(int err);  // 1 for an errno it does not know
int kv_error_to_errno(KVError code);
KVError kv_error_from_gai(int gai_err);

void kv_error_set_last(int kind, int code);
int kv_error_get_last(int* kind_out);  // kind_out may be null
void kv_error_clear_last(void);
// Sets the last error from errno (kind 1) and returns the portable code.
KVError kv_error_set_errno(int err);

// Text of a system error number, UTF-8, in a per-thread buffer of 1024
// bytes (valid until the next call on the thread). errno and the last-error
// record are left as they were.
char* kv_strerror(int errnum);
// Text of the thread's last error (by its kind), in the same buffer.
const char* kv_error_get_message(void);
