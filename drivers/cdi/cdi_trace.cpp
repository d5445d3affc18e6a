// The device interface's own trace (level from CDI_DEBUG, per thread) and the
// per-thread state that carries that level. The trace goes to standard error
// unless a stream is set with cdi_set_trace_stream; never to standard output,
// which belongs to the host process.
#include <stdarg.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include <atomic>

#include "drivers/cdi/cdi_priv.h"
#include "drivers/cdi/cdi_trace.h"
#include "liblocal/kv_mem.h"
#include "liblocal/kv_thread.h"

// The pass-through owns the device cache; it frees it when a thread ends.
void cdi_sg_list_free(sgnum_list* list);
int cdi_os_detect_sg_io(void);

namespace {

KVOnce key_once = KV_ONCE_INIT;
KVThreadStorage cdi_key = nullptr;
std::atomic<FILE*> trace_stream{nullptr};

void make_key(void) {
    cdi_key = kv_threadstorage_new(cdi_t_clean);
}

int debug_from_env(void) {
    const char* v = getenv("CDI_DEBUG");
    return v ? atoi(v) : 0;
}

}  // namespace

cdi_t_struct* cdi_t_get(void) {
    kv_once(&key_once, make_key);
    cdi_t_struct* t = static_cast<cdi_t_struct*>(kv_threadstorage_get(cdi_key));
    if (t) return t;
    t = static_cast<cdi_t_struct*>(xcalloc(1, sizeof(cdi_t_struct)));
    t->cdi_debug = debug_from_env();
    t->use_SG_IO = cdi_os_detect_sg_io();
    kv_threadstorage_set(cdi_key, t);
    return t;
}

void cdi_t_clean(void* state) {
    cdi_t_struct* t = static_cast<cdi_t_struct*>(state);
    if (!t) return;
    cdi_sg_list_free(t->sg_list);
    free(t);
}

void cdi_t_reset_thread(void) {
    kv_once(&key_once, make_key);
    cdi_t_struct* t = static_cast<cdi_t_struct*>(kv_threadstorage_get(cdi_key));
    kv_threadstorage_set(cdi_key, nullptr);
    cdi_t_clean(t);
}

int cdi_get_debug_level(void) {
    return cdi_t_get()->cdi_debug;
}
void cdi_set_debug_level(int level) {
    cdi_t_get()->cdi_debug = level;
}

FILE* cdi_set_trace_stream(FILE* fp) {
    return trace_stream.exchange(fp);
}

void cdi_dprintf(int level, const char* fmt, ...) {
    if (level > cdi_t_get()->cdi_debug) return;
    FILE* fp = trace_stream.load();
    if (!fp) fp = stderr;
    va_list ap;
    va_start(ap, fmt);
    vfprintf(fp, fmt, ap);
    va_end(ap);
    fflush(fp);
}

void cdi_hex_line(const unsigned char* p, int len, char* out, size_t outlen) {
    static const char hex[] = "0123456789abcdef";
    size_t o = 0;
    for (int i = 0; i < len && o + 4 <= outlen; i++) {
        out[o++] = hex[p[i] >> 4];
        out[o++] = hex[p[i] & 15];
        out[o++] = ' ';
    }
    if (outlen) out[o < outlen ? o : outlen - 1] = '\0';
}

void cdi_dump_cdb(int level, const unsigned char* cdb, int len) {
    if (level > cdi_t_get()->cdi_debug) return;
    if (!cdb || len <= 0) {
        cdi_dprintf(level, "CDI info: CDB (none)\n");
        return;
    }
    if (len > 255) len = 255;
    char line[3 * 255 + 1];
    cdi_hex_line(cdb, len, line, sizeof line);
    cdi_dprintf(level, "CDI info: CDB[%d]: %s\n", len, line);
}

void cdi_dump_buffer(int level, const unsigned char* buf, long len) {
    if (level > cdi_t_get()->cdi_debug) return;
    if (!buf || len <= 0) return;
    for (long off = 0; off < len; off += 16) {
        int n = len - off < 16 ? static_cast<int>(len - off) : 16;
        char line[3 * 16 + 1];
        cdi_hex_line(buf + off, n, line, sizeof line);
        cdi_dprintf(level, "CDI info: %06lx: %s\n", off, line);
    }
}
