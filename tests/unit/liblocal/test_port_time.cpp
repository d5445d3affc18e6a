// Time of the portable layer: ordering with the forever value, narrowing,
// per-thread buffers and the cached "now".
#include <gtest/gtest.h>

#include <string.h>

#include <string>
#include <thread>

#include "liblocal/kv_time.h"

TEST(PortTime, ForeverComparesAboveEveryTime) {
    const kv_time64_t later = static_cast<kv_time64_t>(0x7FFFFFFF) + 1000;
    EXPECT_EQ(1, kv_time_cmp(KV_FOREVER_TIME, later));
    EXPECT_EQ(-1, kv_time_cmp(later, KV_FOREVER_TIME));
    EXPECT_EQ(1, kv_time_cmp(KV_FOREVER_TIME, INT64_MAX - 1));
    EXPECT_EQ(0, kv_time_cmp(KV_FOREVER_TIME, KV_FOREVER_TIME));
    EXPECT_EQ(-1, kv_time_cmp(5, 6));
    EXPECT_EQ(1, kv_time_cmp(0x7FFFFFFE + 2LL, 0x7FFFFFFE));
    EXPECT_EQ(-1, kv_time_cmp(-1, 0));
}

TEST(PortTime, NarrowingKeepsForever) {
    EXPECT_EQ(0x7FFFFFFF, kv_time64_to_32(KV_FOREVER_TIME));
    EXPECT_EQ(0x7FFFFFFF, kv_time64_to_32(static_cast<kv_time64_t>(1) << 40));
    EXPECT_EQ(1234, kv_time64_to_32(1234));
    EXPECT_EQ(1, kv_is_forever_timeoffset(kv_time64_to_offset(KV_FOREVER_TIME)));
    EXPECT_EQ(1, kv_is_forever_time(kv_timeoffset_to_64(kv_forever_timeoffset())));
    EXPECT_EQ(0, kv_is_forever_time(0));
}

TEST(PortTime, TimeStoresThroughPointerAndCtimeFitsItsBuffer) {
    kv_time64_t t = 0;
    kv_time64_t r = kv_time(&t);
    EXPECT_EQ(r, t);
    char* text = kv_ctime(0);
    EXPECT_LT(strlen(text), 26u);
    EXPECT_NE(nullptr, strstr(text, "19"));  // 1969 or 1970 by time zone
    // Years beyond four digits cannot be shown in 26 bytes.
    EXPECT_STREQ("", kv_ctime(static_cast<kv_time64_t>(1) << 50));
}

TEST(PortTime, PerThreadBuffersDoNotMix) {
    struct tm* mine = kv_localtime(86400 * 365);
    ASSERT_NE(nullptr, mine);
    int year = mine->tm_year;
    std::thread other([] {
        struct tm* theirs = kv_localtime(86400LL * 365 * 40);
        ASSERT_NE(nullptr, theirs);
        EXPECT_GT(theirs->tm_year, 100);
    });
    other.join();
    EXPECT_EQ(year, mine->tm_year);
    struct tm copy = *kv_localtime(1000000000);
    EXPECT_EQ(1000000000, kv_mktime(&copy));
}

TEST(PortTime, SvcTimeIsCachedUntilReset) {
    svc_time_reset();
    kv_time64_t first = svc_time();
    EXPECT_EQ(first, svc_time());
    svc_time_reset();
    EXPECT_GE(svc_time(), first);
}

TEST(PortTime, Differences) {
    struct timeval a = {10, 900000}, b = {12, 100000};
    EXPECT_EQ(1200000, timeval_diff(&b, &a));
    EXPECT_EQ(-1200000, timeval_diff(&a, &b));
    struct timeval p1, p2;
    ASSERT_EQ(0, kv_gettimeofday_perf(&p1));
    ASSERT_EQ(0, kv_gettimeofday_perf(&p2));
    EXPECT_GE(timeval_diff(&p2, &p1), 0);
    struct timeval now;
    ASSERT_EQ(0, kv_gettimeofday_current_time(&now));
    EXPECT_GE(gettimediff_usec(&now), 0);
}
