// The foundation's trace: a global level (Debug) and a bit mask
// (Debug_mask); a line is written to standard error when either allows it,
// and handed to the hook, if one is set, whatever the switches. Thread-safe
// (the switches are plain ints read without a lock, the hook is atomic).
#pragma once

extern int Debug;
extern unsigned long Debug_mask;

// True when the trace is on at this level (Debug >= level) or for one of
// the bits of mask.
int kv_trace_on(int level, unsigned long mask);
// Sees every trace line of the library (tests, a host's own log); returns
// the hook it replaces.
typedef void (*kv_trace_hook_fn)(int level, unsigned mask, const char* text);
kv_trace_hook_fn kv_set_trace_hook(kv_trace_hook_fn fn);
void kv_trace(int level, unsigned long mask, const char* format, ...)
    __attribute__((format(printf, 3, 4)));
