// File calls with path conversion and 64-bit offsets.
#include "liblocal/kv_file.h"

#include <errno.h>
#include <fcntl.h>
#include <stdlib.h>
#include <string.h>
#include <unistd.h>

#include "liblocal/kv_error.h"
#include "liblocal/kv_mem.h"
#include "liblocal/kv_print.h"
#include "liblocal/kv_tls.h"
#include "liblocal/kv_utf8.h"

namespace {
const unsigned char k_bom[3] = {0xEF, 0xBB, 0xBF};

// Runs `f` on the locale form of `path`, keeping errno and setting the last
// error on failure.
template <typename F>
auto with_path(const char* path, F f) -> decltype(f(path)) {
    if (path == nullptr) {
        errno = EINVAL;
        kv_error_set_errno(EINVAL);
        return static_cast<decltype(f(path))>(-1);
    }
    char* p = kv_syscalls_utf8s_to_mbs(path);
    auto rc = f(p);
    int saved = errno;
    kv_conv_free(path, p);
    if (rc < 0) kv_error_set_errno(saved);
    errno = saved;
    return rc;
}

bool exists(const char* path) {
    struct stat sb;
    return lstat(path, &sb) == 0;
}

// Reads the first three bytes and leaves the stream after a mark, or at the
// start when there is none.
void skip_stream_bom(FILE* fp) {
    unsigned char b[3];
    if (fseeko(fp, 0, SEEK_SET) != 0) return;
    size_t n = fread(b, 1, 3, fp);
    if (n == 3 && memcmp(b, k_bom, 3) == 0) return;
    clearerr(fp);
    fseeko(fp, 0, SEEK_SET);
}

void skip_fd_bom(int fd) {
    unsigned char b[3];
    ssize_t n = pread(fd, b, 3, 0);
    if (n == 3 && memcmp(b, k_bom, 3) == 0) lseek(fd, 3, SEEK_SET);
}
}  // namespace

FILE* kv_fopen(const char* path, const char* mode, int flag) {
    if (mode == nullptr) {
        kv_error_set_errno(EINVAL);
        errno = EINVAL;
        return nullptr;
    }
    bool reading = mode[0] == 'r';
    bool appending = mode[0] == 'a';
    bool writing = mode[0] == 'w';
    bool plus = strchr(mode, '+') != nullptr;
    FILE* fp = nullptr;
    bool existed = false;
    with_path(path, [&](const char* p) {
        existed = exists(p);
        fp = fopen64(p, mode);
        return fp == nullptr ? -1 : 0;
    });
    if (fp == nullptr) return nullptr;
    if ((flag & KV_FOPEN_SKIP_BOM) && (reading || (appending && plus))) {
        skip_stream_bom(fp);
        flag |= KV_FOPEN_UTF8;
    }
    if ((flag & KV_FOPEN_WRITE_BOM) && (writing || (appending && !existed))) {
        fwrite(k_bom, 1, 3, fp);
        flag |= KV_FOPEN_UTF8;
    }
    if (flag & KV_FOPEN_UTF8) kv_set_utf8_fp(fp, 1);
    return fp;
}

int kv_open(const char* path, int oflag, mode_t mode, int flag) {
    bool existed = false;
    int fd = with_path(path, [&](const char* p) {
        existed = exists(p);
        return open64(p, oflag, mode);
    });
    if (fd < 0) return fd;
    int acc = oflag & O_ACCMODE;
    if ((flag & KV_FOPEN_SKIP_BOM) && acc != O_WRONLY) {
        skip_fd_bom(fd);
        flag |= KV_FOPEN_UTF8;
    }
    if ((flag & KV_FOPEN_WRITE_BOM) && acc != O_RDONLY &&
        ((oflag & O_TRUNC) || ((oflag & O_CREAT) && !existed))) {
        if (write(fd, k_bom, 3) == 3) flag |= KV_FOPEN_UTF8;
    }
    if (flag & KV_FOPEN_UTF8) kv_set_utf8_fd(fd, 1);
    return fd;
}

int kv_access(const char* path, int amode) {
    return with_path(path, [=](const char* p) { return access(p, amode); });
}

int kv_stat(const char* path, struct kv_stat* sbp) {
    return with_path(path, [=](const char* p) { return stat(p, sbp); });
}

int kv_lstat(const char* path, struct kv_stat* sbp) {
    return with_path(path, [=](const char* p) { return lstat(p, sbp); });
}

int kv_fstat(int fd, struct kv_stat* sbp) {
    int rc = fstat(fd, sbp);
    if (rc != 0) kv_error_set_errno(errno);
    return rc;
}

int kv_chmod(const char* path, mode_t mode) {
    return with_path(path, [=](const char* p) { return chmod(p, mode); });
}

off_t kv_lseek(int fd, off_t offset, int whence) {
    off_t rc = lseek64(fd, offset, whence);
    if (rc < 0) kv_error_set_errno(errno);
    return rc;
}

int kv_ftruncate(int fd, off_t length) {
    int rc = ftruncate64(fd, length);
    if (rc != 0) kv_error_set_errno(errno);
    return rc;
}

int kv_truncate(const char* path, off_t length) {
    return with_path(path, [=](const char* p) { return truncate64(p, length); });
}

int kv_fsync(int fd) {
    int rc = fsync(fd);
    if (rc != 0) kv_error_set_errno(errno);
    return rc;
}

ssize_t kv_readv(int fd, const struct iovec* iov, int iovcnt) {
    ssize_t rc = readv(fd, iov, iovcnt);
    if (rc < 0) kv_error_set_errno(errno);
    return rc;
}

ssize_t kv_writev(int fd, const struct iovec* iov, int iovcnt) {
    ssize_t rc = writev(fd, iov, iovcnt);
    if (rc < 0) kv_error_set_errno(errno);
    return rc;
}

int kv_stat_unlink(const char* file, struct kv_stat* sbp, int absence_ok) {
    struct kv_stat local;
    if (sbp == nullptr) sbp = &local;
    return with_path(file, [=](const char* p) {
        if (lstat(p, sbp) != 0) return (errno == ENOENT && absence_ok) ? 0 : -1;
        if (S_ISDIR(sbp->st_mode)) return rmdir(p);
        if (unlink(p) == 0) return 0;
        // A read-only file in a writable folder: the second try is for
        // systems that refuse to remove what the owner cannot write.
        int saved = errno;
        if (chmod(p, 0777) != 0) {
            errno = saved;
            return -1;
        }
        return unlink(p);
    });
}

int kv_unlink(const char* file) {
    struct kv_stat sb;
    return kv_stat_unlink(file, &sb, 0);
}

int remove_my_file(char* filename) {
    return kv_unlink(filename);
}

struct passwd* kv_ts_getpwuid(uid_t uid) {
    liblocal_t_struct* t = get_liblocal_t_varp();
    if (t->pw_buf == nullptr) {
        long hint = sysconf(_SC_GETPW_R_SIZE_MAX);
        t->pw_bufsize = hint > 0 ? static_cast<size_t>(hint) : 1024;
        t->pw_buf = static_cast<char*>(xmalloc(t->pw_bufsize));
    }
    for (;;) {
        struct passwd* res = nullptr;
        int rc = getpwuid_r(uid, &t->pw_ent, t->pw_buf, t->pw_bufsize, &res);
        if (rc == ERANGE) {
            t->pw_bufsize *= 2;
            free(t->pw_buf);
            t->pw_buf = static_cast<char*>(xmalloc(t->pw_bufsize));
            continue;
        }
        if (rc != 0) kv_error_set_errno(rc);
        return res;
    }
}
