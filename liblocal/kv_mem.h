// Checked allocators: they never return null. On failure they sleep one
// second and try again, so callers need no failure path. Thread-safe.
#pragma once

#include <stddef.h>

void* xmalloc(size_t size);
void* xcalloc(size_t nmemb, size_t size);
void* xrealloc(void* ptr, size_t size);
char* xstrdup(const char* s);  // null gives null
char* xstrndup(const char* s, size_t n);
