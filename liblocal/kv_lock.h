// Advisory lock files in two layers: an in-process mutex per descriptor and
// an fcntl lock on one byte. Thread-safe and meant for use across threads
// and processes at once.
#pragma once

#include <fcntl.h>

#define KV_LOCK_EXCLUSIVE 0
#define KV_LOCK_SHARED 1

// Locks `fd` (0 exclusive, 1 shared). Waits for other threads of this process
// at the in-process layer, then makes up to four attempts at the file layer
// with 1 s (busy) or 5 s (other errors) between them; a file system without
// locks counts as locked. 0 on success, -1 with the last error set. Not a
// blocking wait: callers that must wait loop on it.
int kv_lockfile(int fd, int lock_type);
// One attempt at the file layer. 0 on success, -1 with the last error set.
int kv_trylockfile(int fd, int lock_type);
// Unlocks and releases the in-process layer. 0 for a valid descriptor.
int kv_unlockfile(int fd);

// Test hooks. The fcntl replacement sees every F_SETLK the lock calls make;
// null restores the real call. kv_lockfile_users reports how many threads
// hold or wait for the in-process layer of `fd`.
typedef int (*kv_lock_fcntl_hook_t)(int fd, int cmd, struct flock* fl);
kv_lock_fcntl_hook_t kv_set_lock_fcntl_hook(kv_lock_fcntl_hook_t hook);
int kv_lockfile_users(int fd);
