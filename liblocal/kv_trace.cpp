// The foundation's trace switches and writer.
#include "liblocal/kv_trace.h"

#include <stdarg.h>
#include <stdio.h>

int Debug = 0;
unsigned long Debug_mask = 0;

int kv_trace_on(int level, unsigned long mask) {
    return (Debug > 0 && Debug >= level) || (Debug_mask & mask) != 0;
}

void kv_trace(int level, unsigned long mask, const char* format, ...) {
    if (!kv_trace_on(level, mask)) return;
    va_list ap;
    va_start(ap, format);
    vfprintf(stderr, format, ap);
    va_end(ap);
    fflush(stderr);
}
