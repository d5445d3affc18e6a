// Time calls.
#include "liblocal/kv_time.h"

#include <errno.h>
#include <string.h>

#include "liblocal/kv_error.h"
#include "liblocal/kv_tls.h"

namespace {
thread_local kv_time64_t t_svc_now = 0;

// Forever compares above every real time, however far in the future.
int64_t cmp_key(kv_time64_t t) {
    return t == KV_FOREVER_TIME ? INT64_MAX : t;
}
}  // namespace

kv_time64_t kv_time(kv_time64_t* tp) {
    kv_time64_t now = static_cast<kv_time64_t>(time(nullptr));
    if (tp != nullptr) *tp = now;
    return now;
}

char* kv_ctime(kv_time64_t t) {
    liblocal_t_struct* rec = get_liblocal_t_varp();
    time_t tt = static_cast<time_t>(t);
    struct tm tmv;
    // asctime's 26 bytes hold only four-digit years.
    if (localtime_r(&tt, &tmv) == nullptr || tmv.tm_year > 9999 - 1900 || tmv.tm_year < -1900 ||
        asctime_r(&tmv, rec->ctime_buf) == nullptr) {
        rec->ctime_buf[0] = '\0';
    }
    return rec->ctime_buf;
}

struct tm* kv_localtime(kv_time64_t t) {
    liblocal_t_struct* rec = get_liblocal_t_varp();
    time_t tt = static_cast<time_t>(t);
    if (localtime_r(&tt, &rec->localtime_tm) == nullptr) {
        kv_error_set_errno(errno);
        return nullptr;
    }
    return &rec->localtime_tm;
}

kv_time64_t kv_mktime(struct tm* t) {
    if (t == nullptr) {
        kv_error_set_errno(EINVAL);
        return -1;
    }
    return static_cast<kv_time64_t>(mktime(t));
}

int kv_time_cmp(kv_time64_t time1, kv_time64_t time2) {
    int64_t a = cmp_key(time1), b = cmp_key(time2);
    return a < b ? -1 : (a > b ? 1 : 0);
}

int32_t kv_time64_to_32(kv_time64_t t) {
    if (t >= KV_FOREVER_TIME) return static_cast<int32_t>(KV_FOREVER_TIME);
    if (t < INT32_MIN) return INT32_MIN;
    return static_cast<int32_t>(t);
}

kv_timeoffset_t kv_time64_to_offset(kv_time64_t t) {
    return kv_time64_to_32(t);
}

kv_time64_t kv_timeoffset_to_64(kv_timeoffset_t off) {
    return static_cast<kv_time64_t>(off);
}

kv_timeoffset_t kv_forever_timeoffset(void) {
    return KV_FOREVER_TIMEOFFSET;
}

int kv_is_forever_time(kv_time64_t t) {
    return t == KV_FOREVER_TIME ? 1 : 0;
}

int kv_is_forever_timeoffset(kv_timeoffset_t off) {
    return off == KV_FOREVER_TIMEOFFSET ? 1 : 0;
}

kv_time64_t svc_time(void) {
    if (t_svc_now == 0) t_svc_now = kv_time(nullptr);
    return t_svc_now;
}

void svc_time_reset(void) {
    t_svc_now = 0;
}

int64_t timeval_diff(const struct timeval* end, const struct timeval* start) {
    if (end == nullptr || start == nullptr) return 0;
    return (static_cast<int64_t>(end->tv_sec) - start->tv_sec) * 1000000 +
           (static_cast<int64_t>(end->tv_usec) - start->tv_usec);
}

int64_t gettimediff_usec(const struct timeval* start) {
    struct timeval now;
    kv_gettimeofday_current_time(&now);
    return timeval_diff(&now, start);
}

int kv_gettimeofday_perf(struct timeval* tv) {
    if (tv == nullptr) return -1;
    struct timespec ts;
    if (clock_gettime(CLOCK_MONOTONIC, &ts) != 0) return -1;
    tv->tv_sec = ts.tv_sec;
    tv->tv_usec = ts.tv_nsec / 1000;
    return 0;
}

int kv_gettimeofday_current_time(struct timeval* tv) {
    if (tv == nullptr) return -1;
    return gettimeofday(tv, nullptr);
}
