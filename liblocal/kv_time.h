// Time of the portable layer: 64-bit seconds with a "forever" value, calls
// whose results live in per-thread buffers, a cached "now" per thread, and
// clock differences. Thread-safe.
#pragma once

#include <stdint.h>
#include <sys/time.h>
#include <time.h>

#include "liblocal/kv_types.h"

// A time offset in 32 bits, as older records hold it.
typedef int32_t kv_timeoffset_t;
#define KV_FOREVER_TIMEOFFSET ((kv_timeoffset_t)0x7FFFFFFF)

kv_time64_t kv_time(kv_time64_t* tp);  // stored through a non-null tp
// Text of ctime in the calling thread's 26-byte buffer; the empty text for a
// time the system cannot show.
char* kv_ctime(kv_time64_t t);
struct tm* kv_localtime(kv_time64_t t);  // per-thread; null on failure
kv_time64_t kv_mktime(struct tm* t);

// -1, 0, 1, with the forever value treated as the largest 64-bit time.
int kv_time_cmp(kv_time64_t time1, kv_time64_t time2);

// Times past the 32-bit range become forever.
int32_t kv_time64_to_32(kv_time64_t t);
kv_timeoffset_t kv_time64_to_offset(kv_time64_t t);
kv_time64_t kv_timeoffset_to_64(kv_timeoffset_t off);
kv_timeoffset_t kv_forever_timeoffset(void);
int kv_is_forever_time(kv_time64_t t);
int kv_is_forever_timeoffset(kv_timeoffset_t off);

// A cached "now" for loops that compare many times: the clock is read once
// per thread and kept until svc_time_reset.
kv_time64_t svc_time(void);
void svc_time_reset(void);

// end - start in microseconds.
int64_t timeval_diff(const struct timeval* end, const struct timeval* start);
// Microseconds from `start` to the current time of day.
int64_t gettimediff_usec(const struct timeval* start);
// A monotonic clock for measuring durations.
int kv_gettimeofday_perf(struct timeval* tv);
int kv_gettimeofday_current_time(struct timeval* tv);
