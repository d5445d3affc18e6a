// Printing with the UTF-8 convention, stream flags and closing.
#include "liblocal/kv_print.h"

#include <errno.h>
#include <stdlib.h>
#include <string.h>
#include <unistd.h>

#include <set>

#include "liblocal/kv_error.h"
#include "liblocal/kv_mem.h"
#include "liblocal/kv_thread.h"
#include "liblocal/kv_utf8.h"

namespace {
struct Flags {
    std::set<FILE*> user_fp, utf8_fp;
    std::set<int> user_fd, utf8_fd;
};
KVOnce g_once = KV_ONCE_INIT;
KVMutex g_mutex = nullptr;
Flags* g_flags = nullptr;

void init_flags(void) {
    g_mutex = kv_mutex_new();
    g_flags = new Flags;
}

template <typename F>
auto with_flags(F f) {
    kv_once(&g_once, init_flags);
    kv_mutex_lock(g_mutex);
    auto r = f(*g_flags);
    kv_mutex_unlock(g_mutex);
    return r;
}

template <typename T>
int set_flag(std::set<T>& s, T key, int on) {
    if (on)
        s.insert(key);
    else
        s.erase(key);
    return 0;
}

bool wants_conversion(FILE* fp) {
    return kv_is_user_fp(fp) && !kv_is_utf8_fp(fp);
}

void drop_fd(int fd) {
    with_flags([fd](Flags& f) {
        f.user_fd.erase(fd);
        f.utf8_fd.erase(fd);
        return 0;
    });
}
}  // namespace

void kv_set_user_fp(FILE* fp, int on) {
    with_flags([=](Flags& f) { return set_flag(f.user_fp, fp, on); });
}
void kv_set_user_fd(int fd, int on) {
    with_flags([=](Flags& f) { return set_flag(f.user_fd, fd, on); });
}
void kv_set_utf8_fp(FILE* fp, int on) {
    with_flags([=](Flags& f) { return set_flag(f.utf8_fp, fp, on); });
}
void kv_set_utf8_fd(int fd, int on) {
    with_flags([=](Flags& f) { return set_flag(f.utf8_fd, fd, on); });
}

int kv_is_user_fd(int fd) {
    return with_flags([=](Flags& f) { return f.user_fd.count(fd) ? 1 : 0; });
}
int kv_is_utf8_fd(int fd) {
    return with_flags([=](Flags& f) { return f.utf8_fd.count(fd) ? 1 : 0; });
}
int kv_is_user_fp(FILE* fp) {
    if (fp == nullptr) return 0;
    int fd = fileno(fp);
    return with_flags(
        [=](Flags& f) { return (f.user_fp.count(fp) || f.user_fd.count(fd)) ? 1 : 0; });
}
int kv_is_utf8_fp(FILE* fp) {
    if (fp == nullptr) return 0;
    int fd = fileno(fp);
    return with_flags(
        [=](Flags& f) { return (f.utf8_fp.count(fp) || f.utf8_fd.count(fd)) ? 1 : 0; });
}

int kv_vfprintf(FILE* fp, const char* format, va_list ap) {
    if (fp == nullptr || format == nullptr) {
        kv_error_set_errno(EINVAL);
        return -1;
    }
    va_list ap2;
    va_copy(ap2, ap);
    char small[512];
    int n = vsnprintf(small, sizeof(small), format, ap2);
    va_end(ap2);
    if (n < 0) return -1;
    char* text = small;
    if (static_cast<size_t>(n) >= sizeof(small)) {
        text = static_cast<char*>(xmalloc(static_cast<size_t>(n) + 1));
        vsnprintf(text, static_cast<size_t>(n) + 1, format, ap);
    }
    int rc = kv_fputs(text, fp);
    if (text != small) free(text);
    return rc < 0 ? -1 : n;
}

int kv_fprintf(FILE* fp, const char* format, ...) {
    va_list ap;
    va_start(ap, format);
    int n = kv_vfprintf(fp, format, ap);
    va_end(ap);
    return n;
}

int kv_vprintf(const char* format, va_list ap) {
    return kv_vfprintf(stdout, format, ap);
}

int kv_printf(const char* format, ...) {
    va_list ap;
    va_start(ap, format);
    int n = kv_vfprintf(stdout, format, ap);
    va_end(ap);
    return n;
}

int kv_fputs(const char* s, FILE* fp) {
    if (s == nullptr || fp == nullptr) {
        kv_error_set_errno(EINVAL);
        return EOF;
    }
    if (!wants_conversion(fp)) return fputs(s, fp);
    char* conv = kv_syscalls_utf8s_to_mbs(s);
    int rc = fputs(conv, fp);
    kv_conv_free(s, conv);
    return rc;
}

int kv_puts(const char* s) {
    if (kv_fputs(s, stdout) == EOF) return EOF;
    return fputc('\n', stdout) == EOF ? EOF : 1;
}

char* kv_fgets(char* s, int n, FILE* stream) {
    if (s == nullptr || n <= 0 || stream == nullptr) {
        kv_error_set_errno(EINVAL);
        return nullptr;
    }
    if (fgets(s, n, stream) == nullptr) return nullptr;
    if (!wants_conversion(stream)) return s;
    char* conv = kv_syscalls_mbs_to_utf8s(s);
    if (conv == s) return s;
    // The UTF-8 form can be longer; never split a character when cutting it.
    size_t len = strlen(conv);
    if (len >= static_cast<size_t>(n)) {
        len = static_cast<size_t>(n) - 1;
        while (len > 0 && (static_cast<unsigned char>(conv[len]) & 0xC0) == 0x80) --len;
    }
    memcpy(s, conv, len);
    s[len] = '\0';
    free(conv);
    return s;
}

int kv_close(int fd) {
    if (fd < 1) return 0;
    drop_fd(fd);
    int rc = close(fd);
    if (rc != 0) kv_error_set_errno(errno);
    return rc;
}

int kv_fclose(FILE* fp) {
    if (fp == nullptr) {
        kv_error_set_errno(EINVAL);
        return EOF;
    }
    int fd = fileno(fp);
    if (fd >= 0 && fd < 1) return 0;
    with_flags([fp](Flags& f) {
        f.user_fp.erase(fp);
        f.utf8_fp.erase(fp);
        return 0;
    });
    if (fd >= 0) drop_fd(fd);
    int rc = fclose(fp);
    if (rc != 0) kv_error_set_errno(errno);
    return rc;
}
