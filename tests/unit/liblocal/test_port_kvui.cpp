// Identifiers: word layout, the short and long text forms, the CRC checked
// against an independent implementation and the system's cksum, parsing back.
#include <gtest/gtest.h>

#include <arpa/inet.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <unistd.h>

#include <regex>
#include <set>
#include <string>

#include "liblocal/kvui.h"
#include "tests/support/child.h"
#include "tests/support/temp_dir.h"

namespace {
// POSIX cksum written from its definition with a table, unlike the library's
// bitwise loop: CRC-32 MSB first, then the length in bytes, then inverted.
uint32_t reference_cksum(const unsigned char* p, size_t n) {
    uint32_t table[256];
    for (uint32_t i = 0; i < 256; ++i) {
        uint32_t c = i << 24;
        for (int k = 0; k < 8; ++k) c = (c & 0x80000000u) ? (c << 1) ^ 0x04C11DB7u : (c << 1);
        table[i] = c;
    }
    uint32_t crc = 0;
    for (size_t i = 0; i < n; ++i) crc = (crc << 8) ^ table[(crc >> 24) ^ p[i]];
    for (size_t len = n; len != 0; len >>= 8) crc = (crc << 8) ^ table[(crc >> 24) ^ (len & 0xFF)];
    return ~crc;
}

uint32_t word(const kvui_t& u, int i) {
    uint32_t w;
    memcpy(&w, reinterpret_cast<const char*>(&u) + 4 * i, 4);
    return ntohl(w);
}
}  // namespace

TEST(PortKvui, CksumMatchesKnownVectorAndReference) {
    // `cksum` of "123456789" prints 930766865.
    EXPECT_EQ(930766865u, kvui_cksum(reinterpret_cast<const unsigned char*>("123456789"), 9));
    EXPECT_EQ(4294967295u, kvui_cksum(nullptr, 0));
    unsigned char bytes[20];
    for (int i = 0; i < 20; ++i) bytes[i] = static_cast<unsigned char>(i * 37 + 1);
    EXPECT_EQ(reference_cksum(bytes, 20), kvui_cksum(bytes, 20));
}

TEST(PortKvui, CksumAgreesWithTheSystemTool) {
    if (access("/usr/bin/cksum", X_OK) != 0) GTEST_SKIP() << "no cksum tool";
    kvui_t u;
    kvui_create5(&u, 10, 4242, 0x5f000000, 0x0001abcd, 0x12345678);
    zovtest::TempDir dir("zov_port_kvui_");
    std::string path = dir.write("uid", std::string(reinterpret_cast<const char*>(&u), 20));
    zovtest::ChildResult sum = zovtest::run_child({"/usr/bin/cksum", path});
    ASSERT_EQ(0, sum.status) << sum.out;
    unsigned long crc = 0, len = 0;
    ASSERT_EQ(2, sscanf(sum.out.c_str(), "%lu %lu", &crc, &len));
    EXPECT_EQ(20u, len);
    char text[KVUI_STRING_SIZE];
    kvui_to_string(&u, text, KVUI_FMT_LONG);
    char expect[16];
    snprintf(expect, sizeof(expect), "%08lx-", crc);
    EXPECT_EQ(0, strncmp(text, expect, 9)) << text;
}

TEST(PortKvui, CreateLaysOutFiveNetworkOrderWords) {
    kvui_t u;
    kvui_create(&u, KVUI_MERLODE, 777);
    EXPECT_EQ(10u, word(u, 0));
    EXPECT_EQ(777u, word(u, 1));
    EXPECT_NE(0u, word(u, 2));  // the time
    EXPECT_EQ(KVUI_MERLODE, kvui_get_idtype(&u));
    EXPECT_EQ(777u, kvui_get_private(&u));
    // The counter in the top half of ctime_hi tells two ids of one second apart.
    kvui_t v;
    kvui_create(&v, KVUI_MERLODE, 777);
    EXPECT_NE(0, kvui_cmp(&u, &v));
    EXPECT_EQ(word(u, 3) & 0xFFFFu, word(v, 3) & 0xFFFFu);  // same hardware address
    EXPECT_EQ(word(u, 4), word(v, 4));

    kvui_create(&u, KVUI_SHORTID, 99);
    EXPECT_EQ(1u, word(u, 0));
    EXPECT_EQ(99u, word(u, 1));
    EXPECT_EQ(0u, word(u, 2) | word(u, 3) | word(u, 4));
}

TEST(PortKvui, ShortAndLongFormsByTypeAndFormat) {
    kvui_t u;
    for (int t : {0, 1, 2}) {
        kvui_create5(&u, t, 4000000000u, 1, 2, 3);
        EXPECT_STREQ("4000000000", kvui_to_string(&u, nullptr, KVUI_FMT_LONG)) << t;
        EXPECT_STREQ("4000000000", kvui_to_string(&u, nullptr, KVUI_FMT_DEFAULT)) << t;
    }
    for (int t : {3, 4, 6, 7}) {
        kvui_create5(&u, t, 12, 1, 2, 3);
        EXPECT_STREQ("12", kvui_to_string(&u, nullptr, KVUI_FMT_DEFAULT)) << t;
        EXPECT_STREQ("12", kvui_to_string(&u, nullptr, KVUI_FMT_SHORT)) << t;
        EXPECT_EQ(53u, strlen(kvui_to_string(&u, nullptr, KVUI_FMT_LONG))) << t;
    }
    for (int t : {5, 8, 9, 11, 16}) {
        kvui_create5(&u, t, 12, 1, 2, 3);
        EXPECT_EQ(53u, strlen(kvui_to_string(&u, nullptr, KVUI_FMT_SHORT))) << t;
    }
    // The snapshot module's identities: long unless the short form is asked for.
    kvui_create5(&u, KVUI_MERLODE, 12, 1, 2, 3);
    EXPECT_EQ(53u, strlen(kvui_to_string(&u, nullptr, KVUI_FMT_DEFAULT)));
    EXPECT_STREQ("12", kvui_to_string(&u, nullptr, KVUI_FMT_SHORT));
}

TEST(PortKvui, LongFormIsCrcThenFiveGroupsOfEightHexDigits) {
    kvui_t u;
    kvui_create5(&u, 0x0a, 0x1234, 0xdeadbeef, 0x00010203, 0xa0b0c0d0);
    char buf[KVUI_STRING_SIZE];
    std::string text = kvui_to_long_string(&u, buf);
    EXPECT_TRUE(std::regex_match(text, std::regex("([0-9a-f]{8}-){5}[0-9a-f]{8}"))) << text;
    char crc[9];
    snprintf(crc, sizeof(crc), "%08x", reference_cksum(reinterpret_cast<unsigned char*>(&u), 20));
    EXPECT_EQ(std::string(crc) + "-0000000a-00001234-deadbeef-00010203-a0b0c0d0", text);
}

TEST(PortKvui, TextParsesBack) {
    kvui_t u, back;
    kvui_create(&u, KVUI_DEVICE, 5);
    std::string text = kvui_to_string(&u, nullptr, KVUI_FMT_LONG);
    ASSERT_EQ(0, string_to_kvui(text.c_str(), &back));
    EXPECT_EQ(0, kvui_cmp(&u, &back));
    // A wrong CRC, a missing dash or a stray character is refused.
    std::string bad = text;
    bad[0] = bad[0] == '0' ? '1' : '0';
    EXPECT_EQ(-1, string_to_kvui(bad.c_str(), &back));
    bad = text;
    bad[17] = 'x';
    EXPECT_EQ(-1, string_to_kvui(bad.c_str(), &back));
    bad = text;
    bad[8] = '+';
    EXPECT_EQ(-1, string_to_kvui(bad.c_str(), &back));
    ASSERT_EQ(0, string_to_kvui("4294967295", &back));
    EXPECT_EQ(KVUI_SHORTID, kvui_get_idtype(&back));
    EXPECT_EQ(4294967295u, kvui_get_private(&back));
    EXPECT_EQ(-1, string_to_kvui("4294967296", &back));
    EXPECT_EQ(-1, string_to_kvui("", &back));
    EXPECT_EQ(-1, string_to_kvui("12a", &back));
}

TEST(PortKvui, ZeroAndNotIds) {
    EXPECT_EQ(1, kvui_is_zeroid(&Zero_kvui));
    EXPECT_EQ(0, kvui_is_notid(&Zero_kvui));
    EXPECT_EQ(1, kvui_is_notid(&Not_kvui));
    EXPECT_EQ(KVUI_NOTID, kvui_get_idtype(&Not_kvui));
    EXPECT_STREQ("0", kvui_to_string(&Zero_kvui, nullptr, KVUI_FMT_LONG));
}

TEST(PortKvui, RotatingBuffersKeepRecentResults) {
    kvui_t a, b;
    kvui_create5(&a, 1, 1, 0, 0, 0);
    kvui_create5(&b, 1, 2, 0, 0, 0);
    char* ta = kvui_to_string(&a, nullptr, KVUI_FMT_DEFAULT);
    char* tb = kvui_to_string(&b, nullptr, KVUI_FMT_DEFAULT);
    EXPECT_STREQ("1", ta);
    EXPECT_STREQ("2", tb);
}
