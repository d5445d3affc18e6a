// The foundation's trace switches and its one writer.
#include "liblocal/kv_trace.h"

#include <stdarg.h>
#include <stdio.h>

#include <atomic>
#include <string>

int Debug = 0;
unsigned long Debug_mask = 0;

namespace {
std::atomic<kv_trace_hook_fn> g_hook{nullptr};
}  // namespace

int kv_trace_on(int level, unsigned long mask) {
    return (Debug > 0 && Debug >= level) || (Debug_mask & mask) != 0;
}

kv_trace_hook_fn kv_set_trace_hook(kv_trace_hook_fn fn) {
    return g_hook.exchange(fn);
}

void kv_trace(int level, unsigned long mask, const char* format, ...) {
    kv_trace_hook_fn hook = g_hook.load();
    bool on = kv_trace_on(level, mask) != 0;
    if (hook == nullptr && !on) return;
    va_list ap;
    va_start(ap, format);
    char small[1024];
    va_list again;
    va_copy(again, ap);
    int n = vsnprintf(small, sizeof small, format, ap);
    std::string big;
    const char* line = small;
    if (n >= static_cast<int>(sizeof small)) {
        big.resize(static_cast<size_t>(n) + 1);
        vsnprintf(&big[0], big.size(), format, again);
        line = big.c_str();
    }
    va_end(again);
    va_end(ap);
    if (n < 0) return;
    if (hook != nullptr) hook(level, static_cast<unsigned>(mask), line);
    if (on) {
        fputs(line, stderr);
        fflush(stderr);
    }
}
