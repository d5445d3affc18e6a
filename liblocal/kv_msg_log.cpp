// Log files of messages: opening with roll-out by size, and msg_fprintf,
// through which every message line reaches a stream. A regular file is
// written under the advisory lock so that processes sharing a log keep
// whole lines; the in-process layer of that lock keeps threads apart too.
#include <errno.h>
#include <fcntl.h>
#include <stdarg.h>
#include <stdio.h>
#include <string.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <string>

#include "liblocal/kv_lock.h"
#include "liblocal/kv_msg.h"
#include "liblocal/kv_msg_internal.h"

FILE* g_cust_log_fp = nullptr;
FILE* g_rend_log_fp = nullptr;
FILE* g_audit_log_fp = nullptr;
int g_log_flags = 0;

namespace {

const int kDefaultSizeMb = 2;
const int kDefaultVersions = 4;

std::atomic<logdtls_query_func_t> g_logdtls_func{nullptr};

// Only a regular file shared with other processes needs the file lock. A
// terminal or pipe does not, and a closed or read-only descriptor would make
// kv_lockfile retry for seconds while the host waits.
bool wants_file_lock(int fd) {
    struct stat st;
    if (fd < 0 || fstat(fd, &st) != 0 || !S_ISREG(st.st_mode)) return false;
    int fl = fcntl(fd, F_GETFL);
    return fl != -1 && (fl & O_ACCMODE) != O_RDONLY;
}

std::string versioned(const char* path, int n) {
    return std::string(path) + "." + std::to_string(n);
}

// Moves path to path.1, path.1 to path.2 and so on; the oldest falls off.
bool roll_out(const char* path, int versions) {
    if (versions < 1) return unlink(path) == 0 || errno == ENOENT;
    unlink(versioned(path, versions).c_str());
    for (int i = versions - 1; i >= 1; --i) {
        std::string from = versioned(path, i);
        if (rename(from.c_str(), versioned(path, i + 1).c_str()) != 0 && errno != ENOENT)
            return false;
    }
    return rename(path, versioned(path, 1).c_str()) == 0;
}

}  // namespace

void setlog_dtls_query_func(logdtls_query_func_t func) {
    g_logdtls_func.store(func);
}

FILE* msg_log_open(const char* path, const char* appname, int flags) {
    if (path == nullptr) return nullptr;
    int size_mb = kDefaultSizeMb;
    int versions = kDefaultVersions;
    logdtls_query_func_t q = g_logdtls_func.load();
    if (q != nullptr) q(appname, &size_mb, &versions);
    struct stat st;
    if (stat(path, &st) == 0 && size_mb >= 0 &&
        static_cast<long long>(st.st_size) > static_cast<long long>(size_mb) * 1024 * 1024) {
        if (!roll_out(path, versions))
            fprintf(stderr, "Unable to roll out old %s, continuing...\n", path);
    }
    FILE* fp = fopen(path, "ae");
    if (fp == nullptr) return nullptr;
    if (flags & MSG_LOG_RENDERED) g_rend_log_fp = fp;
    if (flags & MSG_LOG_CUSTOM) g_cust_log_fp = fp;
    if (flags & MSG_LOG_AUDIT) g_audit_log_fp = fp;
    if (flags & MSG_LOG_NOCONSOLE) g_log_flags |= MSG_LOG_NOCONSOLE;
    return fp;
}

void msg_log_close(FILE* fp) {
    if (fp == nullptr) return;
    if (g_rend_log_fp == fp) g_rend_log_fp = nullptr;
    if (g_cust_log_fp == fp) g_cust_log_fp = nullptr;
    if (g_audit_log_fp == fp) g_audit_log_fp = nullptr;
    fclose(fp);
}

int msg_fprintf(FILE* fp, const char* format, ...) {
    if (fp == nullptr || format == nullptr) return -1;
    va_list ap;
    va_start(ap, format);
    char small[1024];
    va_list aq;
    va_copy(aq, ap);
    int n = vsnprintf(small, sizeof(small), format, aq);
    va_end(aq);
    std::string big;
    const char* text = small;
    if (n >= static_cast<int>(sizeof(small))) {
        big.resize(static_cast<size_t>(n) + 1);
        vsnprintf(&big[0], big.size(), format, ap);
        text = big.c_str();
    }
    va_end(ap);
    if (n < 0) return n;
    // The stream's buffer is flushed inside the lock, so that the whole line
    // reaches the file while no other writer can append.
    int fd = fileno(fp);
    bool lock = wants_file_lock(fd);
    bool locked = lock && kv_lockfile(fd, KV_LOCK_EXCLUSIVE) == 0;
    fwrite(text, 1, static_cast<size_t>(n), fp);
    fflush(fp);
    if (locked) kv_unlockfile(fd);
    return n;
}
