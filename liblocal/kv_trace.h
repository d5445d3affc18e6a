// The foundation's trace: a global level (Debug) and a bit mask
// (Debug_mask); a line is written to standard error when either allows it.
// Thread-safe (the switches are plain ints read without a lock).
#pragma once

extern int Debug;
extern unsigned long Debug_mask;

// True when the trace is on at this level (Debug >= level) or for one of
// the bits of mask.
int kv_trace_on(int level, unsigned long mask);
void kv_trace(int level, unsigned long mask, const char* format, ...)
    __attribute__((format(printf, 3, 4)));
