// Checked allocators.
#include "liblocal/kv_mem.h"

#include <stdlib.h>
#include <string.h>
#include <unistd.h>

namespace {
// A plug-in cannot hand an allocation failure to every caller, so it waits
// for memory instead; a size of 0 still yields a distinct pointer.
template <typename F>
void* retry(F alloc) {
    for (;;) {
        void* p = alloc();
        if (p != nullptr) return p;
        sleep(1);
    }
}
}  // namespace

void* xmalloc(size_t size) {
    if (size == 0) size = 1;
    return retry([&] { return malloc(size); });
}

void* xcalloc(size_t nmemb, size_t size) {
    if (nmemb == 0) nmemb = 1;
    if (size == 0) size = 1;
    return retry([&] { return calloc(nmemb, size); });
}

void* xrealloc(void* ptr, size_t size) {
    if (size == 0) size = 1;
    return retry([&] { return realloc(ptr, size); });
}

char* xstrdup(const char* s) {
    if (s == nullptr) return nullptr;
    size_t n = strlen(s) + 1;
    char* p = static_cast<char*>(xmalloc(n));
    memcpy(p, s, n);
    return p;
}

char* xstrndup(const char* s, size_t n) {
    if (s == nullptr) return nullptr;
    size_t len = strnlen(s, n);
    char* p = static_cast<char*>(xmalloc(len + 1));
    memcpy(p, s, len);
    p[len] = '\0';
    return p;
}
