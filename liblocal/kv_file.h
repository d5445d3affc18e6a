// File calls of the portable layer: each converts a UTF-8 path to the
// locale's form, uses 64-bit offsets, and reports failures through the
// per-thread last error. Thread-safe.
#pragma once

#include <pwd.h>
#include <stdio.h>
#include <sys/stat.h>
#include <sys/types.h>
#include <sys/uio.h>

// The library's stat record (64-bit sizes on every supported system).
struct kv_stat : public stat {};

// kv_fopen / kv_open flags.
#define KV_FOPEN_SKIP_BOM 1   // reading (and "a+"): skip a UTF-8 mark at the start
#define KV_FOPEN_WRITE_BOM 2  // writing a new or truncated file: start it with a mark
#define KV_FOPEN_UTF8 4       // flag the stream as UTF-8 (kv_set_utf8_fp)

FILE* kv_fopen(const char* path, const char* mode, int flag);
int kv_open(const char* path, int oflag, mode_t mode, int flag);

int kv_access(const char* path, int amode);
int kv_stat(const char* path, struct kv_stat* sbp);
int kv_lstat(const char* path, struct kv_stat* sbp);
int kv_fstat(int fd, struct kv_stat* sbp);
int kv_chmod(const char* path, mode_t mode);
off_t kv_lseek(int fd, off_t offset, int whence);
int kv_ftruncate(int fd, off_t length);
int kv_truncate(const char* path, off_t length);
int kv_fsync(int fd);
ssize_t kv_readv(int fd, const struct iovec* iov, int iovcnt);
ssize_t kv_writev(int fd, const struct iovec* iov, int iovcnt);

// lstat, then rmdir for a directory and unlink for anything else; a failed
// unlink is tried once more after setting the mode to 0777. A missing file
// gives -1, or 0 with `absence_ok`. `sbp` receives the lstat record.
int kv_stat_unlink(const char* file, struct kv_stat* sbp, int absence_ok);
int kv_unlink(const char* file);  // missing file is an error
int remove_my_file(char* filename);

// getpwuid_r into the calling thread's buffer (grown while the system says
// ERANGE). Valid until the next call on this thread; null when not found.
struct passwd* kv_ts_getpwuid(uid_t uid);
